// Io driven by hand: time stands still until it is moved, files change when the test says so, and
// work off the loop runs when it is told to.
#pragma once

#include <algorithm>
#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include "platform/zavro/Clock.h"
#include "runtime/Io.h"

namespace Runtime {

// In milliseconds, by which time is moved.
inline constexpr uint64_t kSecond = 1000;

class ManualIo final : public Io {
 public:
  // Thrown by work that does not come to its end, until hungReturn().
  struct Hangs {};

  explicit ManualIo(Zavro::ManualClock& clock) : clock_(clock) {}

  std::unique_ptr<Activity> watch(const std::string& /*path*/, std::function<void()> changed) override {
    return add(watches_, {0, std::move(changed)});
  }
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override {
    return add(timers_, {nowMs_ + milliseconds, std::move(elapsed)});
  }
  std::unique_ptr<Waker> waker(std::function<void()> woken) override {
    return std::make_unique<ManualWaker>(wakers_, std::move(woken));
  }
  void offLoop(std::function<void()> work, std::function<void()> done) override {
    jobs_.push_back({std::move(work), std::move(done)});
  }

  // Tells every watch that its file may have changed.
  void fileChanged() {
    for (const auto& watch : std::list(watches_)) watch->call();
  }
  size_t jobs() const { return jobs_.size(); }
  // Runs the work that was handed over, and what it hands over in turn, and tells those who were woken.
  void work() {
    for (ManualWaker* waker : std::list(wakers_)) waker->tell();
    while (!jobs_.empty()) {
      Job job = std::move(jobs_.front());
      jobs_.pop_front();
      try {
        job.work();
      } catch (const Hangs&) {
        hung_.push_back(std::move(job));
        continue;
      }
      job.done();
    }
  }
  // Lets the work that was handed over first hang.
  void hangFirst() { hung_.splice(hung_.end(), jobs_, jobs_.begin()); }
  // Lets the work that hangs go on; it is run anew.
  void hungReturn() {
    jobs_.splice(jobs_.end(), hung_);
    work();
  }
  // Moves time, firing timers in order and running what they hand over.
  void advance(uint64_t milliseconds) {
    uint64_t end = nowMs_ + milliseconds;
    work();
    while (true) {
      auto next = std::min_element(timers_.begin(), timers_.end(),
                                   [](const auto& a, const auto& b) { return a->atMs < b->atMs; });
      if (next == timers_.end() || (*next)->atMs > end) break;
      auto timer = *next;
      timers_.erase(next);
      moveTo(timer->atMs);
      timer->call();
      work();
    }
    moveTo(end);
  }

 private:
  struct Callback {
    uint64_t atMs;
    std::function<void()> call;
  };
  using Callbacks = std::list<std::shared_ptr<Callback>>;
  struct Job {
    std::function<void()> work;
    std::function<void()> done;
  };
  class Registration final : public Activity {
   public:
    Registration(Callbacks& all, std::shared_ptr<Callback> own) : all_(all), own_(std::move(own)) {}
    ~Registration() override { all_.remove(own_); }

   private:
    Callbacks& all_;
    std::shared_ptr<Callback> own_;
  };

  class ManualWaker final : public Waker {
   public:
    ManualWaker(std::list<ManualWaker*>& all, std::function<void()> woken)
        : all_(all), woken_(std::move(woken)) {
      all_.push_back(this);
    }
    ~ManualWaker() override { all_.remove(this); }
    void wake() override { awake_ = true; }
    void tell() {
      if (awake_.exchange(false)) woken_();
    }

   private:
    std::list<ManualWaker*>& all_;
    std::function<void()> woken_;
    std::atomic<bool> awake_ = false;
  };

  static std::unique_ptr<Activity> add(Callbacks& all, Callback callback) {
    all.push_back(std::make_shared<Callback>(std::move(callback)));
    return std::make_unique<Registration>(all, all.back());
  }
  void moveTo(uint64_t ms) {
    clock_.advanceNs((ms - nowMs_) * 1'000'000);
    nowMs_ = ms;
  }

  Zavro::ManualClock& clock_;
  uint64_t nowMs_ = 0;
  Callbacks watches_;
  Callbacks timers_;
  std::list<Job> jobs_;
  std::list<Job> hung_;
  std::list<ManualWaker*> wakers_;
};

}  // namespace Runtime
