// Two publishers of one member, in every order in which the store may be asked and may answer: who publishes
// in the end depends on who started last, and on nothing else.
#include <gmock/gmock.h>

#include <functional>
#include <list>
#include <random>

#include "tests/member/PublisherFixture.h"

namespace Member {
namespace {

constexpr uint64_t kNsPerMs = 1'000'000;

// Work off the loop, which runs and answers when the test says so, and time, which passes when it says so.
class StepIo final : public Runtime::Io {
 public:
  using Step = std::function<void()>;

  explicit StepIo(Zavro::ManualClock& clock) : clock_(clock) {}

  std::unique_ptr<Activity> watch(const std::string& /*path*/, Step /*changed*/) override { return {}; }
  std::unique_ptr<Waker> waker(Step /*woken*/) override { return {}; }
  std::unique_ptr<Activity> after(uint64_t milliseconds, Step elapsed) override {
    timers_.push_back({clock_.monotonicNs() + milliseconds * kNsPerMs, std::move(elapsed)});
    return std::make_unique<Timer>(timers_, std::prev(timers_.end()));
  }
  void offLoop(Step work, Step done) override { steps_.push_back({std::move(work), std::move(done)}); }

  size_t pending() const { return steps_.size(); }
  // Runs the work, and tells its answer; apart: only one of the two, if the work did not run yet.
  void take(size_t index, bool apart) {
    auto job = std::next(steps_.begin(), static_cast<ptrdiff_t>(index));
    if (job->work) std::exchange(job->work, {})();
    if (apart && !std::exchange(job->apart, true)) return;
    Step done = std::move(job->done);
    steps_.erase(job);
    done();
  }
  void fireNextTimer() {
    auto next = std::min_element(timers_.begin(), timers_.end(),
                                 [](const Due& a, const Due& b) { return a.atNs < b.atNs; });
    ASSERT_NE(next, timers_.end());
    clock_.advanceNs(next->atNs - std::min(next->atNs, clock_.monotonicNs()));
    Step elapsed = next->elapsed;
    next->atNs = std::numeric_limits<uint64_t>::max();
    elapsed();
  }

 private:
  struct Due {
    uint64_t atNs;
    Step elapsed;
  };
  struct Job {
    Step work;
    Step done;
    bool apart = false;
  };
  class Timer final : public Activity {
   public:
    Timer(std::list<Due>& all, std::list<Due>::iterator own) : all_(all), own_(own) {}
    ~Timer() override { all_.erase(own_); }

   private:
    std::list<Due>& all_;
    std::list<Due>::iterator own_;
  };

  Zavro::ManualClock& clock_;
  std::list<Due> timers_;
  std::list<Job> steps_;
};

// Chooses one of so many.
using Choose = std::function<size_t(size_t)>;

class TwoPublishers {
 public:
  TwoPublishers() { sayTo(earlier_, 10); }

  void happens(std::function<void()> event) { events_.push_back(std::move(event)); }
  void expire(LeaseStore::Lease lease) { store_->expire(lease); }
  void laterStarts() { sayTo(later_, 20); }
  void earlierChanges() { sayTo(earlier_, ++load_); }
  void endLater() {
    later_.end([] {});
  }

  // Until so many seconds have passed, without choices.
  void pass(uint64_t seconds) {
    uint64_t endNs = clock_.monotonicNs() + seconds * 1000 * kNsPerMs;
    while (clock_.monotonicNs() < endNs) {
      if (io_.pending() > 0) {
        step(0, false);
      } else {
        io_.fireNextTimer();
      }
    }
  }
  // Until the events have happened and nothing is pending.
  void run(const Choose& choose, bool apart) {
    while (size_t options = io_.pending() + events_.size()) {
      size_t chosen = options == 1 ? 0 : choose(options);
      if (chosen < io_.pending()) {
        step(chosen, apart);
      } else {
        auto event = std::next(events_.begin(), static_cast<ptrdiff_t>(chosen - io_.pending()));
        auto happening = *event;
        events_.erase(event);
        happening();
      }
    }
  }
  // The only lease that has keys of the member; 0: none has.
  LeaseStore::Lease publishing() const {
    std::set<LeaseStore::Lease> leases = otherLeases(store_->keys, LeaseStore::kNoLease);
    EXPECT_LE(leases.size(), 1u) << "the rows are mixed";
    return leases.empty() ? LeaseStore::kNoLease : *leases.begin();
  }
  static bool standsBy(const Publisher& publisher) {
    return publisher.state() == Publisher::State::standby || publisher.state() == Publisher::State::looking;
  }
  bool earlierPublishes() const { return !standsBy(earlier_) && standsBy(later_) && hasAll(load_); }
  bool laterPublishes() const { return standsBy(earlier_) && !standsBy(later_) && hasAll(20); }
  bool onlyEarlierPublishes() const { return !standsBy(earlier_) && hasAll(load_); }

 private:
  static void sayTo(Publisher& publisher, int16_t load) {
    publisher.contentIs({{kLink, Kelstore::Link{Lanix::IntfId("B1")}},
                         {processor("1"), Kelstore::Processor{load}},
                         {processor("2"), Kelstore::Processor{load}}});
  }
  bool hasAll(int16_t load) const {
    auto text = fmt::format(R"({{"load":{}}})", load);
    return store_->keys.size() == 3 && store_->keys.at(processor("1")).text == text;
  }
  void step(size_t index, bool apart) {
    io_.take(index, apart);
    publishing();
  }

  TraceLog trace_{{"Member"}};
  Zavro::ManualClock clock_{1'000'000'000'000};
  StepIo io_{clock_};
  std::shared_ptr<ManualStore> store_ = std::make_shared<ManualStore>();
  int16_t load_ = 10;
  Publisher::Listener listener_{{}, [](const std::string&) {}};
  Publisher earlier_{{1, {}, 15, 1, kRandom}, store_, io_, clock_, listener_};
  Publisher later_{{1, {}, 15, 1, kRandom}, store_, io_, clock_, listener_};
  std::list<std::function<void()>> events_;
};

// Runs every sequence of choices, of which the first so many are free; the others are the first option.
// Returns their number.
size_t inEveryOrder(size_t freeChoices, const std::function<void(const Choose&)>& run) {
  struct Choice {
    size_t taken;
    size_t options;
  };
  std::vector<Choice> choices;
  for (size_t runs = 1;; ++runs) {
    size_t made = 0;
    run([&](size_t options) -> size_t {
      if (made == choices.size()) {
        if (made == freeChoices) return 0;
        choices.push_back({0, options});
      }
      return choices[made++].taken;
    });
    if (testing::Test::HasFailure()) return runs;
    while (!choices.empty() && choices.back().taken + 1 == choices.back().options) choices.pop_back();
    if (choices.empty()) return runs;
    ++choices.back().taken;
  }
}

// The earlier one publishes, and is about to renew its lease. Then, in any order: it finds a change, its
// lease ends, and the later one starts.
void cutOffWhileAnotherStarts(const Choose& choose, bool apart) {
  TwoPublishers world;
  world.pass(6);
  ASSERT_TRUE(world.onlyEarlierPublishes());
  world.happens([&] { world.earlierChanges(); });
  world.happens([&] { world.expire(101); });
  world.happens([&] { world.laterStarts(); });
  world.run(choose, apart);
  world.pass(60);
  ASSERT_TRUE(world.laterPublishes());
  world.endLater();
  world.pass(20);
  ASSERT_TRUE(world.onlyEarlierPublishes()) << "it goes on when the later one has ended";
}

TEST(PublisherOrderTest, LeaseEndsWhileASuccessorStarts_TheSuccessorPublishes_InEveryOrder) {
  EXPECT_GT(inEveryOrder(8, [](const Choose& choose) { cutOffWhileAnotherStarts(choose, false); }), 1000u);
}

TEST(PublisherOrderTest, LeaseEndsWhileASuccessorStarts_TheSuccessorPublishes_WheneverAnswersCome) {
  for (unsigned seed = 0; seed < 1000 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    cutOffWhileAnotherStarts([&](size_t options) { return random() % options; }, true);
  }
}

// Asleep: the successor started, and publishes, while the earlier one's lease ended.
TEST(PublisherOrderTest, WakesUpAfterASuccessorPublished_StandsBy_InEveryOrder) {
  auto wakeUp = [](const Choose& choose) {
    TwoPublishers world;
    world.pass(6);
    world.expire(101);
    world.laterStarts();
    // The first of its calls, and whatever follows.
    world.happens([&] { world.earlierChanges(); });
    world.run(choose, true);
    world.pass(60);
    ASSERT_TRUE(world.laterPublishes());
  };
  EXPECT_GT(inEveryOrder(8, wakeUp), 100u);
}

TEST(PublisherOrderTest, AllLeasesEndTwiceBesideOneThatStandsBy_OneOfThemPublishes) {
  for (unsigned seed = 0; seed < 1000 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Choose any = [&](size_t options) { return random() % options; };
    TwoPublishers world;
    world.pass(6);
    world.laterStarts();
    world.pass(6 + seed % 20);
    for (int i = 0; i < 2; ++i) {
      world.happens([&] { world.expire(world.publishing()); });
      world.happens([&] { world.earlierChanges(); });
      world.run(any, true);
    }
    world.pass(60);
    EXPECT_TRUE(world.laterPublishes() || world.earlierPublishes());
  }
}

}  // namespace
}  // namespace Member
