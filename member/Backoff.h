// How long to wait before something that failed is tried again: longer each time, up to a bound, and never
// exactly as long as somebody else waits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>

namespace Member {

class Backoff final {
 public:
  static constexpr uint64_t kFirstMs = 250;
  static constexpr uint64_t kLastMs = 5000;

  explicit Backoff(uint32_t seed) : random_(seed) {}

  // Between half of the delay and all of it; the delay doubles.
  uint64_t nextMs() {
    uint64_t delayMs = delayMs_;
    delayMs_ = std::min(delayMs_ * 2, kLastMs);
    return std::uniform_int_distribution<uint64_t>(delayMs / 2, delayMs)(random_);
  }
  // It worked.
  void reset() { delayMs_ = kFirstMs; }

 private:
  std::minstd_rand random_;
  uint64_t delayMs_ = kFirstMs;
};

}  // namespace Member
