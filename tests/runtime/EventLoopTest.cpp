// Timers, signals and descriptors on the loop.
#include "runtime/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>

#include "tests/runtime/Turning.h"

namespace Runtime {
namespace {

TEST(ReadWatchTest, SomethingIsThereToBeRead_IsToldUntilItWasReadOrTheWatchGoes) {
  EventLoop loop;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  std::string taken;
  auto watch = std::make_unique<ReadWatch>(loop, ends[0], [&] {
    char byte = 0;
    if (read(ends[0], &byte, 1) == 1) taken += byte;
  });
  for (int i = 0; i < 3; ++i) uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(taken, "");
  ASSERT_EQ(write(ends[1], "ab", 2), 2);
  EXPECT_TRUE(turnUntil(loop, [&] { return taken == "ab"; }));
  watch.reset();
  ASSERT_EQ(write(ends[1], "c", 1), 1);
  for (int i = 0; i < 3; ++i) uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(taken, "ab");
  for (int end : ends) close(end);
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

TEST(HeldSignalWatchTest, SignalBeforeAndAfterAWatch_WaitsForOne) {
  std::signal(SIGUSR2, SIG_IGN);
  holdSignal(SIGUSR2);
  EventLoop loop;
  int received = 0;
  for (int watches = 1; watches <= 2; ++watches) {
    raise(SIGUSR2);
    HeldSignalWatch watch(loop, SIGUSR2, [&] { ++received; });
    EXPECT_TRUE(turnUntil(loop, [&] { return received == 2 * watches - 1; }));
    raise(SIGUSR2);
    EXPECT_TRUE(turnUntil(loop, [&] { return received == 2 * watches; }));
  }
  raise(SIGUSR2);
  uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(received, 4);
}

}  // namespace
}  // namespace Runtime
