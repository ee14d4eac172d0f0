// The tasks of a run: which one runs next, and when its slice ends.
#pragma once

#include "platform/vem/Vem.h"
#include "platform/zavro/Clock.h"
#include "tests/simulation/Step.h"
#include "tests/support/Random.h"

namespace Simulation {

class Tasks {
 public:
  explicit Tasks(Zavro::ManualClock& clock) : yields_(clock) {}

  const Zavro::Ptr<Vem::TaskScheduler>& scheduler() const { return scheduler_; }
  // None is due.
  bool settled() const { return !scheduler_->runnable(); }
  // Runs a slice of one of those that are due, which yields as the mode and the draw say. False when none is.
  bool slice(uint32_t which, YieldMode mode, uint32_t draw);

 private:
  // Decides when a slice ends: as a step says, or as production does, on a clock that each item moves.
  class Yields final : public Vem::YieldPolicy {
   public:
    explicit Yields(Zavro::ManualClock& clock) : clock_(clock), slice_(clock) {}
    void are(YieldMode mode, uint64_t draw) {
      mode_ = mode;
      random_ = Support::Random(draw);
    }
    void sliceStarts() override { slice_.sliceStarts(); }
    bool shouldYield() override;

   private:
    Zavro::ManualClock& clock_;
    Vem::TimeSlice slice_;
    YieldMode mode_ = YieldMode::never;
    Support::Random random_{0};
  };

  Yields yields_;
  Zavro::Ptr<Vem::TaskScheduler> scheduler_ = Zavro::makePtr<Vem::TaskScheduler>(yields_);
};

}  // namespace Simulation
