// Virtual time and random numbers of one run. Nothing in a run knows any other time, and everything that is
// drawn is drawn here, so that a seed gives the same run wherever it is run.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <utility>

#include "platform/zavro/Clock.h"
#include "runtime/Backoff.h"

namespace ClusterSimulation {

class World final {
 public:
  explicit World(uint64_t seed) : engine_(seed) { clock_.advanceNs(kStartMs * kNsPerMs); }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  uint64_t nowMs() const { return clock_.monotonicNs() / kNsPerMs; }
  const Zavro::Clock& clock() const { return clock_; }

  // Calls after that time; what is due at the same time is called in the order in which it was asked for.
  void in(uint64_t ms, std::function<void()> call) {
    queue_.emplace(std::pair(nowMs() + ms, ++last_), std::move(call));
  }
  // Goes on to that moment.
  void runUntil(uint64_t ms) {
    while (!queue_.empty() && queue_.begin()->first.first <= ms) {
      auto next = queue_.extract(queue_.begin());
      moveTo(next.key().first);
      next.mapped()();
    }
    moveTo(ms);
  }

  // Including both.
  uint64_t between(uint64_t least, uint64_t most) { return least + engine_() % (most - least + 1); }
  // An index.
  size_t below(size_t count) { return static_cast<size_t>(engine_() % count); }
  bool chance(unsigned percent) { return engine_() % 100 < percent; }
  // Numbers for a part of the product, independent of the others' use of theirs.
  Runtime::Random random() {
    return [engine = std::minstd_rand(static_cast<uint32_t>(engine_()))]() mutable {
      return static_cast<double>(engine() - engine.min()) /
             (static_cast<double>(engine.max()) - static_cast<double>(engine.min()) + 1);
    };
  }

  // A run begins long after the start of the clock, as 0 may mean "never".
  static constexpr uint64_t kStartMs = 1'000'000;

 private:
  static constexpr uint64_t kNsPerMs = 1'000'000;

  void moveTo(uint64_t ms) {
    if (ms > nowMs()) clock_.advanceNs((ms - nowMs()) * kNsPerMs);
  }

  Zavro::ManualClock clock_{1'700'000'000'000'000'000};
  std::mt19937_64 engine_;
  uint64_t last_ = 0;
  std::map<std::pair<uint64_t, uint64_t>, std::function<void()>> queue_;
};

}  // namespace ClusterSimulation
