// Small helpers shared by the benchmark programs that time whole runs by hand.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

namespace melvo::bench {

inline double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Runs on a shared machine have outliers both ways; the median is what a user sees.
inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t h = v.size() / 2;
  return v.empty() ? 0 : v.size() % 2 ? v[h] : (v[h - 1] + v[h]) / 2;
}

}  // namespace melvo::bench
