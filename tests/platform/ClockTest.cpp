#include "platform/zavro/Clock.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "platform/zavro/Duration.h"

namespace {

TEST(ClockTest, ManualClock_MovesOnlyWhenTold) {
  Zavro::ManualClock clock(1700000000000000000u);
  EXPECT_EQ(clock.monotonicNs(), 0u);
  EXPECT_EQ(clock.utcNs(), 1700000000000000000u);
  clock.advanceNs(5);
  clock.advanceNs(7);
  EXPECT_EQ(clock.monotonicNs(), 12u);
  EXPECT_EQ(clock.utcNs(), 1700000000000000012u);
}

TEST(ClockTest, SystemClock_NeverStepsBack_AndKnowsTheCentury) {
  Zavro::SystemClock clock;
  uint64_t before = clock.monotonicNs();
  EXPECT_LE(before, clock.monotonicNs());
  EXPECT_GT(clock.utcNs(), 1600000000000000000u);
  EXPECT_LT(clock.utcNs(), 4200000000000000000u);
}

// Ends this process with the status of a child for which the machine has slept for 1000 s since `before`.
[[noreturn]] void readClockAfterASleep(uint64_t before) {
  if (unshare(CLONE_NEWTIME) != 0) _exit(77);
  std::ofstream("/proc/self/timens_offsets") << "boottime 1000 0" << std::flush;
  pid_t child = fork();
  if (child == 0) _exit(Zavro::SystemClock().monotonicNs() >= before + 1000000000000u ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 2);
}

TEST(ClockTest, SystemClock_GoesOnWhileTheMachineSleeps) {
  uint64_t before = Zavro::SystemClock().monotonicNs();
  pid_t child = fork();
  if (child == 0) readClockAfterASleep(before);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no time namespace is allowed";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(DurationTest, DefaultIsZero_AndLengthsCompare) {
  EXPECT_EQ(Zavro::Duration().seconds(), 0);
  EXPECT_EQ(Zavro::Duration(1.5).seconds(), 1.5);
  EXPECT_LT(Zavro::Duration(-1), Zavro::Duration());
  EXPECT_EQ(Zavro::Duration(2), Zavro::Duration(2.0));
}

}  // namespace
