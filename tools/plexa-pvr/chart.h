// chart.h - a step chart over time as inline SVG. A function without state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace plexa::pvr {

struct ChartPoint {
  int64_t time;  // ms at which the value begins to hold
  double value;
};

// Points rise in time; the last one holds until `end`. Where there are more points than the chart
// has columns, a column shows its greatest value. `unit` stands behind the numbers of the scale.
std::string svg_chart(const std::string &title, const std::vector<ChartPoint> &points, int64_t end,
                      const std::string &unit);

}  // namespace plexa::pvr
