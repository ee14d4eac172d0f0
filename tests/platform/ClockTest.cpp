#include "platform/zavro/Clock.h"

#include <gtest/gtest.h>

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

TEST(DurationTest, DefaultIsZero_AndLengthsCompare) {
  EXPECT_EQ(Zavro::Duration().seconds(), 0);
  EXPECT_EQ(Zavro::Duration(1.5).seconds(), 1.5);
  EXPECT_LT(Zavro::Duration(-1), Zavro::Duration());
  EXPECT_EQ(Zavro::Duration(2), Zavro::Duration(2.0));
}

}  // namespace
