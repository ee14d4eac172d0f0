// All that a member publishes, put together from its machine, its devices and its neighbours.
#include "member/OwnState.h"

#include <gmock/gmock.h>

#include "tests/member/OwnStateFixture.h"

namespace Member {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

TEST_F(OwnStateTest, Everything_IsThere) {
  links_.deviceIs("bp2", {12, true, true});
  machine_->hostName = "leaf-1";
  start();
  EXPECT_TRUE(state_.known());
  EXPECT_THAT(
      entries(),
      IsSupersetOf(
          {R"(interfaces/"Backplane1/2" {"ifIndex":1002,"machineIfIndex":12})", R"(members/1/name "leaf-1")",
           R"(topology/1/2 {"intf":"Backplane1/2"})", R"(topology/1/3 {"intf":"Backplane1/3"})",
           R"(members/1/reachability/2 {"intf":"Backplane1/2","lastChange":1000000000000,"state":"initializing"})",
           R"(members/1/reachability/3 {"intf":"Backplane1/3","lastChange":1000000000000,"state":"unreachable"})",
           R"(members/1/processors/1 {"load":-1})",
           R"(members/1/system {"currentTimeUtc":1000.0,"memorySize":8000,"processes":130,"uptime":1000.5,"users":2})"}));
  EXPECT_THAT(entries(), Not(Contains(StartsWith("interfaces/\"Backplane1/3\""))));
}

TEST_F(OwnStateTest, DevicesAreNotKnown_NotKnown) {
  state_.start();
  io_.advance(60000);
  EXPECT_FALSE(state_.known());
  machine_->hostName = "leaf-1";
  devicesAre({}, {});
  EXPECT_TRUE(state_.known());
}

TEST_F(OwnStateTest, FiguresWereNotHeard_NotKnown) {
  machine_->hanging = {"users"};
  start();
  EXPECT_FALSE(state_.known());
  io_.advance(3000);
  EXPECT_TRUE(state_.known()) << "it is known that they hang";
}

TEST_F(OwnStateTest, AnEchoHasNoEndByFar_ItsThreadHangs_AHangingCollectorIsNothingUnusual) {
  links_.deviceIs("bp2", {12, true, true});
  machine_->hanging = {"users"};
  start();
  io_.advance(600'000);
  EXPECT_FALSE(state_.hangs());
  probe_->hanging = true;
  io_.advance(119'000);
  EXPECT_FALSE(state_.hangs());
  io_.advance(2'000);
  EXPECT_TRUE(state_.hangs());
  probe_->hanging = false;
  io_.hungReturn();
  EXPECT_FALSE(state_.hangs());
}

TEST_F(OwnStateTest, DeviceAppearsChangesAndVanishes_ItsInterfaceFollows) {
  start();
  int before = changes_;
  devicesAre({}, Device{20, true, true});
  EXPECT_GT(changes_, before);
  EXPECT_THAT(entries(), Contains(R"(interfaces/"Backplane1/3" {"ifIndex":20,"machineIfIndex":20})"));
  devicesAre({}, Device{21, true, true});
  EXPECT_THAT(entries(), Contains(R"(interfaces/"Backplane1/3" {"ifIndex":21,"machineIfIndex":21})"));
  devicesAre({}, {});
  EXPECT_THAT(entries(), Not(Contains(StartsWith("interfaces/"))));
}

TEST_F(OwnStateTest, TwoInterfacesGetOneIndex_IsToldOnceUntilTheyDiffer) {
  start();
  auto shared =
      Contains(HasSubstr("interfaces Backplane1/2 and Backplane1/3: published with one ifIndex, 1002, so "
                         "that they share a row"));
  devicesAre(Device{12, true, true}, Device{20, true, true});
  EXPECT_THAT(trace_.lines(), Not(shared));
  devicesAre(Device{12, true, true}, Device{1002, true, true});
  EXPECT_THAT(trace_.lines(), shared);
  trace_.clear();
  devicesAre(Device{12, true, true}, Device{1002, true, false});
  EXPECT_THAT(trace_.lines(), Not(shared)) << "that is known";
  devicesAre(Device{12, true, true}, Device{20, true, true});
  devicesAre(Device{12, true, true}, Device{1002, true, true});
  EXPECT_THAT(trace_.lines(), shared);
}

TEST_F(OwnStateTest, NeighbourChanges_IsToldAtOnce_FiguresStayButForTheTime) {
  links_.deviceIs("bp2", {12, true, true});
  start();
  io_.advance(4000);
  machine_->userCount = 3;
  int before = changes_;
  devicesAre(Device{12, true, false}, {});
  EXPECT_GT(changes_, before);
  EXPECT_THAT(
      entries(),
      Contains(
          R"(members/1/reachability/2 {"intf":"Backplane1/2","lastChange":1004000000000,"state":"unreachable"})"));
  EXPECT_EQ(system()->systemNumUsers, 2u);
  EXPECT_EQ(system()->currentTimeUtc, 1004);
  EXPECT_EQ(system()->systemUptime, 1003.5) << "1000.5 at the look a second after the start";
}

TEST_F(OwnStateTest, ClockIsSetAfterALook_UptimeGoesOn) {
  start();
  io_.advance(4000);
  clock_.utcNsIs(clock_.utcNs() + 3'600'000'000'000);
  EXPECT_EQ(system()->currentTimeUtc, 4604);
  EXPECT_EQ(system()->systemUptime, 1003.5);
}

TEST_F(OwnStateTest, Figures_AreTakenOnceInAnInterval) {
  start();
  std::vector<uint32_t> taken;
  for (uint32_t i = 0; i < 220; ++i) {
    machine_->userCount = i;
    io_.advance(100);
    if (taken.empty() || system()->systemNumUsers != taken.back()) taken.push_back(system()->systemNumUsers);
  }
  // The second look comes early, for the loads' sake.
  EXPECT_THAT(taken, testing::ElementsAre(2, 9, 59, 109, 159, 209));
}

TEST_F(OwnStateTest, AnswersOfOneLook_AreOneChange) {
  machine_->mounted = std::vector<Mount>{{"/", MountKind::fixedDisk, 1}};
  machine_->rooms["/"] = Room{4096, 100, 50};
  start();
  io_.advance(2000);
  int before = changes_;
  io_.advance(5000);
  EXPECT_EQ(changes_, before + 1);
  EXPECT_THAT(entries(), Contains(R"(members/1/storage/"/" {"allocationUnits":4096,"free":50,"size":100})"));
}

TEST_F(OwnStateTest, OneAnswerOfALookComesLate_TheOthersWaitForItUntilItHangs) {
  start();
  io_.advance(2000);
  int before = changes_;
  machine_->hanging = {"users"};
  io_.advance(4500);
  EXPECT_EQ(changes_, before);
  machine_->hanging.clear();
  io_.hungReturn();
  io_.advance(0);
  EXPECT_EQ(changes_, before + 1);
  machine_->hanging = {"users"};
  machine_->processCount = 131;
  io_.advance(7500);  // the next look, and the time after which an answer is not waited for any more
  EXPECT_EQ(changes_, before + 2);
  EXPECT_EQ(system()->systemProcesses, 131u);
}

TEST_F(OwnStateTest, ClockIsSet_ReportsAreInTheNewTimeAtTheNextLook) {
  start();
  clock_.utcNsIs(clock_.utcNs() + 5'000'000'000'000);
  io_.advance(10'000);
  EXPECT_THAT(
      entries(),
      Contains(
          R"(members/1/reachability/3 {"intf":"Backplane1/3","lastChange":6000000000000,"state":"unreachable"})"));
}

// When the machine started is what is published in place of its uptime.
TEST_F(OwnStateTest, CollectorHangs_StartOfTheMachineStays) {
  start();
  double before = startOfMachine();
  for (int second = 0; second < 30; ++second) {
    machine_->uptimeSeconds = static_cast<double>(clock_.utcNs()) / 1e9 + 1.5;
    if (second == 10) machine_->hanging = {"users"};
    io_.advance(1000);
    EXPECT_NEAR(startOfMachine(), before, 0.01) << second;
  }
}

TEST_F(OwnStateTest, UptimeCannotBeReadAnyMore_StartOfTheMachineStays) {
  start();
  double before = startOfMachine();
  machine_->uptimeSeconds = absl::InternalError("broken");
  io_.advance(20000);
  EXPECT_NEAR(startOfMachine(), before, 0.01);
}

class ConfiguredAnewTest : public OwnStateTest {
 protected:
  ConfiguredAnewTest() {
    links_.deviceIs("bp2", {12, true, true});
    links_.deviceIs("bp4", {14, true, true});
    start();
    io_.advance(3000);
  }
  OwnState::NeighbourChanges become(const Config& config) {
    // A neighbour that is missing for a moment would be deleted from the store.
    toldWithout_ = 0;
    watched_ = true;
    auto changes = state_.configIs(config);
    watched_ = false;
    return changes;
  }
  void changed() override {
    OwnStateTest::changed();
    if (watched_ && entries().size() < 10) ++toldWithout_;
  }

  Config now_ = config(5);
  bool watched_ = false;
  int toldWithout_ = 0;
};

TEST_F(ConfiguredAnewTest, Neighbours_AreAddedChangedAndRemoved_TheOthersKeepTheirState) {
  now_.neighbours[0].ifIndex = 2002;
  now_.neighbours[0].probe.intervalMs = 1000;
  now_.neighbours[1] = {4, "Backplane1/4", "bp4", "10.0.0.4", {}};
  auto changes = become(now_);
  EXPECT_EQ(changes.same, 0u);
  EXPECT_EQ(changes.changed, 1u);
  EXPECT_EQ(changes.added, 1u);
  EXPECT_EQ(changes.gone, 1u);
  EXPECT_EQ(toldWithout_, 0);
  EXPECT_THAT(
      entries(),
      IsSupersetOf(
          {R"(interfaces/"Backplane1/2" {"ifIndex":2002,"machineIfIndex":12})",
           R"(members/1/reachability/2 {"intf":"Backplane1/2","lastChange":1001000000000,"state":"reachable"})",
           R"(interfaces/"Backplane1/4" {"ifIndex":14,"machineIfIndex":14})",
           R"(members/1/reachability/4 {"intf":"Backplane1/4","lastChange":1003000000000,"state":"initializing"})"}));
  EXPECT_THAT(entries(), Not(Contains(StartsWith("topology/1/3"))));
  EXPECT_THAT(entries(), Not(Contains(StartsWith("members/1/reachability/3"))));
}

TEST_F(ConfiguredAnewTest, SameNeighbourOverAnotherDevice_BeginsAnew) {
  now_.neighbours[0].device = "bp4";
  auto changes = become(now_);
  EXPECT_EQ(changes.same, 1u);
  EXPECT_EQ(changes.added, 1u);
  EXPECT_EQ(changes.gone, 1u);
  EXPECT_THAT(
      entries(),
      Contains(
          R"(members/1/reachability/2 {"intf":"Backplane1/2","lastChange":1003000000000,"state":"initializing"})"));
}

TEST_F(ConfiguredAnewTest, AnotherInterval_TheNextLookComesAfterThat) {
  now_.figuresIntervalSeconds = 60;
  become(now_);
  int before = changes_;
  io_.advance(59'000);
  EXPECT_EQ(changes_, before);
  io_.advance(1000);
  EXPECT_EQ(changes_, before + 1);
  now_.figuresIntervalSeconds = 1;
  become(now_);
  before = changes_;
  io_.advance(3000);
  EXPECT_EQ(changes_, before + 3);
}

TEST_F(ConfiguredAnewTest, SameConfiguration_NothingIsAskedSooner) {
  probe_->asked.clear();
  auto changes = become(now_);
  EXPECT_EQ(changes.same, 2u);
  io_.work();
  EXPECT_THAT(probe_->asked, IsEmpty());
}

// Two mounts that are looked at every second and take one and a half to answer, in turn: one of them is
// always waited for, and neither ever hangs.
class MountsInTurnTest : public OwnStateTest {
 protected:
  MountsInTurnTest() : OwnStateTest(1) {
    machine_->mounted = std::vector<Mount>{{"/a", MountKind::fixedDisk, 1}, {"/b", MountKind::fixedDisk, 2}};
    machine_->rooms["/a"] = machine_->rooms["/b"] = Room{4096, 100, 50};
    links_.listingEnds();
    machine_->hanging = {"mount /a"};
    state_.start();
    io_.advance(500);
  }
  void pass(int looks, const std::function<void()>& afterEach) {
    for (int i = 0; i < looks; ++i) {
      std::swap(asked_, waitedFor_);
      machine_->hanging = {asked_, waitedFor_};
      io_.advance(1000);
      machine_->hanging = {asked_};
      io_.hungReturn();
      io_.advance(0);
      afterEach();
    }
  }
  size_t count(const std::string& start) const {
    auto all = entries();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(),
                                             [&](const std::string& one) { return one.starts_with(start); }));
  }

  std::string asked_ = "mount /a";
  std::string waitedFor_ = "mount /b";
};

TEST_F(MountsInTurnTest, OneIsAlwaysWaitedFor_FiguresFollowAllTheSame) {
  std::set<std::string> seen;
  pass(20, [&] {
    machine_->uptimeSeconds = *machine_->uptimeSeconds + 1;
    for (const std::string& entry : entries()) {
      if (entry.starts_with("members/1/system")) seen.insert(entry);
    }
  });
  EXPECT_GE(seen.size(), 9u) << "at least every second look is taken over";
  EXPECT_THAT(trace_.lines(), Not(Contains(testing::HasSubstr("hangs"))));
}

// What an earlier life has published would be deleted.
TEST_F(MountsInTurnTest, EachWasHeardButNotTakenOver_NotKnown) {
  EXPECT_FALSE(state_.known());
  int known = 0;
  pass(6, [&] {
    if (!state_.known()) return;
    ++known;
    EXPECT_EQ(count("members/1/storage/"), 2u);
    EXPECT_EQ(count("members/1/memory"), 1u);
  });
  EXPECT_GE(known, 4);
}

LeaseStore::Holdings earlier(const std::map<std::string, std::string>& texts, LeaseStore::Lease lease = 7) {
  LeaseStore::Holdings holdings;
  for (const auto& [name, text] : texts) {
    std::vector<std::string> segments{"members", "1", name.substr(0, name.find('/'))};
    if (segments.back() != name) segments.push_back(name.substr(name.find('/') + 1));
    holdings[Kelstore::positionOf(segments).path] = {text, lease, 1};
  }
  return holdings;
}

TEST_F(OwnStateTest, EarlierProcessPublished_ThatHoldsUntilItIsFoundOtherwise) {
  devicesAre(Device{12, true, true}, Device{13, true, true});
  probe_->answer = true;
  start();
  int changes = changes_;
  state_.earlierIs(
      earlier({{"reachability/2", R"({"state": "reachable", "intf": "Backplane1/2", "lastChange": 9})"},
               {"reachability/3", R"({"state": "unreachable", "intf": "Backplane1/3", "lastChange": 8})"},
               {"processors/1", R"({"load": 33})"}}));
  EXPECT_GT(changes_, changes);
  std::string before =
      R"(members/1/reachability/2 {"intf":"Backplane1/2","lastChange":9,"state":"reachable"})";
  EXPECT_THAT(entries(), IsSupersetOf({before, std::string(R"(members/1/processors/1 {"load":33})")}));
  EXPECT_THAT(entries(), Contains(R"(members/1/reachability/3 {"intf":"Backplane1/3","lastChange":8,)"
                                  R"("state":"unreachable"})"));
  machine_->times = std::vector<ProcessorTime>{{0, 150, 1100}};
  io_.advance(2000);
  EXPECT_THAT(entries(), Contains(before));
  EXPECT_THAT(entries(), Contains(StartsWith(R"(members/1/reachability/3)")));
  EXPECT_THAT(entries(), Not(Contains(testing::HasSubstr(R"({"load":33})")))) << "it is measured";
}

TEST_F(OwnStateTest, EarlierProcessPublishedPackedFigures_ItsLoadsHoldToo) {
  devicesAre(Device{12, true, true}, Device{13, true, true});
  start();
  state_.earlierIs(earlier({{"figures", R"({"clock": 1, "users": 0, "processes": 0, "memorySize": 0,)"
                                        R"( "loads": {"1": 33}})"}}));
  EXPECT_THAT(entries(), Contains(R"(members/1/processors/1 {"load":33})"));
}

// The processor was switched off and on, or the container has another limit: its times begin anew.
TEST_F(OwnStateTest, LoadWasMeasuredAndIsNotAnyMore_TheEarlierProcessesDoesNotComeBack) {
  start();
  state_.earlierIs(earlier({{"processors/1", R"({"load": 33})"}}));
  ASSERT_THAT(entries(), Contains(R"(members/1/processors/1 {"load":33})"));
  machine_->times = std::vector<ProcessorTime>{{0, 150, 1100}};
  io_.advance(5000);
  ASSERT_THAT(entries(), Not(Contains(R"(members/1/processors/1 {"load":33})")));
  machine_->times = std::vector<ProcessorTime>{{0, 5, 10}};
  io_.advance(5000);
  EXPECT_THAT(entries(), Contains(R"(members/1/processors/1 {"load":-1})"));
}

TEST_F(OwnStateTest, EarlierReportsThatDoNotFit_AreIgnored) {
  devicesAre(Device{12, true, true}, Device{13, true, true});
  start();
  auto before = entries();
  state_.earlierIs(
      earlier({{"reachability/2", R"({"state": "reachable", "intf": "Backplane9/2", "lastChange": 9})"},
               {"reachability/3", "{no JSON"},
               {"reachability/3", R"({"state": "quarantined", "intf": "Backplane1/3", "lastChange": 8})"},
               {"reachability/4", R"({"state": "reachable", "intf": "Backplane1/3", "lastChange": 8})"},
               {"processors/1", R"({"load": "high"})"},
               {"processors/99", R"({"load": 5})"}}));
  state_.earlierIs(
      earlier({{"reachability/2", R"({"state": "reachable", "intf": "Backplane1/2", "lastChange": 9})"}}, 0));
  EXPECT_EQ(entries(), before);
}

}  // namespace
}  // namespace Member
