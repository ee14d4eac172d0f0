// Tasks on the event loop.
#include "host/TaskRunner.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/runtime/Turning.h"
#include "tests/support/DrivenScheduler.h"

namespace Host {
namespace {

TEST(TaskRunnerTest, OneSliceInEachTurn_OthersGetTheirsInBetween) {
  Runtime::EventLoop loop;
  DrivenScheduler scheduler;
  TaskRunner runner(loop, scheduler.get());
  std::string log;
  Runtime::TurnWatch turns(loop, [&] { log += '|'; });
  Zavro::Ptr<Vem::Task> task;
  int slices = 0;
  task = Zavro::makePtr<Vem::Task>(scheduler.get(), Vem::kDefaultPriority, "task", [&] {
    log += 's';
    if (++slices < 3) task->scheduleTask();
  });
  task->scheduleTask();
  for (int i = 0; i < 5; ++i) uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(log, "s|s|s|||");
  task->cancel();
}

// systemd was told that the daemon is ready only when a timer of 15 s woke it.
TEST(TaskRunnerTest, WhatTheLastTaskDid_IsSeenBeforeTheLoopWaits) {
  Runtime::EventLoop loop;
  DrivenScheduler scheduler;
  TaskRunner runner(loop, scheduler.get());
  bool done = false;
  bool seen = false;
  auto task = Zavro::makePtr<Vem::Task>(scheduler.get(), Vem::kDefaultPriority, "task", [&] { done = true; });
  Runtime::TurnWatch turns(loop, [&] {
    seen = seen || done;
    if (seen) loop.stop();
  });
  Runtime::Timer wakes(loop, [] {});
  wakes.start(5000);
  task->scheduleTask();
  uint64_t begun = uv_now(loop.uv());
  loop.run();
  uv_update_time(loop.uv());
  EXPECT_LT(uv_now(loop.uv()) - begun, 5000);
}

TEST(TaskRunnerTest, TaskScheduledBeforeOrAfterTheRunnerWasMade_Runs) {
  Runtime::EventLoop loop;
  DrivenScheduler scheduler;
  int runs = 0;
  auto task = Zavro::makePtr<Vem::Task>(scheduler.get(), Vem::kDefaultPriority, "task", [&] { ++runs; });
  task->scheduleTask();
  TaskRunner runner(loop, scheduler.get());
  EXPECT_TRUE(Runtime::turnUntil(loop, [&] { return runs == 1; }));
  task->scheduleTask();
  EXPECT_TRUE(Runtime::turnUntil(loop, [&] { return runs == 2; }));
}

TEST(TaskRunnerTest, NothingRunnable_TheLoopIsNotKeptBusy) {
  Runtime::EventLoop loop;
  DrivenScheduler scheduler;
  TaskRunner runner(loop, scheduler.get());
  auto task = Zavro::makePtr<Vem::Task>(scheduler.get(), Vem::kDefaultPriority, "task", [] {});
  task->scheduleTask();
  uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(uv_loop_alive(loop.uv()), 0);
}

}  // namespace
}  // namespace Host
