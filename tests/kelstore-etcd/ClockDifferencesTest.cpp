// What is concluded of a member's clock from the times that it publishes: by clocks that are ahead or behind,
// that are set, and with every kind of delay.
#include "kelstore/etcd/ClockDifferences.h"

#include <gmock/gmock.h>

#include <optional>
#include <vector>

#include "tests/support/Random.h"

namespace Kelstore::Etcd {
namespace {

class ClockDifferencesTest : public testing::Test {
 protected:
  // The member's clock is ahead by so much, and its times come late by `delays`, one every 5 seconds. How
  // often the correction changes.
  int publishes(double ahead, const std::vector<double>& delays) {
    int changes = 0;
    for (double delay : delays) {
      utc_ += 5;
      monotonic_ += 5;
      changes += differences_.published("7", utc_ + ahead - delay, {utc_, monotonic_}) ? 1 : 0;
    }
    return changes;
  }
  double correction() const { return differences_.correctionSeconds("7"); }

  double utc_ = 1'000'000;
  double monotonic_ = 500;
  ClockDifferences differences_;
};

TEST_F(ClockDifferencesTest, NothingPublished_NothingIsKnownOrCorrected) {
  EXPECT_EQ(differences_.of("7"), std::nullopt);
  EXPECT_EQ(correction(), 0);
}

TEST_F(ClockDifferencesTest, ClockIsAheadOrBehind_IsCorrectedOnceEnoughTimesAgree) {
  EXPECT_EQ(publishes(3600, {0.25, 0.5}), 0);
  EXPECT_EQ(differences_.of("7"), std::nullopt);
  EXPECT_EQ(publishes(3600, {0}), 1);
  EXPECT_EQ(correction(), 3600);
  EXPECT_EQ(differences_.of("7")->aheadSeconds, 3600);
  differences_ = {};
  EXPECT_EQ(publishes(-3600, {0, 0, 0}), 1);
  EXPECT_EQ(correction(), -3600);
}

TEST_F(ClockDifferencesTest, MembersAreApart) {
  publishes(100, {0, 0, 0});
  EXPECT_EQ(differences_.correctionSeconds("8"), 0);
}

TEST_F(ClockDifferencesTest, ClocksThatRunWell_NothingIsCorrected) {
  Support::Random random(1);
  for (int i = 0; i < 500; ++i) {
    double ahead = static_cast<double>(random.below(1000)) / 1000 - 0.5;
    double delay = static_cast<double>(random.below(1400)) / 1000;
    EXPECT_EQ(publishes(ahead, {delay}), 0);
  }
  EXPECT_EQ(correction(), 0);
  EXPECT_LE(differences_.of("7")->errorSeconds, 2);
}

// Rows would come and go with each of them.
TEST_F(ClockDifferencesTest, DifferenceAtTheThreshold_IsCorrectedOnceAtMost) {
  Support::Random random(2);
  int changes = 0;
  for (int i = 0; i < 500; ++i) {
    changes += publishes(2 + static_cast<double>(random.below(100)) / 1000,
                         {static_cast<double>(random.below(1000)) / 1000});
  }
  EXPECT_EQ(changes, 1);
}

TEST_F(ClockDifferencesTest, Delays_TheLeastCounts_AndTheErrorIsTheirSpread) {
  publishes(100, {1.5, 0.25, 1.75, 1});
  EXPECT_EQ(differences_.of("7"), (ClockDifferences::Difference{99.75, 1.5}));
  EXPECT_EQ(publishes(100, {30, 30.5, 29, 1, 0.5, 0.75}), 0);
  EXPECT_EQ(correction(), 99.75);
}

TEST_F(ClockDifferencesTest, ErrorIsNeverLessThanASecond) {
  publishes(100, {0, 0, 0});
  EXPECT_EQ(differences_.of("7")->errorSeconds, 1);
}

// As when a watch was broken for a while.
TEST_F(ClockDifferencesTest, OldTimesAtOnce_DoNotCount) {
  publishes(0, {0, 0, 0, 0});
  int changes = 0;
  for (int late = 60; late > 0; late -= 5) {
    changes += differences_.published("7", utc_ + 70 - late, {utc_ + 70, monotonic_ + 70}) ? 1 : 0;
  }
  EXPECT_EQ(changes, 0);
  EXPECT_EQ(correction(), 0);
}

TEST_F(ClockDifferencesTest, SingleWrongTime_DoesNotCount) {
  publishes(0, {0, 0, 0});
  EXPECT_EQ(publishes(1e12, {0}), 0);
  EXPECT_EQ(publishes(-5000, {0}), 0);
  EXPECT_EQ(publishes(0, {0, 0, 0, 0, 0}), 0);
}

TEST_F(ClockDifferencesTest, ClockIsSet_TheNewDifferenceCountsAfterAFewTimes) {
  publishes(-1000, std::vector<double>(8, 0.0));
  EXPECT_EQ(publishes(0, {0, 0}), 0);
  EXPECT_EQ(publishes(0, {0}), 1);
  EXPECT_EQ(correction(), 0);
  publishes(0, std::vector<double>(8, 0.0));
  EXPECT_EQ(publishes(-500, std::vector<double>(5, 0.0)), 0) << "these may be delays";
  EXPECT_EQ(publishes(-500, {0}), 1);
  EXPECT_EQ(correction(), -500);
}

TEST_F(ClockDifferencesTest, OurClockIsSet_OldDifferencesDoNotCount) {
  using testing::ElementsAre;
  EXPECT_THAT(differences_.clocksAre({utc_, monotonic_}), ElementsAre());
  publishes(0, std::vector<double>(8, 0.0));
  EXPECT_THAT(differences_.clocksAre({utc_, monotonic_}), ElementsAre());
  utc_ += 1000;
  EXPECT_THAT(differences_.clocksAre({utc_, monotonic_}), ElementsAre()) << "nothing was corrected";
  EXPECT_EQ(differences_.of("7"), std::nullopt);
  EXPECT_EQ(publishes(-1000, {0, 0}), 0);
  EXPECT_EQ(publishes(-1000, {0}), 1);
  EXPECT_EQ(correction(), -1000);
  utc_ -= 1000;
  EXPECT_THAT(differences_.clocksAre({utc_, monotonic_}), ElementsAre("7"));
  EXPECT_EQ(correction(), 0);
}

TEST_F(ClockDifferencesTest, ValueIsWrittenAgain_SaysNothing) {
  publishes(0, {0, 0, 0});
  for (int i = 1; i < 20; ++i) {
    EXPECT_FALSE(differences_.published("7", utc_, {utc_ + i, monotonic_ + i}));
  }
  EXPECT_EQ(differences_.of("7")->aheadSeconds, 0);
}

}  // namespace
}  // namespace Kelstore::Etcd
