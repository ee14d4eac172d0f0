// Tasks, timers and signals on the loop.
#include "EventLoop.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "Turning.h"
#include "support/DrivenScheduler.h"

namespace Host {
namespace {

TEST(TaskRunnerTest, OneSliceInEachTurn_OthersGetTheirsInBetween) {
  EventLoop loop;
  DrivenScheduler scheduler;
  TaskRunner runner(loop, scheduler.get());
  std::string log;
  TurnWatch turns(loop, [&] { log += '|'; });
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

TEST(TaskRunnerTest, TaskScheduledBeforeOrAfterTheRunnerWasMade_Runs) {
  EventLoop loop;
  DrivenScheduler scheduler;
  int runs = 0;
  auto task = Zavro::makePtr<Vem::Task>(scheduler.get(), Vem::kDefaultPriority, "task", [&] { ++runs; });
  task->scheduleTask();
  TaskRunner runner(loop, scheduler.get());
  EXPECT_TRUE(turnUntil(loop, [&] { return runs == 1; }));
  task->scheduleTask();
  EXPECT_TRUE(turnUntil(loop, [&] { return runs == 2; }));
}

TEST(TaskRunnerTest, NothingRunnable_TheLoopIsNotKeptBusy) {
  EventLoop loop;
  DrivenScheduler scheduler;
  TaskRunner runner(loop, scheduler.get());
  auto task = Zavro::makePtr<Vem::Task>(scheduler.get(), Vem::kDefaultPriority, "task", [] {});
  task->scheduleTask();
  uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(uv_loop_alive(loop.uv()), 0);
}

TEST(TimerTest, FiresOnceOrAgainAndAgain_UntilItIsStopped) {
  EventLoop loop;
  int once = 0;
  int often = 0;
  Timer single(loop, [&] { ++once; });
  Timer repeated(loop, [&] { ++often; });
  single.start(1);
  repeated.start(1, 1);
  EXPECT_TRUE(turnUntil(loop, [&] { return often >= 3; }));
  EXPECT_EQ(once, 1);
  repeated.stop();
  EXPECT_EQ(uv_loop_alive(loop.uv()), 0);
}

TEST(SignalWatchTest, SignalArrives_TheLoopHearsOfIt) {
  EventLoop loop;
  SignalWatch watch(loop, SIGUSR1, [&] { loop.stop(); });
  raise(SIGUSR1);
  loop.run();
}

}  // namespace
}  // namespace Host
