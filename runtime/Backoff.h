// How long to wait before a retry: longer each time, up to a bound. Random, so that many clients that failed
// at the same time do not all come back at the same time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <utility>

namespace Runtime {

// Yields numbers from 0 up to, not including, 1.
using Random = std::function<double()>;

// Seeded by the system: other numbers in each process.
inline Random unforeseenRandom() {
  return [engine = std::minstd_rand(std::random_device()())]() mutable {
    return std::uniform_real_distribution<double>(0, 1)(engine);
  };
}

class Backoff final {
 public:
  Backoff(uint64_t firstMs, uint64_t lastMs, Random random)
      : firstMs_(firstMs), lastMs_(lastMs), delayMs_(firstMs), random_(std::move(random)) {}

  // Between half of the delay and all of it; the next delay is twice as long.
  uint64_t nextMs() { return variedMs(std::exchange(delayMs_, std::min(delayMs_ * 2, lastMs_))); }
  // Between half of that and all of it.
  uint64_t variedMs(uint64_t mostMs) {
    return mostMs / 2 + static_cast<uint64_t>(random_() / 2 * static_cast<double>(mostMs));
  }
  // To be called on success: the next delay is the first again.
  void reset() { delayMs_ = firstMs_; }

 private:
  uint64_t firstMs_;
  uint64_t lastMs_;
  uint64_t delayMs_;
  Random random_;
};

}  // namespace Runtime
