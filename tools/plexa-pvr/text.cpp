// text.cpp - see text.h.
#include "text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <iterator>
#include <optional>
#include <string_view>
#include <vector>

#include "failure.h"

namespace plexa::pvr {
namespace {

std::string taken(gchar *text) {
  std::string copy(text);
  g_free(text);
  return copy;
}

constexpr double kRoundsToThousand = 999.95;  // with one digit behind the point

std::string scaled(double value, const char *const *units, size_t count) {
  size_t unit = 0;
  while (value >= kRoundsToThousand && unit + 1 < count) {
    value /= 1000;
    ++unit;
  }
  return format(unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
}

bool all_digits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<int64_t> digits(std::string_view text) {
  int64_t value = 0;
  if (!all_digits(text)) return {};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{}) return {};
  return value;
}

// "12", "12.5", "12.", ".5": milliseconds.
std::optional<int64_t> seconds(std::string_view text) {
  const size_t dot = text.find('.');
  const std::string_view whole = text.substr(0, dot);
  std::string fraction(dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1));
  if (whole.empty() && fraction.empty()) return {};
  if (!fraction.empty() && !all_digits(fraction)) return {};
  fraction.resize(3, '0');
  const auto value = whole.empty() ? std::optional<int64_t>(0) : digits(whole);
  if (!value || *value > G_MAXINT32 / 1000) return {};
  return *value * 1000 + *digits(fraction);
}

// The parts of "HH:MM:SS.mmm" or "MM:SS.mmm"; below the first, 60 is the next unit.
std::optional<int64_t> clock_time(std::string_view text) {
  int64_t minutes = 0;
  for (int parts = 0;; ++parts) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) break;
    const auto value = digits(text.substr(0, colon));
    if (!value || *value > G_MAXINT32 || parts == 2 || (parts > 0 && *value > 59)) return {};
    minutes = minutes * 60 + *value;
    text.remove_prefix(colon + 1);
  }
  const auto rest = seconds(text);
  if (!rest || *rest >= 60000 || !(g_ascii_isdigit(text.front()))) return {};
  return minutes * 60000 + *rest;
}

std::optional<int64_t> any_time(std::string_view text) {
  if (text.size() > 2 && text.substr(text.size() - 2) == "ms") {
    return digits(text.substr(0, text.size() - 2));
  }
  if (text.find(':') != std::string_view::npos) return clock_time(text);
  return seconds(text);
}

}  // namespace

std::string format(const char *pattern, ...) {
  va_list arguments;
  va_start(arguments, pattern);
  gchar *const text = g_strdup_vprintf(pattern, arguments);
  va_end(arguments);
  return taken(text);
}

std::string display(const std::string &path) {
  std::string text = taken(g_filename_display_name(path.c_str()));
  for (char &letter : text) {
    if (g_ascii_iscntrl(letter)) letter = '?';
  }
  return text;
}

std::string clock_text(int64_t milliseconds) {
  const char *const sign = milliseconds < 0 ? "-" : "";
  const int64_t ms = std::abs(milliseconds);
  return format("%s%02lld:%02d:%02d.%03d", sign, static_cast<long long>(ms / 3600000),
                static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                static_cast<int>(ms % 1000));
}

std::string bytes_text(uint64_t bytes) {
  static constexpr const char *kUnits[] = {"bytes", "kB", "MB", "GB", "TB"};
  return scaled(static_cast<double>(bytes), kUnits, std::size(kUnits));
}

std::string bit_rate_text(int64_t bits_per_second) {
  static constexpr const char *kUnits[] = {"bit/s", "kbit/s", "Mbit/s", "Gbit/s"};
  return scaled(static_cast<double>(bits_per_second), kUnits, std::size(kUnits));
}

gint32 parse_time(const char *option, const std::string &text) {
  const auto value = any_time(text);
  if (!value || *value > G_MAXINT32) {
    throw UsageError(format("%s: not a time: '%s' (1500ms, 12.5 or [HH:]MM:SS[.mmm])", option,
                            display(text).c_str()));
  }
  return static_cast<gint32>(*value);
}

int64_t parse_number(const char *option, const std::string &text, int64_t least, int64_t most) {
  gint64 value = 0;
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (!g_ascii_string_to_signed(hexadecimal ? text.c_str() + 2 : text.c_str(),
                                hexadecimal ? 16 : 10, least, most, &value, nullptr)) {
    throw UsageError(format("%s: not a number from %lld to %lld: '%s'", option,
                            static_cast<long long>(least), static_cast<long long>(most),
                            display(text).c_str()));
  }
  return value;
}

const char *codec_name(int code) {
  static constexpr std::array<const char *, 5> kNames = {"MPEG-2", "H.264", "JPEG", "AVS", "H.265"};
  if (code < 0 || code >= static_cast<int>(kNames.size())) return "unknown";
  return kNames[static_cast<size_t>(code)];
}

}  // namespace plexa::pvr
