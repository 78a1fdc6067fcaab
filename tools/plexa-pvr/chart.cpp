// chart.cpp - see chart.h.
#include "chart.h"

#include <algorithm>
#include <cmath>

#include "text.h"

namespace plexa::pvr {
namespace {

constexpr int kWidth = 900;
constexpr int kHeight = 200;
constexpr int kLeft = 90;    // room for the scale
constexpr int kBottom = 24;  // room for the times
constexpr int kTop = 28;     // room for the title
constexpr int kColumns = kWidth - kLeft;
constexpr int kGridLines = 4;

// 1, 2 or 5 times a power of ten, at or above the value.
double round_up(double value) {
  if (!(value > 0)) return 1;
  const double power = std::pow(10.0, std::floor(std::log10(value)));
  for (const double step : {1.0, 2.0, 5.0}) {
    if (value <= step * power) return step * power;
  }
  return 10 * power;
}

int column_of(int64_t time, int64_t end) {
  return static_cast<int>(
      std::clamp<int64_t>(time * kColumns / std::max<int64_t>(end, 1), 0, kColumns - 1));
}

std::vector<double> columns_of(const std::vector<ChartPoint> &points, int64_t end) {
  std::vector<double> columns(kColumns, 0.0);
  for (size_t i = 0; i < points.size(); ++i) {
    const int64_t until = i + 1 < points.size() ? points[i + 1].time : end;
    const int last = std::max(column_of(points[i].time, end), column_of(until - 1, end));
    for (int column = column_of(points[i].time, end); column <= last; ++column) {
      columns[static_cast<size_t>(column)] =
          std::max(columns[static_cast<size_t>(column)], points[i].value);
    }
  }
  return columns;
}

// Whole seconds tell the lines of a short chart not apart.
std::string time_text(int64_t time, int64_t end) {
  constexpr int64_t kShort = 20000;
  return end < kShort ? clock_text(time) : clock_text(time).substr(0, 8);
}

double y_of(double value, double top) { return kTop + kHeight * (1 - value / top); }

std::string grid(double top, int64_t end, const std::string &unit) {
  std::string svg;
  for (int i = 0; i <= kGridLines; ++i) {
    const double value = top * i / kGridLines;
    const double y = y_of(value, top);
    svg += format(
        "<line class=\"grid\" x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\"/>"
        "<text class=\"scale\" x=\"%d\" y=\"%.1f\">%g%s%s</text>\n",
        kLeft, y, kWidth, y, kLeft - 6, y + 4, value, unit.empty() ? "" : " ", unit.c_str());
    const char *const anchor = i == 0 ? "start" : i == kGridLines ? "end" : "middle";
    svg += format("<text class=\"time\" text-anchor=\"%s\" x=\"%d\" y=\"%d\">%s</text>\n", anchor,
                  kLeft + kColumns * i / kGridLines, kTop + kHeight + 18,
                  time_text(end * i / kGridLines, end).c_str());
  }
  return svg;
}

std::string steps(const std::vector<double> &columns, double top) {
  std::string path = format("M%d %d", kLeft, kTop + kHeight);
  for (int i = 0; i < kColumns; ++i) {
    const double y = y_of(columns[static_cast<size_t>(i)], top);
    path += format("L%d %.1fL%d %.1f", kLeft + i, y, kLeft + i + 1, y);
  }
  return path + format("L%d %dZ", kWidth, kTop + kHeight);
}

}  // namespace

std::string svg_chart(const std::string &title, const std::vector<ChartPoint> &points, int64_t end,
                      const std::string &unit) {
  const std::vector<double> columns = columns_of(points, end);
  const double top = round_up(*std::max_element(columns.begin(), columns.end()));
  return format(
             "<svg viewBox=\"0 0 %d %d\" role=\"img\" aria-label=\"%s\">\n"
             "<text class=\"title\" x=\"%d\" y=\"16\">%s</text>\n",
             kWidth, kTop + kHeight + kBottom, title.c_str(), kLeft, title.c_str()) +
         grid(top, end, unit) +
         format("<path class=\"area\" d=\"%s\"/>\n</svg>\n", steps(columns, top).c_str());
}

}  // namespace plexa::pvr
