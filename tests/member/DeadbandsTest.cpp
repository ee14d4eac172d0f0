// Small changes of figures: which they are, and how seldom they are written.
#include "member/Deadbands.h"

#include <gmock/gmock.h>

#include "kelstore/Packed.h"
#include "member/Config.h"
#include "tests/member/PublisherFixture.h"
#include "tests/support/Random.h"

namespace Member {
namespace {

using Runtime::kSecond;

const Kelstore::Path kFigures{Kelstore::Kind::figures, "1", ""};
const Kelstore::Path kFilesystems{Kelstore::Kind::filesystems, "1", ""};
const Kelstore::Path kSystem{Kelstore::Kind::system, "1", ""};
const Kelstore::Path kMemory{Kelstore::Kind::memory, "1", ""};
const Kelstore::Path kRoot{Kelstore::Kind::storage, "1", "/"};

std::string figures(const std::string& more, const std::string& loads = "",
                    const std::string& times = R"("bootTime": 100, "clock": 1000)") {
  return fmt::format(R"({{{}, "users": 3, "processes": 100, "memorySize": 1000{}, "loads": {{{}}}}})", times,
                     more, loads);
}
bool smallFigures(const std::string& before, const std::string& now, double seconds = 0,
                  const Deadbands& deadbands = {}) {
  return isSmallChange(kFigures, before, now, seconds, deadbands);
}
bool smallLoad(int before, int now, const Deadbands& deadbands = {}) {
  return smallFigures(figures("", fmt::format(R"("1": {})", before)),
                      figures("", fmt::format(R"("1": {})", now)), 0, deadbands);
}
bool smallMemory(const std::string& before, const std::string& now) {
  return smallFigures(figures(R"(, "memory": {)" + before + "}"), figures(R"(, "memory": {)" + now + "}"));
}
bool smallStorage(uint64_t before, uint64_t now, const Deadbands& deadbands = {}) {
  auto text = [](uint64_t free) {
    return fmt::format(R"({{"/": {{"allocationUnits": 1, "size": 10000, "free": {}}}}})", free);
  };
  return isSmallChange(kFilesystems, text(before), text(now), 0, deadbands);
}

TEST(DeadbandsTest, Loads_FivePercentPoints_ButWhetherTheyAreKnownCounts) {
  EXPECT_TRUE(smallLoad(10, 15));
  EXPECT_TRUE(smallLoad(15, 10));
  EXPECT_FALSE(smallLoad(10, 16));
  EXPECT_FALSE(smallLoad(-1, 0));
  EXPECT_FALSE(smallLoad(0, -1));
  EXPECT_TRUE(smallLoad(-1, -1));
  Deadbands none;
  none.load = 0;
  EXPECT_FALSE(smallLoad(10, 11, none));
  EXPECT_TRUE(smallLoad(10, 10, none));
}

TEST(DeadbandsTest, ProcessorsComeAndGo_IsNoSmallChange) {
  EXPECT_FALSE(smallFigures(figures("", R"("1": 1)"), figures("", R"("1": 1, "2": 1)")));
  EXPECT_FALSE(smallFigures(figures("", R"("1": 1, "2": 1)"), figures("", R"("1": 1)")));
  EXPECT_FALSE(smallFigures(figures("", R"("1": 1)"), figures("", R"("2": 1)")));
}

TEST(DeadbandsTest, Memory_OnePercentOfTheTotal_ButNoneFreeCounts) {
  EXPECT_TRUE(smallMemory(R"("total": 1000, "free": 500)", R"("total": 1000, "free": 510)"));
  EXPECT_FALSE(smallMemory(R"("total": 1000, "free": 500)", R"("total": 1000, "free": 511)"));
  EXPECT_FALSE(smallMemory(R"("total": 1000, "free": 1)", R"("total": 1000, "free": 0)"));
  EXPECT_FALSE(smallMemory(R"("total": 1000, "free": 1)", R"("total": 1000)"));
  EXPECT_FALSE(smallMemory(R"("total": 1000)", R"("total": 1001)"));
  for (const char* amount : {"available", "nonBuffer", "nonCache"}) {
    auto text = [amount](int kib) { return fmt::format(R"("total": 1000, "{}": {})", amount, kib); };
    EXPECT_TRUE(smallMemory(text(500), text(490))) << amount;
    EXPECT_FALSE(smallMemory(text(500), text(489))) << amount;
  }
}

TEST(DeadbandsTest, Storage_AThousandthOfTheSize_ButNothingFreeCounts) {
  EXPECT_TRUE(smallStorage(5000, 5010));
  EXPECT_FALSE(smallStorage(5000, 5011));
  EXPECT_FALSE(smallStorage(1, 0));
  EXPECT_FALSE(smallStorage(0, 1));
  Deadbands none;
  none.storage = 0;
  EXPECT_FALSE(smallStorage(5000, 5001, none));
}

TEST(DeadbandsTest, UsersAndProcesses) {
  auto system = [](int users, int processes) {
    return fmt::format(R"({{"clock": 1, "users": {}, "processes": {}, "memorySize": 1}})", users, processes);
  };
  EXPECT_TRUE(smallFigures(system(1, 100), system(1, 105)));
  EXPECT_FALSE(smallFigures(system(1, 100), system(1, 106)));
  EXPECT_FALSE(smallFigures(system(1, 100), system(2, 100)));
}

TEST(DeadbandsTest, ClockThatGoesOn_IsNoChange_OneThatIsSetIs) {
  auto at = [](double boot, double clock) {
    return figures("", "", fmt::format(R"("bootTime": {}, "clock": {})", boot, clock));
  };
  EXPECT_TRUE(smallFigures(at(100, 1000), at(100, 1020), 20));
  EXPECT_TRUE(smallFigures(at(100, 1000), at(100.5, 1020.9), 20));
  EXPECT_FALSE(smallFigures(at(100, 1000), at(100, 1021.1), 20));
  EXPECT_FALSE(smallFigures(at(100, 1000), at(102, 1020), 20)) << "the machine started again";
  EXPECT_FALSE(smallFigures(at(100, 1000), figures("", "", R"("clock": 1020)"), 20));
}

// A publisher with all figures of a member, each 5 s new ones, as the test makes them.
class SmallChangesTest : public PublisherTest {
 protected:
  SmallChangesTest() { content_ = {{kLink, Kelstore::Link{Lanix::IntfId("B1")}}}; }

  void figuresAre(int16_t load, uint32_t processes, uint32_t free, uint64_t freeUnits) {
    double utc = static_cast<double>(clock_.utcNs()) / 1e9;
    content_[kSystem] = Kelstore::System{utc - 100, utc, 1, processes, 8'000'000};
    Kelstore::Memory memory;
    memory.total = 8'000'000;
    memory.free = free;
    content_[kMemory] = memory;
    for (const char* index : {"1", "2"}) content_[processor(index)] = Kelstore::Processor{load};
    content_[kRoot] = Kelstore::Storage{4096, 5'000'000, freeUnits};
  }
  // The value as those who follow the store show it now.
  Kelstore::Value shown(const Kelstore::Path& path) {
    Kelstore::Path form = *Kelstore::packedFormOf(path);
    for (auto& [given, value] : Kelstore::parseValue(form, store_->keys.at(form).text).values) {
      if (given == path) return value;
    }
    ADD_FAILURE() << path.text() << " is not there";
    return Kelstore::Present();
  }
  size_t events() const {
    size_t keys = 0;
    for (size_t size : store_->sizes) keys += size;
    return keys;
  }
  // Passes an hour with such figures, after it was started.
  template <class Next>
  void hour(Next next) {
    next();
    start();
    store_->sizes.clear();
    for (uint64_t look = 0; look < 3600 / kInterval; ++look) {
      pass(kInterval * kSecond);
      next();
      say();
      pass(0);
    }
  }
  static constexpr uint64_t kInterval = 9;  // by default
  // In an hour, if each path had a key of its own that is written every 5 s.
  static constexpr size_t kUnpacked = 6 * 720;
  Support::Random random_{7};
};

// Six keys: system, memory, two processors and two file systems, if each path had a key of its own.
TEST_F(SmallChangesTest, IdleForAnHour_TenTimesFewerEventsThanSixKeysEvery5Seconds) {
  uint64_t freeUnits = 2'500'000;
  hour([&] {
    freeUnits -= random_.below(20);
    figuresAre(static_cast<int16_t>(random_.below(4)), 100 + random_.below(4),
               4'000'000 + random_.below(9000), freeUnits);
  });
  EXPECT_LE(events(), kUnpacked / 10);
  EXPECT_GE(events(), 300u) << "one proves every 10 s that writes work";
}

TEST_F(SmallChangesTest, BusyForAnHour_OneEventInEachInterval_TenTimesFewer) {
  hour([&] {
    figuresAre(static_cast<int16_t>(random_.below(101)), 100 + random_.below(50),
               1'000'000 + random_.below(5'000'000), 2'500'000);
  });
  EXPECT_EQ(Config().figuresIntervalSeconds, kInterval);
  EXPECT_LE(events(), kUnpacked / 10);
  EXPECT_GE(events(), 3600 / kInterval - 10);
}

TEST_F(SmallChangesTest, WhatIsShown_IsNeverFartherThanItsDeadband_NorForLongerThanTheLongestInterval) {
  int16_t load = 20;
  uint64_t lastEqualNs = clock_.monotonicNs();
  hour([&] {
    load = static_cast<int16_t>(std::clamp<int>(load + static_cast<int>(random_.below(7)) - 3, 0, 100));
    if (publisher_) {
      auto is = shown(processor("1")).get<Kelstore::Processor>().load;
      auto was = content_.at(processor("1")).get<Kelstore::Processor>().load;
      EXPECT_LE(std::abs(is - was), 5);
      if (is == was) lastEqualNs = clock_.monotonicNs();
      EXPECT_LE(clock_.monotonicNs() - lastEqualNs, 39 * kSecond * 1'000'000);
    }
    figuresAre(load, 100, 4'000'000, 2'500'000);
  });
}

TEST_F(SmallChangesTest, GreaterChange_IsWrittenAtOnce_WithTheClockOfThatTime) {
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  store_->written();
  pass(3 * kSecond);
  figuresAre(10, 100, 4'000'000, 2'500'000);
  content_[processor("2")] = Kelstore::Processor{16};
  say();
  pass(0);
  EXPECT_EQ(store_->written(), "members/1/figures; ");
  EXPECT_EQ(shown(processor("2")), Kelstore::Value(Kelstore::Processor{16}));
  EXPECT_EQ(shown(kSystem).get<Kelstore::System>().currentTimeUtc, static_cast<double>(clock_.utcNs()) / 1e9);
  EXPECT_EQ(shown(kSystem).get<Kelstore::System>().systemUptime, 903) << "it started at 100 s";
}

TEST_F(SmallChangesTest, ProofThatWritesWork_IsTheSmallChangeThatWaitedForLongest) {
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  store_->written();
  figuresAre(11, 100, 4'000'000, 2'500'001);
  say();
  pass(9999);
  EXPECT_EQ(store_->written(), "");
  pass(1);
  EXPECT_EQ(store_->written(), "members/1/figures; ");
  pass(10 * kSecond);
  EXPECT_EQ(store_->written(), "members/1/filesystems; ");
  EXPECT_EQ(shown(kRoot).get<Kelstore::Storage>().free, 2'500'001u);
  pass(10 * kSecond);
  EXPECT_EQ(store_->written(), "members/1/figures; ");
}

TEST_F(SmallChangesTest, LongestInterval_SmallChangesAreWrittenThen) {
  publisher_.emplace(
      Publisher::Settings{
          .member = 1, .interfaces = {"B1"}, .ttlSeconds = 3600, .intervalSeconds = 1, .random = kRandom},
      store_, io_, clock_, listener());
  figuresAre(10, 100, 4'000'000, 2'500'000);
  say();
  pass(0);
  store_->written();
  for (int seconds = 5; seconds <= 30; seconds += 5) {
    EXPECT_EQ(store_->written(), "") << seconds;
    pass(5 * kSecond);
    figuresAre(12, 100, 4'000'000, 2'500'000);
    say();
    pass(0);
  }
  EXPECT_EQ(store_->written(), "members/1/figures; ") << "no file system has changed";
}

TEST_F(SmallChangesTest, DeadbandsAreSetAnew_TheyHoldFromThenOn) {
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  store_->written();
  pass(2 * kSecond);
  Deadbands none;
  none.load = 0;
  publisher_->configured({}, 1, none);
  content_[processor("1")] = Kelstore::Processor{11};
  say();
  pass(0);
  EXPECT_EQ(store_->written(), "members/1/figures; ");
}

TEST_F(SmallChangesTest, PredecessorHadOtherKeysForTheSamePaths_TheyGoWithTheFirstWrite) {
  for (const Kelstore::Path& path : {kSystem, kMemory, processor("1"), processor("9"), kRoot}) {
    store_->keys[path] = {"{}", kOther, 5};
  }
  store_->leases.insert(kOther);
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  EXPECT_THAT(store_->sizes, testing::SizeIs(1)) << "one transaction";
  std::vector<std::string> paths;
  for (const auto& [path, held] : store_->keys) paths.push_back(path.text());
  EXPECT_THAT(paths,
              testing::UnorderedElementsAre("topology/1/2", "members/1/figures", "members/1/filesystems"));
}

TEST_F(SmallChangesTest, ClockIsSetForwardBeforeTheNextLook_UptimeGoesOn) {
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  pass(2 * kSecond);
  clock_.utcNsIs(clock_.utcNs() + 3'600'000'000'000);
  pass(8 * kSecond);
  EXPECT_NEAR(shown(kSystem).get<Kelstore::System>().systemUptime, 910, 0.01);
}

TEST_F(SmallChangesTest, ClockIsSetBackByMoreThanTheUptime_FiguresCanBeRead) {
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  pass(2 * kSecond);
  clock_.utcNsIs(50'000'000'000);
  pass(8 * kSecond);
  EXPECT_NEAR(shown(kSystem).get<Kelstore::System>().systemUptime, 910, 0.01);
  EXPECT_NEAR(shown(kSystem).get<Kelstore::System>().currentTimeUtc, 58, 0.01);
}

TEST_F(SmallChangesTest, LeaseEnds_EverythingIsPutBackAsItIsNow) {
  figuresAre(10, 100, 4'000'000, 2'500'000);
  start();
  pass(4 * kSecond);
  content_[processor("1")] = Kelstore::Processor{12};
  say();
  store_->expire(101);
  pass(2 * kSecond);
  EXPECT_EQ(store_->keys.size(), 3u);
  EXPECT_EQ(shown(processor("1")), Kelstore::Value(Kelstore::Processor{12}));
  EXPECT_GE(shown(kSystem).get<Kelstore::System>().currentTimeUtc,
            static_cast<double>(clock_.utcNs()) / 1e9 - 2);
}

}  // namespace
}  // namespace Member
