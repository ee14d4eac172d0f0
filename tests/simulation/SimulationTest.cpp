// The simulation itself: that it notices what is wrong, says the same twice, makes failures short, and goes
// on where it stopped. And a few seconds of it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>

#include "tests/simulation/Campaign.h"
#include "tests/simulation/Draw.h"
#include "tests/simulation/Isolated.h"
#include "tests/simulation/Observer.h"
#include "tests/simulation/Shrink.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

namespace Simulation {
namespace {

// -- A few seconds

TEST(Simulation, FirstSeeds_NothingDiverges) {
  Progress progress;
  Limits limits;
  limits.seeds = 128;
  auto divergence = Campaign(1, [](const std::string&) {}).run(progress, limits, [](const Progress&) {});
  EXPECT_FALSE(divergence) << divergence->failure << explained(*divergence);
  EXPECT_EQ(progress.seeds, 128U);
  EXPECT_EQ(progress.twice, 1U);
  EXPECT_GT(progress.events, 128U * 100);
}

TEST(Simulation, EachCombinationOfToggles_NothingDiverges) {
  std::set<std::pair<bool, bool>> combinations;
  for (uint64_t seed = 0; seed < 8 * kSeedsOfGroup; seed += kSeedsOfGroup) {
    Conditions conditions = conditionsOf(seed);
    combinations.emplace(conditions.storageToggle, conditions.memoryToggle);
    EXPECT_EQ(runIsolated(scenarioOf(seed)).failure, "") << seed;
  }
  EXPECT_EQ(combinations.size(), 4U);
}

TEST(Simulation, SameSeed_SameTrace) {
  Outcome once = runIsolated(scenarioOf(7));
  Outcome again = runIsolated(scenarioOf(7));
  EXPECT_EQ(once.digest, again.digest);
  EXPECT_EQ(once.events, again.events);
  EXPECT_NE(once.digest, runIsolated(scenarioOf(8)).digest);
}

TEST(Simulation, Seeds_DrawEveryKindOfStep) {
  std::set<Kind> kinds;
  for (uint64_t seed = 0; seed < 50; ++seed) {
    for (const Step& step : scenarioOf(seed).steps) kinds.insert(step.kind);
  }
  EXPECT_EQ(kinds.size(), kKindCount);
}

// -- What it notices

class ObserverTest : public testing::Test {
 protected:
  void making(PipelineId id) { observer.making(id, {}); }
  // As the pipeline's trace says it.
  void handles(const std::string& key, int neighbour, const std::string& value) {
    std::string text =
        "reachabilityStatusStream = from( reachabilityDir.entityPtr< ReachabilityStatus "
        ">[].reachabilityStatus[] ): dirKey=" +
        key + " nbr=" + std::to_string(neighbour) + " reachabilityStateOpt=" + value;
    observer.trace({"TrelSnmpReachabilityTableSm", 7, text, "", {}});
  }
  void handles(const std::string& key, int neighbour, const Trel::ReachabilityState& record) {
    handles(key, neighbour, "Optional( " + record.text() + " )");
  }
  // Member 1 reports member 2.
  const Trel::ReachabilityState& report() {
    state.apply({.kind = Kind::reachJoin});
    state.apply({.kind = Kind::report, .item = 1});
    return **reachAt(*state.set(0).reachabilityDir, "1")->reachabilityStatus().find(Trel::MemberId(2));
  }
  TrelSnmp::TrelMib& mib() { return *state.set(0).mib; }
  void write(const Trel::ReachabilityState& record) {
    mib().trelReachabilityTableIs({1, 2}, &record, state.set(0).ifMib);
  }
  std::string afterStep() {
    observer.stepEnds(false);
    return observer.failure();
  }

  Zavro::ManualClock clock{kAgentStart * 1'000'000'000};
  State state{{}, clock, Zavro::makePtr<HostResourcesMib::StorageEntryMappings>()};
  Observer observer{state, {}};
};

TEST_F(ObserverTest, EventAndItsWrite_AreFine) {
  making(PipelineId::reachability);
  const auto& record = report();
  handles("1", 2, record);
  write(record);
  EXPECT_EQ(afterStep(), "");
  handles("1", 2, record);
  EXPECT_EQ(afterStep(), "");
}

TEST_F(ObserverTest, WriteWithoutEvent) {
  making(PipelineId::reachability);
  write(report());
  EXPECT_EQ(afterStep().substr(0, 45), "row (1,2) of trelReachabilityTable is written");
}

TEST_F(ObserverTest, EventWithoutWrite) {
  making(PipelineId::reachability);
  handles("1", 2, report());
  EXPECT_EQ(afterStep().substr(0, 71),
            "1(0,2) was handled, but row (1,2) of trelReachabilityTable was not writ");
}

TEST_F(ObserverTest, EventWithoutItsSecondHalf) {
  making(PipelineId::reachability);
  const auto& record = report();
  handles("1", 2, record);
  write(record);
  EXPECT_EQ(afterStep(), "");
  state.apply({.kind = Kind::report, .item = 1, .value = 1});
  handles("1", 2,
          **reachAt(*state.set(0).reachabilityDir, "1")->reachabilityStatus().find(Trel::MemberId(2)));
  mib().trelReachabilityTableDel({1, 2});
  EXPECT_EQ(afterStep().substr(0, 71),
            "1(0,2) was handled, but row (1,2) of trelReachabilityTable was not writ");
}

TEST_F(ObserverTest, RemovalOfALiveRow) {
  making(PipelineId::reachability);
  const auto& record = report();
  handles("1", 2, record);
  write(record);
  handles("1", 2, "None");
  EXPECT_EQ(observer.failure().substr(0, 34), "1(0,2) is handled as gone, but is ");
}

TEST_F(ObserverTest, EventWithAnotherRecordThanTheStateHas) {
  making(PipelineId::reachability);
  report();
  Trel::ReachabilityState other(Trel::ReachabilityState::reachable, std::nullopt, 99);
  handles("1", 2, other);
  EXPECT_EQ(observer.failure().substr(0, 33), "1(0,2) is handled with 99, but is");
}

TEST_F(ObserverTest, EventOfAPausedPipeline) {
  making(PipelineId::reachability);
  observer.paused(PipelineId::reachability);
  handles("1", 2, report());
  EXPECT_EQ(observer.failure(), "inactive, but handles 1(0,2)");
}

TEST_F(ObserverTest, PipelineDroppedThatLeavesARow) {
  making(PipelineId::reachability);
  const auto& record = report();
  handles("1", 2, record);
  write(record);
  observer.dropped(PipelineId::reachability);
  EXPECT_EQ(observer.failure(), "TrelSnmpReachabilityTableSm was dropped, but did not withdraw 1(0,2)");
}

// -- What a subscriber must not do

TEST(Simulation, StateChangedWithinAPublication_EndsTheProcess) {
  for (Kind kind : {Kind::report, Kind::reachLeave, Kind::pause, Kind::agentDel}) {
    Scenario scenario{.conditions = {},
                      .steps = {{.kind = Kind::reachJoin},
                                {.kind = Kind::agentIs},
                                {.kind = Kind::drain, .item = 50},
                                {.kind = kind, .key = kind == Kind::pause ? 1U : 0U, .within = 1},
                                {.kind = Kind::report, .item = 1, .value = 3}}};
    std::string failure = runIsolated(scenario).failure;
    EXPECT_NE(failure.find("changed during publication"), std::string::npos) << nameOf(kind) << failure;
  }
}

// -- The oracle

TEST(Oracle, DirectoryKeys) {
  EXPECT_EQ(Oracle::memberOf("7"), 7U);
  EXPECT_EQ(Oracle::memberOf("007"), 7U);
  EXPECT_EQ(Oracle::memberOf("255"), 255U);
  for (const char* key : {"256", "99999999999999999999", "", " 1", "1 ", "+1", "-1", "abc"}) {
    EXPECT_EQ(Oracle::memberOf(key), 0U) << key;
  }
}

TEST(Oracle, BackplaneInterfaces) {
  for (const char* name : {"Backplane1", "Backplane1/2", "Backplane0x"})
    EXPECT_TRUE(Oracle::isBackplane(name)) << name;
  for (const char* name : {"Backplane", "Backplanes1", "backplane1", "Ethernet1", ""}) {
    EXPECT_FALSE(Oracle::isBackplane(name)) << name;
  }
}

TEST(Oracle, TwoDirectoryKeysThatSpellOneMember_ClaimOneRowTwice) {
  Kor::Dir dir("hosts");
  dir.entityPtrIs("1", Zavro::makePtr<HostResources::HostResources>("host#1"));
  dir.entityPtrIs("01", Zavro::makePtr<HostResources::HostResources>("host#2"));
  dir.entityPtrIs("2", Zavro::makePtr<Kor::Dir>("wrong#3"));
  Oracle::Rows rows = Oracle::systemRows(dir);
  EXPECT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows.count({1, 0}), 2U);
}

// -- Failures

TEST(Isolated, ProcessThatDies_IsAFailureWithWhatItSaid) {
  Isolated process([](Report&) {
    fprintf(stderr, "something is wrong\n");
    abort();
  });
  EXPECT_EQ(process.failure(), "killed by signal 6 (Aborted): something is wrong\n");
}

TEST(Isolated, ReportedFailure) {
  Isolated process([](Report& report) { report.failureIs("a divergence"); });
  EXPECT_EQ(process.failure(), "a divergence");
}

TEST(Shrinking, LeavesWhatTheFailureNeeds) {
  Scenario scenario = scenarioOf(1);
  scenario.steps[20] = {.kind = Kind::walkEnd, .value = 77};
  scenario.steps[150] = {.kind = Kind::status, .value = 1000};
  scenario.conditions.memoryToggle = false;
  auto failureOf = [](const Scenario& candidate) -> std::string {
    bool first = false;
    for (const Step& step : candidate.steps) {
      if (step.kind == Kind::walkEnd && step.value == 77) first = true;
      if (first && step.kind == Kind::status && step.value >= 500)
        return "step " + std::to_string(step.value);
    }
    return "";
  };
  Scenario shortest = shrunk(scenario, failureOf, 2000);
  ASSERT_EQ(shortest.steps.size(), 2U);
  EXPECT_EQ(shortest.steps[0], (Step{.kind = Kind::walkEnd, .value = 77}));
  EXPECT_EQ(shortest.steps[1], (Step{.kind = Kind::status, .value = 500}));
  EXPECT_EQ(shortest.conditions, Conditions());
}

TEST(Shrinking, KeepsToTheSortOfFailure) {
  EXPECT_EQ(sortOf("row (1,-2) of 17"), sortOf("row (300,4) of 5"));
  EXPECT_NE(sortOf("row (1,2) goes"), sortOf("row (1,2) comes"));
}

TEST(Scenario, Text_CanBeCompiled) {
  Scenario scenario{
      .conditions = {.storageToggle = true, .memoryToggle = false, .keepRecords = true},
      .steps = {{.kind = Kind::report, .key = 3, .value = 7}, {.kind = Kind::walkNext, .within = 2}}};
  EXPECT_EQ(scenario.text(),
            "Scenario{.conditions = {.storageToggle = true, .memoryToggle = false, .keepRecords = true},\n"
            "         .steps = {\n"
            "             {.kind = Kind::report, .key = 3, .value = 7},\n"
            "             {.kind = Kind::walkNext, .within = 2},\n"
            "         }}\n");
}

// -- Campaigns

Progress campaign(Progress progress, uint64_t seeds, unsigned jobs) {
  Limits limits;
  limits.seeds = seeds;
  auto divergence = Campaign(jobs, [](const std::string&) {}).run(progress, limits, [](const Progress&) {});
  EXPECT_FALSE(divergence);
  return progress;
}

TEST(CampaignTest, StoppedAndGoneOn_ComesToTheSameAsInOneGo) {
  Progress whole = campaign({.first = 5, .next = 5}, 40, 1);
  Progress parts = campaign(campaign({.first = 5, .next = 5}, 17, 2), 23, 2);
  EXPECT_EQ(parts.next, 45U);
  EXPECT_EQ(whole.next, 45U);
  EXPECT_EQ(parts.seeds, whole.seeds);
  EXPECT_EQ(parts.events, whole.events);
  EXPECT_EQ(parts.publications, whole.publications);
}

TEST(ProgressFileTest, KeepsProgress) {
  Support::TempDir dir;
  ProgressFile file(dir.file("progress"));
  EXPECT_FALSE(file.read(std::nullopt));
  file.write(
      {.first = 3, .next = 9, .seeds = 6, .events = 4000, .publications = 2000, .twice = 0, .seconds = 1.5});
  auto read = file.read(3);
  ASSERT_TRUE(read);
  EXPECT_EQ(textOf(*read), textOf({.first = 3,
                                   .next = 9,
                                   .seeds = 6,
                                   .events = 4000,
                                   .publications = 2000,
                                   .twice = 0,
                                   .seconds = 1.5}));
  EXPECT_TRUE(file.read(std::nullopt));
  EXPECT_FALSE(file.read(4));  // progress of other campaigns
}

TEST(ProgressFileTest, FileThatIsSomethingElse) {
  Support::TempDir dir;
  ProgressFile file(dir.write("progress", "{\"first\": \"x\"}"));
  std::string message = thrown<std::runtime_error>([&] { static_cast<void>(file.read(std::nullopt)); });
  EXPECT_NE(message.find("expected the progress of an earlier simulation"), std::string::npos) << message;
}

}  // namespace
}  // namespace Simulation
