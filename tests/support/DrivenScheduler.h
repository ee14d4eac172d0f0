// A scheduler that a test drives: it runs one task at a time when told, and yields as the test says.
#pragma once

#include <functional>
#include <utility>

#include "platform/vem/Vem.h"

class DrivenScheduler {
 public:
  // By default a task yields after every item.
  DrivenScheduler() : scheduler_(Zavro::makePtr<Vem::TaskScheduler>(policy_)) {}

  const Zavro::Ptr<Vem::TaskScheduler>& get() const { return scheduler_; }
  // Asked after every item: whether the task is to yield now.
  void yieldWhen(std::function<bool()> decide) { policy_.decide = std::move(decide); }
  void neverYield() {
    yieldWhen([] { return false; });
  }
  // One slice of the first runnable task; false when there is none.
  bool step() { return scheduler_->runOne(); }
  // Runs until nothing is runnable, calling between() after every slice; returns the number of slices.
  size_t drain(const std::function<void()>& between = [] {}) {
    size_t slices = 0;
    while (step()) {
      ++slices;
      between();
    }
    return slices;
  }

 private:
  struct Policy final : Vem::YieldPolicy {
    std::function<bool()> decide = [] { return true; };
    void sliceStarts() override {}
    bool shouldYield() override { return decide(); }
  };
  Policy policy_;
  Zavro::Ptr<Vem::TaskScheduler> scheduler_;
};
