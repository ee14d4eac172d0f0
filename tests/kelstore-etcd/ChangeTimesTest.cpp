// When changes are shown to have been, of members whose clocks differ from this machine's.
#include "kelstore/etcd/ChangeTimes.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <limits>

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t kSecond = 1'000'000'000;

class ChangeTimesTest : public testing::Test {
 protected:
  static Path report(const std::string& member, const std::string& neighbour) {
    return {Kind::reachability, member, neighbour};
  }
  static Snapshot::Change changed(const Path& path, double utcSeconds) {
    auto ns = static_cast<uint64_t>(utcSeconds * 1e9);
    return {path, Reachability{Trel::ReachabilityState::reachable, std::nullopt, ns}};
  }
  static Snapshot::Change time(const std::string& member, double utcSeconds) {
    return {{Kind::system, member, {}}, System{.currentTimeUtc = utcSeconds}};
  }
  // What the changes do to what is shown: "7/1=300.5" in seconds, "-7/1".
  std::string take(std::vector<Snapshot::Change> changes, bool justNow = true) {
    std::sort(changes.begin(), changes.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    times_.correct(changes, state_, justNow);
    EXPECT_TRUE(std::is_sorted(changes.begin(), changes.end(),
                               [](const auto& a, const auto& b) { return a.first < b.first; }));
    std::vector<Path> paths;
    state_ = state_.with(std::move(changes), paths);
    std::string text;
    for (const Path& path : paths) {
      if (path.kind != Kind::reachability) continue;
      const Value* value = state_.find(path);
      text += fmt::format("{}{}{}/{}", text.empty() ? "" : " ", value == nullptr ? "-" : "", path.first(),
                          path.second());
      if (value != nullptr)
        text += fmt::format("={}", static_cast<double>(value->get<Reachability>().lastChangeNs) / 1e9);
    }
    return text;
  }
  double now() const { return static_cast<double>(clock_.utcNs()) / 1e9; }
  // The member publishes its time a few times. The reports that change with it.
  std::string showsClock(const std::string& member, double ahead, int times = 3, bool justNow = true) {
    std::string all;
    for (int i = 0; i < times; ++i) {
      clock_.advanceNs(5 * kSecond);
      all += take({time(member, now() + ahead)}, justNow);
    }
    return all;
  }
  std::vector<std::string> lines() {
    std::vector<std::string> all;
    for (const Line& line : times_.takeLines()) all.push_back(fmt::format("{} {}", line.level, line.text));
    return all;
  }

  Zavro::ManualClock clock_{10'000 * kSecond};
  ChangeTimes times_{clock_};
  Snapshot state_;
};

TEST_F(ChangeTimesTest, ClocksAgree_TimesAreAsPublished) {
  showsClock("7", 1.5);
  EXPECT_EQ(take({changed(report("7", "1"), now() - 3), changed(report("7", "2"), now() + 1.5)}),
            fmt::format("7/1={} 7/2={}", now() - 3, now() + 1.5));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ChangeTimesTest, ClockIsAhead_ChangesAreNotToCome_AndRightOnceTheDifferenceIsKnown) {
  double at = now() - 100;
  EXPECT_EQ(take({changed(report("7", "1"), at + 3600)}, false), fmt::format("7/1={}", now()));
  EXPECT_EQ(showsClock("7", 3600), fmt::format("7/1={}", at));
  EXPECT_THAT(lines(),
              ElementsAre("1 the clock of member 7 is 3600.0 s ahead of this machine's: the times of its "
                          "changes are corrected"));
  EXPECT_EQ(take({changed(report("7", "2"), now() + 3600)}), fmt::format("7/2={}", now()));
}

// It would read as before the start of this machine's agent.
TEST_F(ChangeTimesTest, ClockIsBehind_ChangesAreAsLateAsTheyWere) {
  EXPECT_EQ(showsClock("7", -9000), "");
  EXPECT_EQ(take({changed(report("7", "1"), now() - 9000)}), fmt::format("7/1={}", now()));
  EXPECT_THAT(lines(),
              ElementsAre("1 the clock of member 7 is 9000.0 s behind this machine's: the times of its "
                          "changes are corrected"));
}

TEST_F(ChangeTimesTest, ClockIsSet_ReportsThatWerePublishedBeforeFollow_OthersDoNot) {
  showsClock("7", -500);
  double at = now() - 200;
  take({changed(report("7", "1"), at - 500), changed(report("8", "1"), at)});
  EXPECT_EQ(showsClock("7", 0), fmt::format("7/1={}", at - 500));
  EXPECT_EQ(take({changed(report("7", "1"), at)}), fmt::format("7/1={}", at)) << "published in the new time";
  ASSERT_EQ(lines().size(), 2u);
}

// As publishers do that notice it.
TEST_F(ChangeTimesTest, ClockIsSet_ReportOfTheSameMomentInTheNewTime_IsNoChange) {
  showsClock("7", -500, 4);
  take({changed(report("7", "1"), now() - 700)});
  clock_.advanceNs(kSecond);
  take({time("7", now())});
  clock_.advanceNs(kSecond);
  take({time("7", now())});
  clock_.advanceNs(kSecond);
  double at = now() - 203;
  EXPECT_EQ(take({time("7", now()), changed(report("7", "1"), at)}), "");
  EXPECT_EQ(state_.find(report("7", "1"))->get<Reachability>().lastChangeNs, static_cast<uint64_t>(at * 1e9));
}

// How old a time is that a listing shows is not known.
TEST_F(ChangeTimesTest, TimesFromListings_SayNothing) {
  EXPECT_EQ(showsClock("7", -500, 20, false), "");
  EXPECT_EQ(times_.differenceOf("7"), std::nullopt);
  EXPECT_EQ(take({changed(report("7", "1"), now() - 500)}), fmt::format("7/1={}", now() - 500));
}

// Rows would be deleted and inserted each minute.
TEST_F(ChangeTimesTest, ReportIsReadOnceMore_ItDoesNotChange) {
  double at = now() + 3600;
  EXPECT_NE(take({changed(report("7", "1"), at)}), "");
  clock_.advanceNs(60 * kSecond);
  EXPECT_EQ(take({changed(report("7", "1"), at)}), "");
  EXPECT_EQ(take({changed(report("7", "1"), at + 1)}), fmt::format("7/1={}", now())) << "another time";
  EXPECT_EQ(showsClock("7", 5000), fmt::format("7/1={}", at + 1 - 5000));
  EXPECT_EQ(take({changed(report("7", "1"), at + 1)}), "");
}

TEST_F(ChangeTimesTest, ReportGoes_NothingOfItIsLeft) {
  take({changed(report("7", "1"), now() + 3600)});
  EXPECT_EQ(take({{report("7", "1"), std::nullopt}}), "-7/1");
  EXPECT_EQ(showsClock("7", 3600), "");
}

// As when a machine without a clock of its own hears from NTP: all members seemed to be ahead.
TEST_F(ChangeTimesTest, OurClockIsSet_NothingIsCorrectedUntilClocksAreComparedAnew) {
  showsClock("7", 3600);
  double before = now();
  take({changed(report("7", "1"), before + 3600)});
  lines();
  clock_.utcNsIs(clock_.utcNs() + 3600 * kSecond);
  EXPECT_EQ(take({changed(report("7", "2"), now())}), fmt::format("7/1={} 7/2={}", before + 3600, now()));
  EXPECT_EQ(times_.differenceOf("7"), std::nullopt);
  EXPECT_THAT(lines(),
              ElementsAre("1 this machine's clock was set: 1 members' clocks are compared with it anew"));
  EXPECT_EQ(showsClock("7", 0), "");
  EXPECT_EQ(times_.differenceOf("7")->aheadSeconds, 0);
}

TEST_F(ChangeTimesTest, NoChangeYet_AndTimesOutOfRange_StayWithinTheRange) {
  showsClock("7", 3600);
  showsClock("8", -1e11);
  constexpr uint64_t kLast = std::numeric_limits<uint64_t>::max();
  auto at = [](uint64_t ns) { return Reachability{Trel::ReachabilityState::reachable, std::nullopt, ns}; };
  EXPECT_EQ(take({{report("7", "1"), at(0)},
                  {report("7", "2"), at(1)},
                  {report("8", "1"), at(0)},
                  {report("8", "2"), at(kLast)}}),
            fmt::format("7/1=0 7/2=0 8/1=0 8/2={}", now()));
}

}  // namespace
}  // namespace Kelstore::Etcd
