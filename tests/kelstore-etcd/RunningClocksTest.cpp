// What is shown of the clocks of members that publish packed figures, while nothing is written.
#include "kelstore/Fields.h"
#include "tests/kelstore-etcd/FeedFixture.h"

namespace Kelstore::Etcd {
namespace {

// This machine's clock is at 1001 s; the member was up for 100 s when it wrote.
class RunningClocksTest : public FeedTest {
 protected:
  RunningClocksTest() : FeedTest(false, 5'000) {}
  static Record figures(int64_t revision, double clock, int64_t lease = 77) {
    return {"p/members/1/figures",
            fmt::format(R"({{"bootTime": {}, "clock": {}, "users": 0, "processes": 0, "memorySize": 0}})",
                        clock - 100, clock),
            revision, lease};
  }
  double utc() const { return static_cast<double>(clock_.utcNs()) / 1e9; }
  // What the loop was told last.
  std::string shown() {
    Mailbox::Update update = mailbox_.take();
    if (update.snapshot != nullptr) told_ = update.snapshot;
    const Value* value = told_ == nullptr ? nullptr : told_->find({Kind::system, "1", ""});
    if (value == nullptr) return "none";
    const System& system = value->get<System>();
    return fmt::format("up {:.1f}, date {:.1f}", system.systemUptime, system.currentTimeUtc);
  }
  void listedWith(const Record& record) {
    follower_.start(now());
    follows();
    listed({record});
    created();
  }
  std::shared_ptr<const Snapshot> told_;
};

TEST_F(RunningClocksTest, NothingIsWritten_UptimeAndDateGoOn) {
  listedWith(figures(9, 1001));
  EXPECT_EQ(shown(), "up 100.0, date 1001.0");
  advance(999);
  EXPECT_EQ(shown(), "up 100.0, date 1001.0");
  advance(1);
  EXPECT_EQ(shown(), "up 101.0, date 1002.0");
  advance(9'000);
  EXPECT_EQ(shown(), "up 110.0, date 1011.0");
  event(figures(11, 1011.5));
  EXPECT_EQ(shown(), "up 100.0, date 1011.5");
  advance(5'000);
  EXPECT_EQ(shown(), "up 105.0, date 1016.5");
}

TEST_F(RunningClocksTest, ThatTheyGoOn_IsNoChangeOfTheSource) {
  listedWith(figures(9, 1001));
  EXPECT_TRUE(mailbox_.take().news);
  advance(1'000);
  Mailbox::Update update = mailbox_.take();
  EXPECT_EQ(update.changed.size(), 1u);
  EXPECT_FALSE(update.news);
  event(figures(11, 1003));
  advance(1'000);
  EXPECT_TRUE(mailbox_.take().news) << "both at once";
}

TEST_F(RunningClocksTest, ListingShowsAnOldValue_ItIsAsMuchOlderAsTheClocksDiffer) {
  listedWith(figures(9, 1001 - 20));
  EXPECT_EQ(shown(), "up 120.0, date 1001.0");
  event(figures(11, 1001 - 20));
  EXPECT_EQ(shown(), "up 120.0, date 1001.0") << "it was written just now, so the clocks differ";
  advance(20'000);
  EXPECT_EQ(shown(), "up 120.0, date 1001.0");
  advance(1'000);
  EXPECT_EQ(shown(), "up 121.0, date 1002.0");
}

// As when an election kept it waiting: uptime does not go back as if the machine had started again.
TEST_F(RunningClocksTest, WriteArrivesLate_TheyStandStillUntilItHasCaughtUp) {
  auto written = [this](int64_t revision, double boot, double clock) {
    event({"p/members/1/figures",
           fmt::format(R"({{"bootTime": {}, "clock": {}, "users": 0, "processes": 0, "memorySize": 0}})",
                       boot, clock),
           revision, 77});
  };
  listedWith(figures(9, 1001));
  advance(10'000);
  EXPECT_EQ(shown(), "up 110.0, date 1011.0");
  written(11, 901.5, 1008);
  EXPECT_EQ(shown(), "up 110.0, date 1011.0");
  advance(2'000);
  EXPECT_EQ(shown(), "up 110.0, date 1011.0");
  advance(2'000);
  EXPECT_EQ(shown(), "up 110.5, date 1012.0");
  written(12, 901.5, 1014);
  EXPECT_EQ(shown(), "up 112.5, date 1014.0") << "what was wrong does not add up";
  written(13, 1013, 1013.5);
  EXPECT_EQ(shown(), "up 0.5, date 1013.5") << "it started again";
}

TEST_F(RunningClocksTest, ListingShowsAValueOfAnotherTime_ItCountsAsWrittenJustNow) {
  listedWith(figures(9, 1001 - 61));
  EXPECT_EQ(shown(), "up 100.0, date 940.0");
  advance(1'000);
  EXPECT_EQ(shown(), "up 101.0, date 941.0");
}

TEST_F(RunningClocksTest, ListingShowsAValueOfTheFuture_ItCountsAsWrittenJustNow) {
  listedWith(figures(9, 1300));
  EXPECT_EQ(shown(), "up 100.0, date 1300.0");
}

TEST_F(RunningClocksTest, WithoutALease_TheyStandStill) {
  listedWith(figures(9, 1001, 0));
  advance(10'000);
  EXPECT_EQ(shown(), "up 100.0, date 1001.0");
}

TEST_F(RunningClocksTest, LeaseEndsByItself_TheyStandStill_AndGoOnWhenTheMemberIsBack) {
  listedWith(figures(9, 1001));
  advance(3'000);
  follower_.watchSaid(now(), watchEvents(at(11), {del("p/members/1/figures", 11)}));
  follows();
  advance(4'000);
  EXPECT_EQ(shown(), "up 103.0, date 1004.0");
  event(figures(12, 1008, 78));
  advance(1'000);
  EXPECT_EQ(shown(), "up 101.0, date 1009.0");
  event(figures(13, 0, 78), true);
  advance(6'000);
  EXPECT_EQ(shown(), "none");
  EXPECT_EQ(feed_.wakeAtMs(), Follower::kNever);
}

TEST_F(RunningClocksTest, StoreIsLost_TheyStandStill_AndAreRightWhenItIsBack) {
  listedWith(figures(9, 1001));
  lost();
  EXPECT_EQ(feed_.wakeAtMs(), Follower::kNever);
  shown();
  advance(20'000);
  EXPECT_EQ(shown(), "up 100.0, date 1001.0");
  reconnecting();
  double before = utc();
  follower_.pageRead(now(), follower_.pageAsked(), {at(10), {figures(9, 1001)}, false});
  created();
  follows();
  EXPECT_EQ(shown(), fmt::format("up {:.1f}, date {:.1f}", before - 901, before));
}

TEST_F(RunningClocksTest, DateAtTheEndOfWhatCanBeServed_StandsStill) {
  listedWith(figures(9, kUtcSeconds.max));
  advance(10'000);
  EXPECT_EQ(shown(), fmt::format("up 110.0, date {:.1f}", kUtcSeconds.max));
}

}  // namespace
}  // namespace Kelstore::Etcd
