#include "log_capture.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "dlog.h"

namespace plexa_test {
namespace {

std::mutex lock;
std::vector<LogLine> captured;
void (*line_hook)() = nullptr;

std::string render(const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int saved = errno;  // "%m" must print the same text in both passes
  const int size = std::vsnprintf(nullptr, 0, format, args);
  std::string text(static_cast<size_t>(std::max(size, 0)) + 1, '\0');
  errno = saved;
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  text.pop_back();
  return text;
}

// "file: function(line) > [version][stamp][AREA] message"
void split(LogLine &line) {
  const size_t colon = line.text.find(": ");
  const size_t paren = line.text.find('(');
  size_t at = line.text.find("> [");
  if (colon == std::string::npos || paren == std::string::npos || at == std::string::npos) return;
  line.file = line.text.substr(0, colon);
  line.function = line.text.substr(colon + 2, paren - colon - 2);
  at = line.text.find("][", at);
  if (at == std::string::npos) return;
  at = line.text.find("][", at + 2);
  if (at != std::string::npos) line.message = line.text.substr(at + 1);
}

}  // namespace

void LogCapture::clear() {
  const std::lock_guard guard(lock);
  captured.clear();
}

std::vector<LogLine> LogCapture::lines() {
  const std::lock_guard guard(lock);
  return captured;
}

std::vector<std::string> LogCapture::messages() {
  std::vector<std::string> out;
  for (const LogLine &line : lines()) out.push_back(line.message);
  return out;
}

std::vector<std::string> LogCapture::messages(int priority) {
  std::vector<std::string> out;
  for (const LogLine &line : lines()) {
    if (line.priority == priority) out.push_back(line.message);
  }
  return out;
}

int LogCapture::count(int priority, const std::string &message) {
  const auto all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine &line) {
    return line.priority == priority && line.message == message;
  }));
}

std::string LogCapture::dump() {
  std::string out;
  for (const LogLine &line : lines()) {
    out += "  " + std::to_string(line.priority) + " " + line.function + ": " + line.message + "\n";
  }
  return out;
}

void LogCapture::set_hook(void (*hook)()) {
  const std::lock_guard guard(lock);
  line_hook = hook;
}

::testing::AssertionResult logged(int priority, const std::string &message) {
  if (LogCapture::count(priority, message) > 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "no line with priority " << priority << " and message\n  " << message << "\nin\n"
         << LogCapture::dump();
}

::testing::AssertionResult logged_in_order(const std::vector<std::string> &messages) {
  size_t next = 0;
  for (const std::string &message : LogCapture::messages()) {
    if (next < messages.size() && message == messages[next]) ++next;
  }
  if (next == messages.size()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "missing, or out of order:\n  " << messages[next] << "\nin\n"
         << LogCapture::dump();
}

}  // namespace plexa_test

extern "C" int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...) {
  using namespace plexa_test;
  va_list args;
  va_start(args, format);
  LogLine line{buffer, priority, tag, render(format, args), {}, {}, {}};
  va_end(args);
  split(line);
  const std::lock_guard guard(lock);
  if (line_hook != nullptr) line_hook();
  captured.push_back(std::move(line));
  return static_cast<int>(captured.back().text.size());
}
