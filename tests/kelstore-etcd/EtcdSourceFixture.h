// An etcd source with its own thread, and an event loop that the test turns.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "kelstore/etcd/EtcdSource.h"
#include "tests/kelstore/World.h"
#include "tests/runtime/ManualIo.h"
#include "tests/support/Etcd.h"
#include "tests/support/WaitUntil.h"

namespace Kelstore::Etcd {

using namespace std::chrono_literals;
using State = SourceStatus::State;

// The system's clock, and more when a test says so. For two threads.
class LeapingClock final : public Zavro::Clock {
 public:
  uint64_t monotonicNs() const override {
    std::lock_guard goesOn(hanging_);
    return clock_.monotonicNs() + moreNs_;
  }
  uint64_t utcNs() const override { return clock_.utcNs() + moreNs_; }
  // Whoever looks at this clock hangs as long as the lock is held.
  std::unique_lock<std::mutex> hang() { return std::unique_lock(hanging_); }
  void leap(std::chrono::nanoseconds by) { moreNs_ += static_cast<uint64_t>(by.count()); }

 private:
  Zavro::SystemClock clock_;
  std::atomic<uint64_t> moreNs_ = 0;
  mutable std::mutex hanging_;
};

class EtcdSourceTest : public testing::Test {
 protected:
  void start(const std::string& endpoints, FollowSettings settings = {}) {
    std::string text = endpoints + "/p";
    settings.address = *parseAddress(text);
    source_.emplace("etcd:" + text, settings, world_.layers, io_, clock_, threads_);
    world_.scheduler.neverYield();
    source_->start();
  }
  // Turns the loop until the condition holds.
  template <class Condition>
  bool until(Condition condition, Support::Millis deadline = 15s) {
    return Support::waitUntil(
        [&] {
          io_.work();
          log_ += world_.drained();
          return condition();
        },
        deadline);
  }
  bool untilState(State state, Support::Millis deadline = 15s) {
    return until([&] { return status().state == state; }, deadline);
  }
  bool untilIndex(uint32_t expected) {
    return until([&] { return index() == expected; });
  }
  bool refreshed() {
    bool done = false;
    source_->refresh([&done] { done = true; });
    return until([&done] { return done; });
  }
  // Some minutes pass until that server is followed: ten at most.
  bool leapUntilFollowed(const std::string& endpoint) {
    // Each leap is shorter than an answer may take, in case that one is awaited.
    for (int i = 0; i < 120 && status().store->endpoint != endpoint; ++i) {
      uint64_t before = status().store->heardUtcNs;
      clock_.leap(5s);
      if (!refreshed() || !until([&] { return status().store->heardUtcNs > before; })) return false;
    }
    return until([&] { return status().store->state == "watching" && status().store->endpoint == endpoint; });
  }
  uint32_t index(const std::string& name = "a") const {
    const uint32_t* value = world_.mirror.ifMib()->ifIndexByIntfId().find(Lanix::IntfId(name));
    return value == nullptr ? 0 : *value;
  }
  SourceStatus status() const { return source_->status(); }
  uint64_t counter(const std::string& name) const {
    SourceStatus now = status();
    for (const auto& [key, count] : now.store->counters) {
      if (key == name) return count;
    }
    return ~uint64_t{0};
  }
  static std::string ifIndex(uint32_t value) { return R"({"ifIndex": )" + std::to_string(value) + "}"; }
  static void put(const Support::EtcdCluster& etcd, const std::string& key, const std::string& value) {
    etcd.ctl({"put", key, value});
  }

  LeapingClock clock_;
  Zavro::ManualClock ioClock_;
  Runtime::ManualIo io_{ioClock_};
  Runtime::Threads threads_;
  World world_{0};
  std::string log_;
  std::optional<EtcdSource> source_;
};

}  // namespace Kelstore::Etcd
