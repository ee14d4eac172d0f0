// This machine as a member: what is published when the machine answers, fails or hangs, with time and work
// driven by hand.
#include "member/LocalSource.h"

#include <gmock/gmock.h>

#include <cstring>

#include "tests/kelstore/World.h"
#include "tests/member/ManualMachine.h"
#include "tests/support/TraceLog.h"

namespace Member {
namespace {

using Kelstore::World;
using Runtime::kSecond;
using testing::ElementsAre;
using testing::IsEmpty;
using SourceState = Kelstore::SourceStatus::State;

class LocalSourceTest : public testing::Test {
 protected:
  // Member 7, beside what an earlier source says.
  void start(const std::string& earlier = "{}", uint32_t intervalSeconds = 5) {
    auto below = world_.layers.addLayer();
    source_.emplace(LocalSource::Settings{7, intervalSeconds, ""}, machine_, world_.layers, io_, clock_);
    world_.submit(earlier, below);
    world_.layers.settledIs(below);
    source_->start();
  }
  // What is notified while so much time passes.
  std::string pass(uint64_t milliseconds) {
    io_.advance(milliseconds);
    return world_.drained();
  }
  // The same at the start, but for the mappings of memory, which are always there.
  std::string passFirst(uint64_t milliseconds) {
    std::string log = pass(milliseconds);
    EXPECT_THAT(log, testing::StartsWith(kMemoryMappings));
    return log.substr(std::min(log.size(), std::strlen(kMemoryMappings)));
  }
  void startAndPass(uint64_t milliseconds) {
    start();
    pass(milliseconds);
  }
  const Kelstore::System& system() const { return world_.host("7")->system(); }
  // Of all processors, by index: "1=25 2=0".
  std::string loads() const {
    std::string text;
    for (auto at = world_.host("7")->processorTable().begin(); at; at.next()) {
      text += fmt::format("{}{}={}", text.empty() ? "" : " ", at.key(), (*at.value())->load());
    }
    return text;
  }
  // Of those that do not work: "users hangs since 3: no answer for 3 s", seconds after the test began.
  std::vector<std::string> troubles() const {
    std::vector<std::string> all;
    for (const auto& one : source_->status().collectors) {
      if (one.state == Collector::State::works) continue;
      all.push_back(fmt::format("{} {} since {}: {}", one.name, stateName(one.state),
                                (one.sinceUtcNs - kStartNs) / 1'000'000'000, one.error));
    }
    return all;
  }

  static constexpr const char* kMemoryMappings = "mem[1] mem[100] mem[2] mem[3]";
  static constexpr uint64_t kStartNs = 1'000'000'000'000;
  Zavro::ManualClock clock_{kStartNs};
  Runtime::ManualIo io_{clock_};
  World world_{0};
  std::shared_ptr<ManualMachine> machine_ = std::make_shared<ManualMachine>();
  std::optional<LocalSource> source_;
  TraceLog trace_{{"Member"}};
};

TEST_F(LocalSourceTest, NameOfTheHost_IsPublished_UnlessATerminalWouldNotShowIt) {
  machine_->hostName = "leaf-7";
  startAndPass(kSecond);
  EXPECT_EQ(world_.mirror.names().at(Trel::MemberId(7)), "leaf-7");
  machine_->hostName = "leaf\x1b";
  pass(5 * kSecond);
  EXPECT_TRUE(world_.mirror.names().empty());
}

TEST_F(LocalSourceTest, FirstLook_AllFiguresAreThere_LoadsAreNotKnownYet) {
  start();
  EXPECT_EQ(source_->status().state, SourceState::loading);
  EXPECT_EQ(passFirst(0), " host[7] 7.memory 7.cpu[1] 7.cpu[2]");
  EXPECT_EQ(system(), (Kelstore::System{1000.5, 1000, 2, 130, 8000}));
  EXPECT_EQ(world_.host("7")->memInfo()->amounts(), (Kelstore::Memory{8000, 3000, 5000, 7500, 6500}));
  EXPECT_EQ(loads(), "1=-1 2=-1");
  Kelstore::SourceStatus status = source_->status();
  EXPECT_EQ(status.name, "local");
  EXPECT_EQ(status.state, SourceState::current);
  EXPECT_EQ(status.paths, 10u);  // what there is of the member, and four mappings
  EXPECT_EQ(status.lastChangeUtcNs, clock_.utcNs());
  EXPECT_THAT(troubles(), IsEmpty());
  EXPECT_EQ(status.collectors.size(), 6u);
  EXPECT_THAT(trace_.lines(), IsEmpty());
}

// What the publisher of this member cannot read is not what is shown here.
TEST_F(LocalSourceTest, UnreadOfItsMember_IsHidden) {
  start(R"({"members": {"7": {"unread": {"users": {"state": "fails", "since": 1, "error": "a"}}},
                        "8": {"unread": {"users": {"state": "fails", "since": 1, "error": "b"}}}}})");
  passFirst(0);
  ASSERT_EQ(world_.mirror.unread().size(), 1u);
  EXPECT_EQ(world_.mirror.unread().begin()->first.first(), "8");
}

TEST_F(LocalSourceTest, SecondLookAfterASecond_LoadsAreThoseOfThatTime) {
  startAndPass(0);
  machine_->times = std::vector<ProcessorTime>{{0, 150, 1100}, {1, 0, 1100}};
  EXPECT_EQ(pass(kSecond), "7.cpu[1] 7.cpu[2]");
  EXPECT_EQ(loads(), "1=50 2=0");
}

TEST_F(LocalSourceTest, FurtherLooks_ComeInIntervals) {
  start("{}", 60);
  pass(59 * kSecond);
  EXPECT_EQ(machine_->asked["uptime"], 2);
  pass(2 * kSecond);
  EXPECT_EQ(machine_->asked["uptime"], 3);
  pass(60 * kSecond);
  EXPECT_EQ(machine_->asked["uptime"], 4);
}

TEST_F(LocalSourceTest, SystemChanges_InPlaceAndUnnoticed) {
  startAndPass(0);
  auto host = world_.host("7");
  machine_->uptimeSeconds = 1001.5;
  machine_->userCount = 3u;
  machine_->processCount = 131u;
  machine_->times = std::vector<ProcessorTime>{{0, 100, 1000}, {1, 0, 1000}};
  EXPECT_EQ(pass(kSecond), "");
  EXPECT_EQ(world_.host("7"), host);
  EXPECT_EQ(system(), (Kelstore::System{1001.5, 1001, 3, 131, 8000}));
}

TEST_F(LocalSourceTest, UnchangedValues_AreWrittenOnce) {
  startAndPass(0);
  auto memory = world_.host("7")->memInfo();
  auto processor = *world_.host("7")->processorTable().find(2u);
  machine_->times = std::vector<ProcessorTime>{{0, 150, 1100}, {1, 0, 1000}};
  EXPECT_EQ(pass(kSecond), "7.cpu[1]");
  machine_->times = std::vector<ProcessorTime>{{0, 200, 1200}, {1, 0, 1000}};
  EXPECT_EQ(pass(5 * kSecond), "");
  EXPECT_EQ(world_.host("7")->memInfo(), memory);
  EXPECT_EQ(*world_.host("7")->processorTable().find(2u), processor);
}

TEST_F(LocalSourceTest, MemoryChanges_OneNotification) {
  startAndPass(0);
  machine_->memoryInUse->free = 2999;
  EXPECT_EQ(pass(kSecond), "7.memory");
}

TEST_F(LocalSourceTest, ProcessorGoesOffline_ItVanishes_AndComesBackWithoutALoad) {
  startAndPass(0);
  machine_->times = std::vector<ProcessorTime>{{0, 150, 1100}};
  EXPECT_EQ(pass(kSecond), "7.cpu[1] -7.cpu[2]");
  machine_->times = std::vector<ProcessorTime>{{0, 200, 1200}, {1, 0, 1000}};
  EXPECT_EQ(pass(5 * kSecond), "7.cpu[2]");
  EXPECT_EQ(loads(), "1=50 2=-1");
}

TEST_F(LocalSourceTest, EarlierSourceKnowsTheMember_OnlyItsReachabilityStays) {
  start(R"({"members": {
      "7": {"system": {"uptime": 1, "currentTimeUtc": 1, "users": 9, "processes": 9, "memorySize": 9},
            "processors": {"1": {"load": 90}, "9": {"load": 90}}, "memory": {"free": 9},
            "storage": {"/": {"allocationUnits": 1, "size": 9, "free": 9}},
            "reachability": {"8": {"state": "reachable", "lastChange": 1}}},
      "8": {"processors": {"9": {"load": 90}}}}})");
  pass(0);
  EXPECT_EQ(loads(), "1=-1 2=-1");
  EXPECT_TRUE(world_.host("7")->storageInfoTable().empty());
  EXPECT_EQ(system().systemNumUsers, 2u);
  EXPECT_EQ(world_.reachability("7")->reachabilityStatus().size(), 1u);
  EXPECT_EQ(world_.host("8")->processorTable().size(), 1u);
}

TEST_F(LocalSourceTest, CollectorFails_WhatWasKnownStays_AndItIsToldOnce) {
  startAndPass(0);
  machine_->userCount = absl::UnknownError("/run/utmp: Permission denied");
  machine_->processCount = 140u;
  pass(kSecond);
  EXPECT_EQ(system(), (Kelstore::System{1000.5, 1001, 2, 140, 8000}));
  EXPECT_THAT(troubles(), ElementsAre("users fails since 1: /run/utmp: Permission denied"));
  EXPECT_EQ(source_->status().state, SourceState::partial);
  EXPECT_EQ(source_->status().error, "collector users fails: /run/utmp: Permission denied");
  pass(10 * kSecond);
  EXPECT_THAT(troubles(), ElementsAre("users fails since 1: /run/utmp: Permission denied"));
  EXPECT_THAT(trace_.lines(), ElementsAre("Member/0 collector users fails: /run/utmp: Permission denied"));
}

TEST_F(LocalSourceTest, CollectorRecovers_ItsFiguresFollowAgain) {
  startAndPass(0);
  machine_->userCount = absl::UnknownError("broken");
  pass(kSecond);
  machine_->userCount = 5u;
  pass(5 * kSecond);
  EXPECT_EQ(system().systemNumUsers, 5u);
  EXPECT_EQ(source_->status().state, SourceState::current);
  EXPECT_EQ(source_->status().error, "");
  EXPECT_THAT(trace_.lines(),
              ElementsAre("Member/0 collector users fails: broken", "Member/1 collector users works again"));
}

TEST_F(LocalSourceTest, CollectorFailsFromTheStart_TheOthersAreServed) {
  machine_->memoryInUse = absl::UnknownError("/proc/meminfo: Permission denied");
  start();
  EXPECT_EQ(passFirst(0), " host[7] 7.cpu[1] 7.cpu[2]");
  EXPECT_EQ(system().memorySize, 0u);
  EXPECT_EQ(world_.host("7")->memInfo(), nullptr);
}

TEST_F(LocalSourceTest, EveryCollectorFails_NothingIsServedAndTheSourceIsHeard) {
  machine_->uptimeSeconds = absl::UnknownError("no");
  machine_->userCount = absl::UnknownError("no");
  machine_->processCount = absl::UnknownError("no");
  machine_->memoryInUse = absl::UnknownError("no");
  machine_->times = absl::UnknownError("no");
  machine_->mounted = absl::UnknownError("no");
  start();
  EXPECT_EQ(passFirst(0), "");
  EXPECT_EQ(source_->status().state, SourceState::partial);
  EXPECT_TRUE(world_.layers.idle());
}

TEST_F(LocalSourceTest, CollectorHangs_TheOthersGoOn_ItIsNotAskedAgain_AndItsFiguresStay) {
  startAndPass(0);
  machine_->hanging = {"users"};
  pass(kSecond);
  EXPECT_THAT(troubles(), IsEmpty());
  machine_->processCount = 150u;
  pass(20 * kSecond);
  EXPECT_EQ(system(), (Kelstore::System{1000.5, 1021, 2, 150, 8000}));
  EXPECT_EQ(machine_->asked["users"], 2);
  EXPECT_THAT(troubles(), ElementsAre("users hangs since 1: no answer for 3 s"));
  EXPECT_EQ(source_->status().error, "collector users hangs: no answer for 3 s");
  EXPECT_THAT(trace_.lines(), ElementsAre("Member/0 collector users hangs: no answer for 3 s"));
}

TEST_F(LocalSourceTest, HangingCollectorReturns_ItsAnswerCounts_AndItIsAskedAgain) {
  startAndPass(0);
  machine_->hanging = {"users"};
  pass(10 * kSecond);
  machine_->hanging = {};
  machine_->userCount = 8u;
  io_.hungReturn();
  pass(0);
  EXPECT_EQ(system().systemNumUsers, 8u);
  EXPECT_THAT(troubles(), IsEmpty());
  machine_->userCount = 9u;
  pass(5 * kSecond);
  EXPECT_EQ(system().systemNumUsers, 9u);
}

TEST_F(LocalSourceTest, CollectorHangsFromTheStart_TheOthersAreServedAfterItsPatience) {
  machine_->hanging = {"processors"};
  start();
  EXPECT_EQ(pass(Collector::kPatienceMs - 1), "");
  EXPECT_EQ(source_->status().state, SourceState::loading);
  EXPECT_EQ(passFirst(1), " host[7] 7.memory");
  EXPECT_EQ(source_->status().state, SourceState::partial);
}

TEST_F(LocalSourceTest, ReturnsWithinThePatience_NothingIsTold) {
  startAndPass(0);
  machine_->hanging = {"users"};
  pass(kSecond);
  machine_->hanging = {};
  pass(Collector::kPatienceMs - kSecond);
  io_.hungReturn();
  pass(20 * kSecond);
  EXPECT_THAT(trace_.lines(), IsEmpty());
}

TEST_F(LocalSourceTest, SourceGoesWhileACollectorHangs_WhatReturnsIsDropped) {
  startAndPass(0);
  machine_->hanging = {"users"};
  pass(10 * kSecond);
  source_.reset();
  machine_->hanging = {};
  io_.hungReturn();
  EXPECT_EQ(pass(60 * kSecond), "");
}

}  // namespace
}  // namespace Member
