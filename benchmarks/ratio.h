// ratio.h - our work and its floor, measured turn by turn in one run.
//
// A floor is the same work without this library: the plain system calls, the plain memcpy. Both are
// run in every iteration, one after the other, so that whatever else the machine does falls on
// both. The figure is the ratio of the medians.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace plexa_bench {

inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

template <class Work>
double seconds_of(Work &&work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline void report(benchmark::State &state, double floor, double ours, double limit) {
  const double ratio = floor > 0 ? ours / floor : 0;
  state.counters["floor_us"] = floor * 1e6;
  state.counters["ours_us"] = ours * 1e6;
  state.counters["ratio"] = ratio;
  state.counters["at_most"] = limit;
  state.SetLabel(ratio <= limit ? "within" : "OVER");
}

// Each of the two does one unit of work; limit is the ratio that the project holds itself to.
template <class Floor, class Ours>
void compare(benchmark::State &state, double limit, Floor &&floor, Ours &&ours) {
  floor();  // warm
  ours();
  std::vector<double> floor_times;
  std::vector<double> our_times;
  for (auto _ : state) {
    floor_times.push_back(seconds_of(floor));
    our_times.push_back(seconds_of(ours));
    state.SetIterationTime(our_times.back());
  }
  report(state, median(floor_times), median(our_times), limit);
}

}  // namespace plexa_bench
