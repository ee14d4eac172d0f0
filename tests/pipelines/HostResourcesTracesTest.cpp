// How the pipeline of the system and the processor table scans: its tasks, its traces, its attributes, and
// what ends the process.
#include <gmock/gmock.h>

#include "tests/pipelines/HostFixture.h"
#include "tests/support/Reflection.h"
#include "tests/support/TraceLog.h"

namespace TrelSnmp::Agent::HostResourcesTraces {
namespace {

using Lines = std::vector<std::string>;
using DirSm = RivoCode::TrelSnmpHostResourcesSm::HostResourcesDirSm0;
using HostResourcesPipeline = HostPipeline;

constexpr const char* kSm = "TrelSnmpHostResourcesSm";
std::string line(int level, const std::string& text) { return TraceLog::line(kSm, level, text); }

std::string systemElement(const std::string& dirKey, const std::string& hrOpt) {
  return line(7,
              "hrSystemTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[] ): "
              "dirKey=" +
                  dirKey + " hrOpt=" + hrOpt);
}
std::string processorElement(const std::string& dirKey, int index, const std::string& processorOpt) {
  return line(7, fmt::format("processorTableStream = from( hostResourcesDir.entityPtr< "
                             "HostResources::HostResources >[].processorTable[] ): dirKey={} "
                             "processorIndex={} processorOpt={}",
                             dirKey, index, processorOpt));
}

TEST_F(HostResourcesPipeline, EntityOfAnotherType_HasNoRowsAndIsTracedOnce) {
  world.load("1", 0, 7);
  world.startAndDrain();
  TraceLog traces{kSm};
  world.dir->entityPtrIs("1", Zavro::makePtr<Kor::Dir>("1"));
  EXPECT_EQ(world.systemRows(), "[ ]");
  EXPECT_EQ(world.processorRows(), "[ ]");
  EXPECT_EQ(traces.count(line(1,
                              "dynamic cast to type ::HostResources::HostResources::RawPtrConst from "
                              "Kor::Entity::PtrConst failed. ")),
            1U);
  world.load("1", 0, 8);
  EXPECT_EQ(world.processorRows(), "[ (1,0)=8 ]");
}

// One table is whole, its stale rows gone, while the other has not been scanned to its end.
TEST_F(HostResourcesPipeline, OneTableReadyAndReconciled_WhileTheOthersScanRuns) {
  for (uint32_t i = 0; i < 8; ++i) world.load("1", i, 1);
  world.mib->trelHrSystemTableIs(9, nullptr);
  world.mib->trelProcessorTableIs({9, 0}, nullptr);
  world.start();
  const auto& outputs = *world.sm;
  while (!outputs.trelMibTrelHrSystemTableOutput().ready()) ASSERT_TRUE(world.scheduler.step());
  EXPECT_EQ(world.systemRows(), "[ 1 ]");
  EXPECT_FALSE(outputs.trelMibTrelProcessorTableOutput().ready());
  EXPECT_TRUE(outputs.trelMibTrelProcessorTableOutput().reconciling());
  EXPECT_NE(world.mib->trelProcessorTable({9, 0}), nullptr);
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "hrSystemTableStreamScan"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->inputSmScanState(), "processorTableStreamScan"), "false");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "trelMibTrelHrSystemTableOutputReady"), "true");
  EXPECT_EQ(Kor::attribute(world.sm->outputState(), "trelMibTrelProcessorTableOutputReady"), "false");
  EXPECT_FALSE(world.sm->ready());
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->ready());
  EXPECT_EQ(world.mib->trelProcessorTable({9, 0}), nullptr);
}

TEST_F(HostResourcesPipeline, ProcessorTableReady_WhileTheSystemTableWaits) {
  for (const char* key : {"1", "2", "3"}) world.joins(key);
  world.start();
  // Only the directory's own stream has to yield.
  auto& dirSm = dynamic_cast<DirSm&>(*world.sm->machines()[0]);
  world.scheduler.yieldWhen([&] { return dirSm.inTask(0); });
  while (!world.sm->trelMibTrelProcessorTableOutput().ready()) ASSERT_TRUE(world.scheduler.step());
  EXPECT_FALSE(world.sm->trelMibTrelHrSystemTableOutput().ready());
  EXPECT_FALSE(world.sm->ready());
  world.scheduler.drain();
  EXPECT_TRUE(world.sm->ready());
  EXPECT_EQ(world.systemRows(), "[ 1 2 3 ]");
}

TEST_F(HostResourcesPipeline, TasksAndTheirNames) {
  world.start();
  std::string names;
  for (const Vem::Task* task : world.scheduler.get()->tasks()) names += task->name() + "\n";
  EXPECT_EQ(names,
            "TrelSnmpHostResourcesSm-trelMibTrelHrSystemTableOutputTask\n"
            "TrelSnmpHostResourcesSm-trelMibTrelProcessorTableOutputTask\n"
            "TrelSnmp::Agent::TrelSnmpHostResourcesSm-HostResourcesDirSm0InputScanTask0\n"
            "TrelSnmp::Agent::TrelSnmpHostResourcesSm-HostResourcesDirSm0InputScanTask1\n");
}

TEST_F(HostResourcesPipeline, SynchronousStart_GoldenTrace) {
  world.load("1", 2, 7);
  TraceLog traces{kSm};
  world.start(Rvx::Mode::synchronous);
  const std::string host = "Optional( 1 )";
  const std::string processor = "(load=7)";
  const std::string key = "(trelMemberId=1, processorIndex=2)";
  EXPECT_EQ(traces.lines(),
            (Lines{line(9, "Reconciling trelMibTrelHrSystemTableOutput: false"),
                   line(9, "Reconciling trelMibTrelProcessorTableOutput: false"),
                   line(9, "create local SMs"),
                   line(8, "k: 1"),
                   line(9, "HostResourcesDirSm0 initial scan, and parent scan, complete."),
                   line(8, "k: 1"),
                   line(8, "2"),
                   line(9, "EntityPtrSm1 initial scan, and parent scan, complete."),
                   line(9, "HostResourcesDirSm0 initial scan, and parent scan, complete."),
                   line(9, "initialized"),
                   line(9, "Initial scan done for child SMs. Now scanning with events triggered."),
                   line(8, "k: 1"),
                   systemElement("1", host),
                   line(7, "into( trelMib.trelHrSystemTable[ key ] ): inserting k1=1, value=1"),
                   line(9, "HostResourcesDirSm0 scan, and parent scan, complete."),
                   line(9, "Input scans for trelMibTrelHrSystemTableOutput complete"),
                   line(8, "k: 1"),
                   line(8, "2"),
                   processorElement("1", 2, "Optional( " + processor + " )"),
                   line(7, "into( trelMib.trelProcessorTable[ key ] ): inserting k1=" + key + ", value=(" +
                               key + ", " + processor + ")"),
                   line(9, "EntityPtrSm1 scan, and parent scan, complete."),
                   line(9, "HostResourcesDirSm0 scan, and parent scan, complete."),
                   line(9, " already ready, not reconciling."),
                   line(9, "Input scans for trelMibTrelProcessorTableOutput complete"),
                   line(9, " already ready, not reconciling."),
                   line(9, " already ready, not reconciling."),
                   line(9, " already ready, not reconciling.")}));
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(HostResourcesPipeline, MemberLeaves_GoldenTrace) {
  world.load("1", 2, 7);
  world.startAndDrain();
  TraceLog traces{kSm};
  world.leaves("1");
  EXPECT_EQ(traces.lines(), (Lines{line(8, "k: 1"), systemElement("1", "None"),
                                   line(7, "into( trelMib.trelHrSystemTable[ key ] ): deleting k1=1"),
                                   line(8, "k: 1"), processorElement("1", 2, "None"),
                                   line(7,
                                        "into( trelMib.trelProcessorTable[ key ] ): deleting "
                                        "k1=(trelMemberId=1, processorIndex=2)")}));
}

TEST_F(HostResourcesPipeline, InitialScanNotDone_SaysWhichStreamIsMissing) {
  world.joins("1");
  world.start();
  TraceLog traces{kSm};
  Kor::invoke(*world.sm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines(), (Lines{line(9, " hrSystemTableStream scan is false"),
                                   line(9, "Initial scan yielding for child SM TrelSnmpHostResourcesSm.")}));
  while (Kor::attribute(*world.sm, "hrSystemTableStreamScan") == "false") world.scheduler.step();
  traces.clear();
  Kor::invoke(*world.sm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines().front(), line(9, " processorTableStream scan is false"));
}

TEST_F(HostResourcesPipeline, Attributes_ReadByName) {
  world.load("1", 0, 7);
  world.startAndDrain();
  EXPECT_EQ(world.sm->korType().name(), "TrelSnmp::Agent::TrelSnmpHostResourcesSm");
  for (const char* output : {"trelMibTrelHrSystemTableOutput", "trelMibTrelProcessorTableOutput"}) {
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Ready"), "true");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Reconciling"), "false");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "UseBookmark"), "false");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Bookmark"), "None");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "Seen"), "0");
    EXPECT_EQ(Kor::attribute(*world.sm, std::string(output) + "ReconciliationTask"),
              std::string("TrelSnmpHostResourcesSm-") + output + "Task");
  }
  auto& dirSm = dynamic_cast<DirSm&>(*world.sm->machines()[0]);
  for (const char* stream : {"0", "1"}) {
    EXPECT_EQ(Kor::attribute(dirSm, std::string("inputScanState") + stream), "2");
    EXPECT_EQ(Kor::attribute(dirSm, std::string("inputScanComplete") + stream), "true");
    EXPECT_EQ(Kor::attribute(dirSm, std::string("inTask") + stream), "false");
    EXPECT_EQ(Kor::attribute(dirSm, std::string("shouldYield") + stream), "false");
  }
  EXPECT_EQ(Kor::attribute(dirSm, "versionEntityPtr"), "1");
  world.joins("2");
  EXPECT_EQ(Kor::attribute(dirSm, "versionEntityPtr"), "2");
  auto child = dirSm.child("1");
  ASSERT_NE(child, nullptr);
  Kor::invoke(*child, "doInputScan1");
  EXPECT_EQ(Kor::attribute(*child, "smKey"), "1");
  EXPECT_EQ(Kor::attribute(*child, "versionProcessorTable"), "1");
  EXPECT_EQ(Kor::attribute(*child, "inputScanState1"), "2");
  EXPECT_EQ(Kor::attribute(*child, "inputScanComplete1"), "true");
  EXPECT_EQ(Kor::attribute(*child, "inTask1"), "false");
  EXPECT_EQ(Kor::attribute(*child, "shouldYield1"), "false");
  EXPECT_THAT(operationNames(dirSm.korType()),
              testing::ElementsAre("doInputScan", "doDeleteAll", "doInputScan0", "doInputScan1",
                                   "handleEntityPtr0", "handleEntityPtr0Reactor", "handleEntityPtr1",
                                   "handleEntityPtr1Reactor", "onChildEvent1"));
  EXPECT_THAT(operationNames(child->korType()),
              testing::ElementsAre("doInputScan", "doDeleteAll", "doInputScan1", "handleProcessorTable1",
                                   "handleProcessorTable1Reactor"));
}

using HostResourcesDeath = HostResourcesPipeline;

TEST_F(HostResourcesDeath, NullArguments_EndTheProcess) {
  auto control = world.control();
  EXPECT_DEATH(trelSnmpHostResourcesSmFactory(nullptr, nullptr, control),
               "Assertion `hostResourcesDir\\(\\) && \"Pointer SM args cannot be null unless they are marked "
               "Optional\"");
  EXPECT_DEATH(
      trelSnmpHostResourcesSmFactory(world.dir, nullptr, control),
      "Assertion `trelMib\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"");
}

TEST_F(HostResourcesDeath, EntityDeletedBeforeItsChangeWasHeardOf_EndsTheProcess) {
  auto& entity = world.joins("1");
  auto earlier = entity.processorTable().subscribe([&](uint32_t) { world.leaves("1"); });
  world.startAndDrain();
  EXPECT_DEATH(
      world.load("1", 0, 1),
      "We missed notifications that happened to processorTable before the enclosing entity got deleted");
}

}  // namespace
}  // namespace TrelSnmp::Agent::HostResourcesTraces
