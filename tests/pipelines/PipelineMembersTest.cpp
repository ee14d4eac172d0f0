// What pipelines and their machines show and do by name, what they are made of, and what ends the process.
#include <algorithm>

#include "tests/pipelines/PipelineFrameworkFixture.h"

namespace TrelSnmp::Agent {
namespace {

TEST_F(PipelineFramework, IdleByName_IsDerivedAnewWhileThePipelineLives) {
  world.startAndDrain();
  Zavro::Ptr<InputSmScanState> state(&world.sm->inputSmScanState());
  constexpr size_t kIdle = 1;  // behind the one stream's flag
  state->set(kIdle, false);
  EXPECT_EQ(Kor::attribute(*state, "idle"), "false");
  Kor::invoke(*state, "handleIdle");
  EXPECT_EQ(Kor::attribute(*state, "idle"), "true");
  world.sm.reset();
  state->set(kIdle, false);
  Kor::invoke(*state, "handleIdle");
  EXPECT_EQ(Kor::attribute(*state, "idle"), "false");
}

TEST(PublishedStateTest, ChangesArePublishedByName_SameValueAgainIsNone) {
  PublishedState state("State");
  size_t flag = state.addFlag("flag");
  size_t number = state.addNumber("number");
  std::string published;
  auto subscription = state.subscribe([&](const std::string& field) { published += field + " "; });
  EXPECT_FALSE(state.set(flag, false));
  EXPECT_TRUE(state.set(number, 2));
  EXPECT_TRUE(state.set(flag, true));
  EXPECT_FALSE(state.set(number, 2));
  EXPECT_EQ(published, "number flag ");
  EXPECT_EQ(Kor::attribute(state, "flag") + " " + Kor::attribute(state, "number"), "true 2");
}

TEST(NamesTest, Capitalised_IsAFirstLetterFromAToZ) {
  EXPECT_EQ(capitalised(""), "");
  EXPECT_EQ(capitalised("apple"), "Apple");
  EXPECT_EQ(capitalised("zone"), "Zone");
  EXPECT_EQ(capitalised("Zone"), "Zone");
  EXPECT_EQ(capitalised("`{"), "`{");
  EXPECT_EQ(capitalised("{`"), "{`");
}

TEST_F(PipelineFramework, InitialScanDoneTooEarly_SaysWhatIsMissingAndWaits) {
  world.reports("1", 2, State::reachable);
  world.start();
  traces.clear();
  Kor::invoke(*world.sm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines(),
            (Lines{line(9, " reachabilityStatusStream scan is false"),
                   line(9, "Initial scan yielding for child SM TrelSnmpReachabilityTableSm.")}));
  EXPECT_FALSE(world.sm->initialScanDone());
}

TEST_F(PipelineFramework, InputReadyWhenReady_SaysSo) {
  world.startAndDrain();
  traces.clear();
  Kor::invoke(*world.sm, "handleTrelMibTrelReachabilityTableOutputInputReady");
  EXPECT_EQ(traces.lines(), (Lines{line(9, " already ready, not reconciling.")}));
}

TEST_F(PipelineFramework, DoDeleteAllByName_DeletesEveryRowAndChild) {
  world.reports("1", 2, State::reachable);
  world.reports("2", 1, State::reachable);
  world.startAndDrain();
  Kor::invoke(*world.sm, "doDeleteAll");
  EXPECT_EQ(world.rows(), "[ ]");
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "childSmEntityPtrTrelReachabilityStatusPtrConst"), "0");
}

TEST_F(PipelineFramework, Attributes_ReadByName) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  EXPECT_EQ(world.sm->korType().name(), "TrelSnmp::Agent::TrelSnmpReachabilityTableSm");
  const std::map<std::string, std::string> expected = {
      {"synchronous", "false"},
      {"initialScanDone", "true"},
      {"initialized", "true"},
      {"ready", "true"},
      {"idle", "true"},
      {"taskPriority", "128"},
      {"reachabilityStatusStreamScan", "true"},
      {"trelMibTrelReachabilityTableOutputReady", "true"},
      {"trelMibTrelReachabilityTableOutputReconciling", "false"},
      {"trelMibTrelReachabilityTableOutputUseBookmark", "false"},
      {"trelMibTrelReachabilityTableOutputBookmark", "None"},
      {"trelMibTrelReachabilityTableOutputSeen", "0"},
      {"trelMibTrelReachabilityTableOutputReconciliationTask",
       "TrelSnmpReachabilityTableSm-trelMibTrelReachabilityTableOutputTask"},
  };
  for (const auto& [name, value] : expected) EXPECT_EQ(Kor::attribute(*world.sm, name), value) << name;
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "reachabilityStatusStreamScan"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "idle"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "trelMibTrelReachabilityTableOutputReady"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "ready"), "true");
}

TEST_F(PipelineFramework, Fields_StandInTheirOrder) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"reachabilityDir", "reachabilityDir"},
      {"ifMib", "ifMib"},
      {"trelMib", "trelMib"},
      {"rivoControl", world.sm->rivoControl().text()},
      {"inputSmScanState", "InputSmScanState"},
      {"outputState", "OutputState"},
      {"reachabilityDirSm0", "ReachabilityDirSm0"},
      {"trelMibTrelReachabilityTableOutputSeen", "0"},
      {"trelMibTrelReachabilityTableOutputBookmark", "None"},
      {"trelMibTrelReachabilityTableOutputReconciling", "false"},
      {"trelMibTrelReachabilityTableOutputUseBookmark", "false"},
      {"trelMibTrelReachabilityTableOutputReconciliationTask",
       "TrelSnmpReachabilityTableSm-trelMibTrelReachabilityTableOutputTask"},
      {"taskScheduler", "TaskScheduler"},
      {"taskPriority", "128"},
      {"synchronous", "false"},
      {"initialScanDone", "true"},
      {"initialized", "true"},
  };
  size_t at = 0;
  for (const auto& attribute : world.sm->korType().attributes()) {
    if (at == expected.size() || attribute.name != expected[at].first) continue;
    EXPECT_EQ(Kor::attribute(*world.sm, attribute.name), expected[at].second) << attribute.name;
    ++at;
  }
  EXPECT_EQ(at, expected.size()) << expected[std::min(at, expected.size() - 1)].first;
}

TEST_F(PipelineFramework, HandlersOfMachines_BringUpToDateByName) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Zavro::Ptr<Machine> machine = world.sm->machines()[0];
  auto child = dynamic_cast<RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0&>(*machine).child("1");
  EXPECT_EQ(Kor::attribute(*machine, "initialScanDone"), "true");
  EXPECT_EQ(Kor::attribute(*child, "synchronous"), "false");
  for (const char* operation : {"handleReachabilityStatus0", "handleReachabilityStatus0Reactor"}) {
    world.mib->trelReachabilityTableDel({1, 2});
    Kor::invoke(*child, operation);
    EXPECT_EQ(world.rows(), "[ (1,2)=reachable ]") << operation;
  }
  for (const char* operation : {"handleEntityPtr0", "handleEntityPtr0Reactor"}) {
    traces.clear();
    Kor::invoke(*machine, operation);
    EXPECT_EQ(traces.lines(), Lines{line(8, "1")}) << operation;
  }
}

TEST_F(PipelineFramework, OnChildEventByName_SendsEveryElementOfEveryChildAgain) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::degraded);
  world.reports("2", 1, State::reachable);
  world.startAndDrain();
  Zavro::Ptr<Machine> machine = world.sm->machines()[0];
  const std::string rows = world.rows();
  for (TrelSnmp::MemberIdPair key : {TrelSnmp::MemberIdPair{1, 2}, {1, 3}, {2, 1}}) {
    world.mib->trelReachabilityTableDel(key);
  }
  traces.clear();
  Kor::invoke(*machine, "onChildEvent0");
  EXPECT_EQ(world.rows(), rows);
  for (const char* handled : {"1", "2", "3"}) {
    EXPECT_EQ(std::count(traces.lines().begin(), traces.lines().end(), line(8, handled)), 0) << handled;
  }
}

TEST_F(PipelineFramework, ChangesWhileInactive_AreCounted) {
  world.joins("1");
  world.startAndDrain();
  const Kor::Object& machine = *world.sm->machines()[0];
  EXPECT_EQ(Kor::attribute(machine, "versionEntityPtr"), "1");
  world.sm->hasNotificationActiveIs(false);
  world.joins("2");
  EXPECT_EQ(Kor::attribute(machine, "versionEntityPtr"), "2");
}

TEST_F(PipelineFramework, ChildAttributes_ReadByName) {
  world.reports("1", 2, State::reachable);
  world.reports("1", 3, State::reachable);
  world.startAndDrain();
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  auto child = dynamic_cast<DirSm&>(*world.sm->machines()[0]).child("1");
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(Kor::attribute(*child, "smKey"), "1");
  EXPECT_EQ(Kor::attribute(*child, "inputScanState0"), "2");
  EXPECT_EQ(Kor::attribute(*child, "versionReachabilityStatus"), "2");
  world.reports("1", 3, State::degraded);
  EXPECT_EQ(Kor::attribute(*child, "versionReachabilityStatus"), "3");
}

TEST_F(PipelineFramework, TaskAttributesOfAChild_SayWhetherItsParentsTaskRuns) {
  world.reports("1", 2, State::reachable);
  world.start();
  while (!world.sm->initialScanDone()) ASSERT_TRUE(world.scheduler.step());
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  auto child = dynamic_cast<DirSm&>(*world.sm->machines()[0]).child("1");
  auto read = [&] {
    return Kor::attribute(*child, "inTask0") + " " + Kor::attribute(*child, "shouldYield0");
  };
  EXPECT_EQ(read(), "false true");  // a task that does not run has no time left
  std::string inside;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) { inside = read(); });
  world.scheduler.yieldWhen([] { return false; });
  world.scheduler.drain();
  EXPECT_EQ(inside, "true false");
  EXPECT_EQ(read(), "false false");  // there is no task any more
}

TEST_F(PipelineFramework, SynchronousChild_HasNoTask) {
  world.reports("1", 2, State::reachable);
  world.start(Rvx::Mode::synchronous);
  using DirSm = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  auto child = dynamic_cast<DirSm&>(*world.sm->machines()[0]).child("1");
  EXPECT_EQ(Kor::attribute(*child, "inTask0"), "false");
  EXPECT_EQ(Kor::attribute(*child, "shouldYield0"), "false");
  EXPECT_EQ(Kor::attribute(*world.sm->machines()[0], "task0"), "None");
  EXPECT_EQ(Kor::attribute(*world.sm, "trelMibTrelReachabilityTableOutputReconciliationTask"), "None");
}

TEST_F(PipelineFramework, OperationsByName_LeaveWhatIsDoneAsItIs) {
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  Zavro::Ptr<Machine> machine = world.sm->machines()[0];
  auto child = dynamic_cast<RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0&>(*machine).child("1");
  traces.clear();
  for (const char* operation : {"handleInitialized", "handleInitialScanDone"}) {
    Kor::invoke(*world.sm, operation);
  }
  for (const char* operation : {"doInputScan", "doInputScan0"}) {
    Kor::invoke(*machine, operation);
    Kor::invoke(*child, operation);
  }
  EXPECT_EQ(world.scheduler.drain(), 0U);
  EXPECT_EQ(traces.lines(), Lines());
  world.sm->hasNotificationActiveIs(false);
  Kor::invoke(*machine, "doInputScan");
  EXPECT_EQ(world.scheduler.drain(), 0U);
}

using PipelineDeath = PipelineFramework;

TEST_F(PipelineDeath, NullArguments_EndTheProcess) {
  auto control = world.control();
  EXPECT_DEATH(trelSnmpReachabilityTableSmFactory(nullptr, nullptr, nullptr, control),
               "reachabilityDir\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
  EXPECT_DEATH(
      trelSnmpReachabilityTableSmFactory(world.dir, nullptr, nullptr, control),
      "Assertion `ifMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
  EXPECT_DEATH(
      trelSnmpReachabilityTableSmFactory(world.dir, world.ifMib, nullptr, control),
      "Assertion `trelMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
}

// A subscriber of the MIB object only looks.
TEST_F(PipelineDeath, InputOrPipelineChangedWithinAPublication_EndsTheProcess) {
  const std::pair<const char*, std::function<void()>> changes[] = {
      {"a record is replaced", [&] { world.reports("1", 2, State::disabled); }},
      {"a record is withdrawn", [&] { world.withdraws("1", 2); }},
      {"a member leaves", [&] { world.leaves("1"); }},
      {"the pipeline is dropped", [&] { world.sm.reset(); }},
      {"the pipeline is paused", [&] { world.sm->hasNotificationActiveIs(false); }},
      {"another pipeline is made", [&] { world.makePipeline(); }},
      {"an operation is run by name", [&] { Kor::invoke(*world.sm->machines()[0], "doInputScan0"); }},
  };
  world.reports("1", 2, State::reachable);
  world.startAndDrain();
  for (const auto& [what, change] : changes) {
    auto changing = world.mib->publisher().subscribe([&, make = change](const TrelMib::Change&) { make(); });
    EXPECT_DEATH(world.reports("1", 3, State::reachable), "changed during publication") << what;
  }
}

TEST_F(PipelineDeath, ChildWithoutEntity_EndsTheProcess) {
  world.startAndDrain();
  EXPECT_DEATH(Zavro::makePtr<EntityMachine>(*world.sm, "EntityPtrSm1", nullptr, EntityMachine::Inputs()),
               "en\\(\\) && \"Sm args can only be null if marked as Optional in the SM type declaration\"");
}

// The collection changes, and before the pipeline hears of it another subscriber removes the entity.
TEST_F(PipelineDeath, EntityDeletedBeforeItsChangeWasHeardOf_EndsTheProcess) {
  auto& entity = world.joins("1");
  auto earlier = entity.reachabilityStatus().subscribe([&](const Trel::MemberId&) { world.leaves("1"); });
  world.startAndDrain();
  EXPECT_DEATH(
      world.reports("1", 2, State::reachable),
      "We missed notifications that happened to reachabilityStatus before the enclosing entity got deleted");
}

TEST_F(PipelineDeath, MissedNotificationsDuringTheInitialScan_AreNone) {
  Zavro::Ptr<Trel::ReachabilityStatus> entity(&world.joins("1"));
  auto earlier = entity->reachabilityStatus().subscribe([&](const Trel::MemberId&) { world.leaves("1"); });
  world.start();
  world.reports("1", 2, State::reachable);
  world.scheduler.drain();
  EXPECT_EQ(world.rows(), "[ ]");
}

}  // namespace
}  // namespace TrelSnmp::Agent
