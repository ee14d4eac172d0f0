// How long things of one kind took, as a distribution.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace Bench {

using Clock = std::chrono::steady_clock;

inline double ms(Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

class Durations {
 public:
  void add(Clock::duration time) { all_.push_back(ms(time)); }
  size_t size() const { return all_.size(); }
  // Requires: there is one. On standard output.
  void print(const std::string& what) {
    std::sort(all_.begin(), all_.end());
    fmt::print("{:<48} p50 {:8.3f} ms   p99 {:8.3f} ms   max {:8.3f} ms   ({} of them)\n", what, at(0.5),
               at(0.99), all_.back(), all_.size());
  }

 private:
  double at(double part) const {
    return all_[std::min(all_.size() - 1, static_cast<size_t>(part * static_cast<double>(all_.size())))];
  }
  std::vector<double> all_;
};

}  // namespace Bench
