#include "platform/snmp/AgentUptime.h"

#include <gtest/gtest.h>

namespace {

using Zavro::Duration;

constexpr uint64_t kSecondNs = 1'000'000'000;
constexpr double kWithinTicks = 0.001;

class AgentUptimeTest : public testing::Test {
 protected:
  double now() const { return static_cast<double>(clock_.utcNs()) / 1e9; }
  double at(double utc) { return uptime_.at(Duration(utc)).seconds(); }
  void pass(uint64_t seconds) { clock_.advanceNs(seconds * kSecondNs); }
  void timeOfDayIs(uint64_t utcSeconds) { clock_.utcNsIs(utcSeconds * kSecondNs); }

  // What a master's uptime has ahead of this process.
  double ahead_ = 0;
  // A switch without a battery boots in 1970.
  Zavro::ManualClock clock_{10 * kSecondNs};
  Snmp::AgentUptime uptime_{
      clock_, [this] { return Duration(static_cast<double>(clock_.monotonicNs()) / 1e9 + ahead_); }};
};

TEST_F(AgentUptimeTest, TimesSinceTheStart) {
  pass(60);
  EXPECT_NEAR(at(now()), 60, kWithinTicks);
  EXPECT_NEAR(at(now() - 12.5), 47.5, kWithinTicks);
}

TEST_F(AgentUptimeTest, TimeBeforeTheStart_IsZero) {
  pass(60);
  EXPECT_EQ(at(now() - 61), 0);
  EXPECT_EQ(at(-1e300), 0);
}

// A member whose clock is ahead.
TEST_F(AgentUptimeTest, TimeToCome_IsNow) {
  pass(60);
  EXPECT_NEAR(at(now() + 3600), 60, kWithinTicks);
  EXPECT_NEAR(at(1e300), 60, kWithinTicks);
}

TEST_F(AgentUptimeTest, ClockIsSetForward_TimesGoByTheNewOne) {
  pass(60);
  timeOfDayIs(1'700'000'000);
  EXPECT_NEAR(at(now() - 4), 56, kWithinTicks);
  pass(10);
  EXPECT_NEAR(at(now() - 14), 56, kWithinTicks);
}

TEST_F(AgentUptimeTest, ClockIsSetBack_TimesGoByTheNewOne) {
  timeOfDayIs(1'700'000'000);
  pass(60);
  EXPECT_NEAR(at(now() - 4), 56, kWithinTicks);
  timeOfDayIs(1'600'000'000);
  EXPECT_NEAR(at(now() - 4), 56, kWithinTicks);
}

TEST_F(AgentUptimeTest, ClockRunsAwayWithinASecond_AnswersStay) {
  pass(60);
  double then = now() - 4;
  double before = at(then);
  clock_.utcNsIs(clock_.utcNs() + kSecondNs * 9 / 10);
  EXPECT_EQ(at(then), before);
  clock_.utcNsIs(clock_.utcNs() - kSecondNs * 18 / 10);
  EXPECT_EQ(at(then), before);
  clock_.utcNsIs(clock_.utcNs() - kSecondNs * 2 / 10);
  EXPECT_NEAR(at(then), before + 1.1, kWithinTicks);
}

TEST_F(AgentUptimeTest, UptimeBecomesAMasters_TimesGoByIt) {
  pass(6);
  EXPECT_NEAR(at(now() - 1), 5, kWithinTicks);
  ahead_ = 48;
  EXPECT_NEAR(at(now() - 1), 53, kWithinTicks);
  ahead_ = -3;
  EXPECT_NEAR(at(now() - 1), 2, kWithinTicks);
}

TEST(AgentUptime, IsTheOneThatConversionsGoByWhileItLives) {
  Zavro::ManualClock clock;
  EXPECT_EQ(Snmp::AgentUptime::instance(), nullptr);
  {
    Snmp::AgentUptime uptime(clock, [] { return Duration(); });
    EXPECT_EQ(Snmp::AgentUptime::instance(), &uptime);
  }
  EXPECT_EQ(Snmp::AgentUptime::instance(), nullptr);
}

}  // namespace
