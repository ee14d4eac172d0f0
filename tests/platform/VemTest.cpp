#include "platform/vem/Vem.h"

#include <gmock/gmock.h>

#include <csignal>
#include <stdexcept>

namespace {

// Says yes when told; notes the slices.
class DrivenPolicy final : public Vem::YieldPolicy {
 public:
  void sliceStarts() override { ++slices; }
  bool shouldYield() override { return yield; }
  int slices = 0;
  bool yield = false;
};

class VemTest : public testing::Test {
 protected:
  // A task that writes its name into the log, and does `also`.
  Zavro::Ptr<Vem::Task> task(std::string name, Vem::TaskPriority priority = Vem::kDefaultPriority,
                             std::function<void()> also = {}) {
    return Zavro::makePtr<Vem::Task>(scheduler_, priority, name, [this, name, also] {
      log_ += name + " ";
      if (also) also();
    });
  }
  std::string runAll() {
    while (scheduler_->runOne()) {
    }
    return std::exchange(log_, "");
  }

  DrivenPolicy policy_;
  Zavro::Ptr<Vem::TaskScheduler> scheduler_ = Zavro::makePtr<Vem::TaskScheduler>(policy_);
  std::string log_;
};

TEST_F(VemTest, EmptyQueue_RunsNothing) {
  EXPECT_FALSE(scheduler_->runnable());
  EXPECT_FALSE(scheduler_->runOne());
  EXPECT_EQ(policy_.slices, 0);
}

TEST_F(VemTest, NewTask_WaitsUntilItIsScheduled) {
  auto a = task("a", 7);
  EXPECT_EQ(a->name(), "a");
  EXPECT_EQ(a->priority(), 7);
  EXPECT_FALSE(a->scheduled());
  EXPECT_FALSE(scheduler_->runnable());
  a->scheduleTask();
  EXPECT_TRUE(a->scheduled());
  EXPECT_EQ(runAll(), "a ");
  EXPECT_FALSE(a->scheduled());
}

TEST_F(VemTest, TasksRun_ByPriorityThenByAge) {
  auto a = task("a");
  auto b = task("b", 255);
  auto c = task("c");
  auto d = task("d", 0);
  for (const auto& t : {b, a, c, d}) t->scheduleTask();
  EXPECT_EQ(runAll(), "d a c b ");
}

TEST_F(VemTest, ScheduledAgainBeforeItRan_KeepsItsPlaceAndRunsOnce) {
  auto a = task("a");
  auto b = task("b");
  a->scheduleTask();
  b->scheduleTask();
  a->scheduleTask();
  EXPECT_EQ(runAll(), "a b ");
}

TEST_F(VemTest, RescheduledWhileRunning_RunsAgainBehindItsPeers) {
  int left = 2;
  Zavro::Ptr<Vem::Task> a;
  a = task("a", Vem::kDefaultPriority, [&] {
    EXPECT_FALSE(a->scheduled());
    if (left-- > 0) a->scheduleTask();
  });
  auto b = task("b");
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(runAll(), "a b a a ");
}

TEST_F(VemTest, MoreUrgentTaskScheduledWithinARun_IsNext) {
  auto urgent = task("urgent", 1);
  auto a = task("a", 9, [&] { urgent->scheduleTask(); });
  auto b = task("b", 9);
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(runAll(), "a urgent b ");
}

TEST_F(VemTest, RunOne_GivesOneSlice) {
  auto a = task("a");
  auto b = task("b");
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_TRUE(scheduler_->runOne());
  EXPECT_EQ(log_, "a ");
  EXPECT_EQ(policy_.slices, 1);
  EXPECT_TRUE(scheduler_->runnable());
}

TEST_F(VemTest, RunOfOneTask_TakesItOutOfTurnAndLeavesTheOthersInTheirs) {
  auto a = task("a", 1);
  auto b = task("b");
  auto c = task("c");
  auto other = Zavro::makePtr<Vem::TaskScheduler>(policy_);
  auto elsewhere = Zavro::makePtr<Vem::Task>(other, Vem::kDefaultPriority, "elsewhere", [] {});
  for (const auto& each : {a, b, c, elsewhere}) each->scheduleTask();
  EXPECT_TRUE(scheduler_->run(*c));
  EXPECT_EQ(policy_.slices, 1);
  EXPECT_FALSE(c->scheduled());
  EXPECT_FALSE(scheduler_->run(*c));          // not queued any more
  EXPECT_FALSE(scheduler_->run(*elsewhere));  // not in this queue
  EXPECT_EQ(runAll(), "c a b ");
}

TEST_F(VemTest, YieldDecision_IsThePolicysForTheRunningTask_YesForAllOthers) {
  auto other = task("other");
  Zavro::Ptr<Vem::Task> a;
  a = task("a", 1, [&] {
    EXPECT_TRUE(a->taskCurrentlyRunning());
    EXPECT_FALSE(other->taskCurrentlyRunning());
    EXPECT_FALSE(a->taskShouldYield());
    EXPECT_TRUE(other->taskShouldYield());
    policy_.yield = true;
    EXPECT_TRUE(a->taskShouldYield());
    policy_.yield = false;
  });
  EXPECT_TRUE(a->taskShouldYield());
  a->scheduleTask();
  EXPECT_EQ(runAll(), "a ");
  EXPECT_FALSE(a->taskCurrentlyRunning());
  EXPECT_TRUE(a->taskShouldYield());
}

TEST_F(VemTest, CancelledTask_LeavesTheQueueForGood) {
  auto a = task("a");
  a->scheduleTask();
  a->cancel();
  EXPECT_FALSE(a->scheduled());
  a->scheduleTask();
  EXPECT_FALSE(scheduler_->runnable());
  EXPECT_EQ(runAll(), "");
  a->cancel();
}

TEST_F(VemTest, CancelledWhileRunning_FinishesThisRunAndHasNoOther) {
  Zavro::Ptr<Vem::Task> a;
  a = task("a", 1, [&] {
    a->scheduleTask();
    a->cancel();
    a->scheduleTask();
    log_ += "finishes ";
  });
  a->scheduleTask();
  EXPECT_EQ(runAll(), "a finishes ");
}

TEST_F(VemTest, CancelledByAnotherTask_DoesNotRun) {
  auto b = task("b", 2);
  auto a = task("a", 1, [&] { b->cancel(); });
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(runAll(), "a ");
}

TEST_F(VemTest, WhatACancelledTaskHolds_IsReleasedAtOnceOrAfterItsRun) {
  auto held = std::make_shared<int>(1);
  auto idle = Zavro::makePtr<Vem::Task>(scheduler_, Vem::TaskPriority{1}, "idle", [held] {});
  EXPECT_EQ(held.use_count(), 2);
  idle->cancel();
  EXPECT_EQ(held.use_count(), 1);

  Zavro::Ptr<Vem::Task> running;
  running = Zavro::makePtr<Vem::Task>(scheduler_, Vem::TaskPriority{1}, "running", [&, held] {
    running->cancel();
    log_ += std::to_string(held.use_count());
  });
  running->scheduleTask();
  EXPECT_EQ(runAll(), "2");
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(VemTest, TaskThatHoldsItself_IsGoneOnceItIsCancelled) {
  Vem::Task* raw = nullptr;
  {
    auto holder = std::make_shared<Zavro::Ptr<Vem::Task>>();
    *holder = Zavro::makePtr<Vem::Task>(scheduler_, Vem::TaskPriority{1}, "self", [holder] {});
    raw = holder->get();
  }
  ASSERT_EQ(scheduler_->tasks().size(), 1u);
  raw->cancel();
  EXPECT_TRUE(scheduler_->tasks().empty());
}

TEST_F(VemTest, DestroyedTask_LeavesTheQueueAndTheList) {
  auto a = task("a");
  auto b = task("b");
  a->scheduleTask();
  b->scheduleTask();
  a.reset();
  EXPECT_EQ(scheduler_->tasks(), std::vector<const Vem::Task*>{b.get()});
  EXPECT_EQ(runAll(), "b ");
  b->scheduleTask();
  b.reset();
  EXPECT_FALSE(scheduler_->runnable());
}

TEST_F(VemTest, TaskDroppedByItsOwnRun_FinishesIt) {
  Zavro::Ptr<Vem::Task> a;
  a = task("a", 1, [&] {
    a->scheduleTask();
    a.reset();
    EXPECT_EQ(scheduler_->tasks().size(), 1u);
    log_ += "finishes ";
  });
  a->scheduleTask();
  EXPECT_EQ(runAll(), "a finishes ");
  EXPECT_TRUE(scheduler_->tasks().empty());
}

TEST_F(VemTest, SchedulerDroppedByItsLastTask_FinishesTheRun) {
  Zavro::Ptr<Vem::Task> a;
  a = task("a", 1, [&] {
    a.reset();
    scheduler_.reset();
    log_ += "finishes ";
  });
  a->scheduleTask();
  EXPECT_TRUE(scheduler_->runOne());
  EXPECT_EQ(log_, "a finishes ");
}

TEST_F(VemTest, UseCounts_AreOneAtTheEnd) {
  auto a = task("a");
  EXPECT_EQ(scheduler_->useCount(), 2u);
  a->scheduleTask();
  EXPECT_EQ(a->useCount(), 1u);
  runAll();
  EXPECT_EQ(a->useCount(), 1u);
  a.reset();
  EXPECT_EQ(scheduler_->useCount(), 1u);
}

TEST_F(VemTest, TaskThatThrows_LeavesTheSchedulerWorking) {
  auto ill = task("ill", 1, [] { throw std::runtime_error("ill"); });
  auto b = task("b", 2);
  ill->scheduleTask();
  b->scheduleTask();
  EXPECT_THROW(scheduler_->runOne(), std::runtime_error);
  EXPECT_FALSE(ill->taskCurrentlyRunning());
  EXPECT_EQ(runAll(), "ill b ");
}

TEST_F(VemTest, StateOfARun_LastsToTheNextRun) {
  auto a = Zavro::makePtr<Vem::Task>(scheduler_, Vem::TaskPriority{1}, "a",
                                     [this, runs = 0]() mutable { log_ += std::to_string(++runs); });
  a->scheduleTask();
  scheduler_->runOne();
  a->scheduleTask();
  EXPECT_EQ(runAll(), "12");
}

TEST_F(VemTest, WorkIsCounted_AndWhatIsPendingIsReplaced) {
  auto a = task("a");
  EXPECT_EQ(a->workCount(), 0u);
  EXPECT_EQ(a->workPending(), 0u);
  a->taskWorkCountInc(5);
  a->taskWorkCountInc(0);
  a->taskWorkCountInc(7);
  a->taskWorkPendingIs(100);
  a->taskWorkPendingIs(3);
  EXPECT_EQ(a->workCount(), 12u);
  EXPECT_EQ(a->workPending(), 3u);
}

TEST_F(VemTest, Tasks_AreListedInOrderOfCreation) {
  auto b = task("b", 9);
  auto a = task("a", 1);
  a->scheduleTask();
  EXPECT_EQ(scheduler_->tasks(), (std::vector<const Vem::Task*>{b.get(), a.get()}));
}

TEST_F(VemTest, OnRunnable_IsCalledWheneverTheQueueStopsBeingEmpty) {
  int calls = 0;
  scheduler_->onRunnable([&] {
    ++calls;
    EXPECT_TRUE(scheduler_->runnable());
  });
  auto a = task("a");
  auto b = task("b");
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(calls, 1);
  runAll();
  b->scheduleTask();
  EXPECT_EQ(calls, 2);
  b->cancel();
  a->scheduleTask();
  EXPECT_EQ(calls, 3);
}

TEST_F(VemTest, OnRunnable_IsCalledWhenTheOnlyTaskSchedulesItself) {
  int calls = 0;
  int left = 1;
  Zavro::Ptr<Vem::Task> a;
  a = task("a", 1, [&] {
    if (left-- > 0) a->scheduleTask();
  });
  scheduler_->onRunnable([&] { ++calls; });
  a->scheduleTask();
  EXPECT_EQ(runAll(), "a a ");
  EXPECT_EQ(calls, 2);
}

TEST_F(VemTest, OnRunnable_ReplacedOrRemoved) {
  scheduler_->onRunnable([this] { log_ += "old "; });
  scheduler_->onRunnable(nullptr);
  auto a = task("a");
  a->scheduleTask();
  EXPECT_EQ(runAll(), "a ");
}

TEST(VemTimeSliceTest, YieldsOnceTheBudgetIsUsedUp) {
  Zavro::ManualClock clock;
  Vem::TimeSlice slice(clock);
  clock.advanceNs(123);
  slice.sliceStarts();
  EXPECT_FALSE(slice.shouldYield());
  clock.advanceNs(4'999'999);
  EXPECT_FALSE(slice.shouldYield());
  clock.advanceNs(1);
  EXPECT_TRUE(slice.shouldYield());
  slice.sliceStarts();
  EXPECT_FALSE(slice.shouldYield());
}

TEST(VemTimeSliceTest, BudgetOfZero_AlwaysYields) {
  Zavro::ManualClock clock;
  Vem::TimeSlice slice(clock, 0);
  slice.sliceStarts();
  EXPECT_TRUE(slice.shouldYield());
}

TEST(VemTimeSliceTest, EachTaskGetsAFullSlice) {
  Zavro::ManualClock clock;
  Vem::TimeSlice slice(clock, 10);
  Zavro::Ptr<Vem::TaskScheduler> scheduler = Zavro::makePtr<Vem::TaskScheduler>(slice);
  std::string log;
  std::vector<Zavro::Ptr<Vem::Task>> tasks;
  for (const char* name : {"a", "b"}) {
    tasks.push_back(Zavro::makePtr<Vem::Task>(scheduler, Vem::kDefaultPriority, name, [&, at = tasks.size()] {
      int items = 0;
      do {
        clock.advanceNs(4);
        ++items;
      } while (!tasks[at]->taskShouldYield());
      log += tasks[at]->name() + std::to_string(items) + " ";
    }));
    tasks.back()->scheduleTask();
  }
  while (scheduler->runOne()) {
  }
  EXPECT_EQ(log, "a3 b3 ");
}

class SchedulerRootTest : public testing::Test {
 protected:
  ~SchedulerRootTest() override { Vem::TaskSchedulerRoot::schedulerIs(nullptr); }
};

TEST_F(SchedulerRootTest, FindsTheSchedulerThatWasSet) {
  DrivenPolicy policy;
  Zavro::Ptr<Vem::TaskScheduler> mine = Zavro::makePtr<Vem::TaskScheduler>(policy);
  Vem::TaskSchedulerRoot::schedulerIs(mine);
  EXPECT_EQ(Vem::TaskSchedulerRoot::findOrCreateScheduler(), mine);
  Vem::TaskSchedulerRoot::schedulerIs(nullptr);
  EXPECT_EQ(mine->useCount(), 1u);
}

TEST_F(SchedulerRootTest, MakesOneThatWorks_AndKeepsIt) {
  Zavro::Ptr<Vem::TaskScheduler> made = Vem::TaskSchedulerRoot::findOrCreateScheduler();
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(Vem::TaskSchedulerRoot::findOrCreateScheduler(), made);
  bool ran = false;
  auto task = Zavro::makePtr<Vem::Task>(made, Vem::kDefaultPriority, "task", [&] { ran = true; });
  task->scheduleTask();
  EXPECT_TRUE(made->runOne());
  EXPECT_TRUE(ran);
}

TEST(VemDeathTest, TaskWithoutSchedulerOrRun_IsABug) {
  DrivenPolicy policy;
  auto scheduler = Zavro::makePtr<Vem::TaskScheduler>(policy);
  EXPECT_EXIT(Vem::Task(nullptr, 1, "a", [] {}), testing::KilledBySignal(SIGABRT), "`scheduler_ != nullptr'");
  EXPECT_EXIT(Vem::Task(scheduler, 1, "a", nullptr), testing::KilledBySignal(SIGABRT), "`run_ != nullptr'");
}

TEST(VemDeathTest, RunWithinARun_IsABug) {
  DrivenPolicy policy;
  auto scheduler = Zavro::makePtr<Vem::TaskScheduler>(policy);
  auto task = Zavro::makePtr<Vem::Task>(scheduler, Vem::kDefaultPriority, "a", [&] { scheduler->runOne(); });
  task->scheduleTask();
  EXPECT_EXIT(scheduler->runOne(), testing::KilledBySignal(SIGABRT), "`running_ == nullptr'");
}

}  // namespace
