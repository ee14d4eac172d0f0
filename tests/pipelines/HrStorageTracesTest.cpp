// How the storage pipeline scans: its tasks, its traces, its attributes, and what ends the process.
#include <gmock/gmock.h>

#include "tests/pipelines/HostFixture.h"
#include "tests/support/Reflection.h"
#include "tests/support/TraceLog.h"

namespace TrelSnmp::Agent::HrStorageTraces {
namespace {

using Lines = std::vector<std::string>;
using DirSm = RivoCode::TrelSnmpHrStorageTableSm::HostResourcesDirSm0;
using HrStoragePipeline = HostPipeline;

constexpr const char* kSm = "TrelSnmpHrStorageTableSm";
std::string line(int level, const std::string& text) { return TraceLog::line(kSm, level, text); }

std::string mountElement(const std::string& dirKey, const std::string& mountpt,
                         const std::string& storageOpt) {
  return line(7, fmt::format("mountStream = from( hostResourcesDir.entityPtr< HostResources::HostResources "
                             ">[].storageInfoTable[] ): dirKey={} mountpt={} storageOpt={}",
                             dirKey, mountpt, storageOpt));
}
std::string memElement(const std::string& dirKey, const std::string& memInfoOpt) {
  return line(7, fmt::format("memStream = from( hostResourcesDir.entityPtr< HostResources::HostResources "
                             ">[].memInfo ): dirKey={} memInfoOpt={}",
                             dirKey, memInfoOpt));
}

TEST_F(HrStoragePipeline, EntityOfAnotherType_HasNoRowsAndIsTraced) {
  world.mapMount("/", 31);
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  TraceLog traces{kSm};
  world.dir->entityPtrIs("1", Zavro::makePtr<Kor::Dir>("1"));
  EXPECT_EQ(world.storageRows(), "[ ]");
  EXPECT_TRUE(traces.contains(line(1,
                                   "dynamic cast to type ::HostResources::HostResources::RawPtrConst from "
                                   "Kor::Entity::PtrConst failed. ")));
}

TEST_F(HrStoragePipeline, OutputWaitsForBothStreams) {
  world.mapMemory(1, 1);
  for (const char* key : {"1", "2", "3"}) world.mounts(key, "/", 60);
  world.mib->trelHrStorageTableIs(trelHrStorageEntryMemFactory({9, 9}, {}, "", nullptr));
  world.startStorage();
  auto& dirSm = dynamic_cast<DirSm&>(*world.storageSm->machines()[0]);
  world.scheduler.yieldWhen([&] { return dirSm.inTask(1); });
  const auto& scans = world.storageSm->inputSmScanState();
  while (!world.storageSm->initialScanDone() || Kor::attribute(scans, "mountStreamScan") == "false") {
    ASSERT_TRUE(world.scheduler.step());
  }
  EXPECT_EQ(Kor::attribute(scans, "memStreamScan"), "false");
  EXPECT_FALSE(world.storageSm->ready());
  EXPECT_NE(world.mib->trelHrStorageTable({9, 9}), nullptr);
  world.scheduler.drain();
  EXPECT_TRUE(world.storageSm->ready());
  EXPECT_TRUE(world.storageSm->idle());
  EXPECT_EQ(world.storageRows(), "[ ]");
}

TEST_F(HrStoragePipeline, TasksAndTheirNames) {
  world.startStorage();
  std::string names;
  for (const Vem::Task* task : world.scheduler.get()->tasks()) names += task->name() + "\n";
  EXPECT_EQ(names,
            "TrelSnmpHrStorageTableSm-trelMibTrelHrStorageTableOutputTask\n"
            "TrelSnmp::Agent::TrelSnmpHrStorageTableSm-HostResourcesDirSm0InputScanTask0\n"
            "TrelSnmp::Agent::TrelSnmpHrStorageTableSm-HostResourcesDirSm0InputScanTask1\n");
}

TEST_F(HrStoragePipeline, SynchronousStart_GoldenTrace) {
  world.mapMount("/", 31);
  world.mapMemory(7, 1);
  world.mounts("1", "/", 60);
  world.mounts("1", "/unmapped", 60);
  world.remembers("1", 400);
  TraceLog traces{kSm};
  world.startStorage(Rvx::Mode::synchronous);
  std::string storage = Kor::optText(*world.member("1")->storageInfoTable().find("/"));
  std::string memory = Kor::optText(world.member("1")->memInfo());
  EXPECT_EQ(
      traces.lines(),
      (Lines{line(9,
                  "nobody declared that mountEntries[] follows entityPtr< HostResources::HostResources "
                  ">[].storageInfoTable[]"),
             line(9,
                  "nobody declared that memEntries[] follows entityPtr< HostResources::HostResources "
                  ">[].memInfo"),
             line(9, "Reconciling trelMibTrelHrStorageTableOutput: false"),
             line(9, "create local SMs"),
             line(8, "k: 1"),
             line(8, "/"),
             line(8, "/unmapped"),
             line(9, "EntityPtrSm1 initial scan, and parent scan, complete."),
             line(8, "memInfo"),
             line(9, "EntityPtrSm1 initial scan, and parent scan, complete."),
             line(9, "HostResourcesDirSm0 initial scan, and parent scan, complete."),
             line(8, "k: 1"),
             line(9, "HostResourcesDirSm0 initial scan, and parent scan, complete."),
             line(9, "initialized"),
             line(9, "Initial scan done for child SMs. Now scanning with events triggered."),
             line(8, "k: 1"),
             line(8, "/"),
             mountElement("1", "/", storage),
             line(7,
                  "into( trelMib.trelHrStorageTable[ key ] ): inserting k1=(trelMemberId=1, "
                  "hrStorageIndex=31), value=((trelMemberId=1, hrStorageIndex=31), 1.3.6.4, /, 512, 100, "
                  "40)"),
             line(8, "/unmapped"),
             mountElement("1", "/unmapped", storage),
             line(6, "filter( storageEntryMappings.mountEntries[ mountpt ] ) failed, terminating pipeline"),
             line(9, "EntityPtrSm1 scan, and parent scan, complete."),
             line(9, "HostResourcesDirSm0 scan, and parent scan, complete."),
             line(8, "k: 1"),
             line(8, "memInfo"),
             memElement("1", memory),
             line(6, " foreach( storageEntryMappings.memEntries ) flattening 1 elements"),
             line(9, "Flattening element: (type=1.3.6.2, description=7, index=1)"),
             line(7,
                  "into( trelMib.trelHrStorageTable[ key ] ): inserting k1=(trelMemberId=1, "
                  "hrStorageIndex=1), value=((trelMemberId=1, hrStorageIndex=1), 1.3.6.2, 7, 1024, 1000, "
                  "600)"),
             line(9, "EntityPtrSm1 scan, and parent scan, complete."),
             line(9, "HostResourcesDirSm0 scan, and parent scan, complete."),
             line(9, "Input scans for trelMibTrelHrStorageTableOutput complete"),
             line(9, " already ready, not reconciling.")}));
}

TEST_F(HrStoragePipeline, Deletions_GoldenTrace) {
  world.mapMount("/", 31);
  world.mapMemory(7, 1);
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  TraceLog traces{kSm};
  world.leaves("1");
  EXPECT_EQ(traces.lines(),
            (Lines{line(8, "k: 1"), mountElement("1", "/", "None"),
                   line(7,
                        "into( trelMib.trelHrStorageTable[ key ] ): deleting k1=(trelMemberId=1, "
                        "hrStorageIndex=31)"),
                   memElement("1", "None"),
                   line(6, " foreach( storageEntryMappings.memEntries ) flattening 1 elements"),
                   line(9, "Flattening element: (type=1.3.6.2, description=7, index=1)"),
                   line(7,
                        "into( trelMib.trelHrStorageTable[ key ] ): deleting k1=(trelMemberId=1, "
                        "hrStorageIndex=1)"),
                   line(8, "k: 1")}));
}

TEST_F(HrStoragePipeline, InitialScanNotDone_SaysWhichStreamIsMissing) {
  world.joins("1");
  world.startStorage();
  TraceLog traces{kSm};
  Kor::invoke(*world.storageSm, "handleInitialScanDone");
  EXPECT_EQ(traces.lines(), (Lines{line(9, " mountStream scan is false"),
                                   line(9, "Initial scan yielding for child SM TrelSnmpHrStorageTableSm.")}));
}

TEST_F(HrStoragePipeline, Attributes_ReadByName) {
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  EXPECT_EQ(world.storageSm->korType().name(), "TrelSnmp::Agent::TrelSnmpHrStorageTableSm");
  EXPECT_EQ(Kor::attribute(*world.storageSm, "trelMibTrelHrStorageTableOutputReady"), "true");
  EXPECT_EQ(Kor::attribute(*world.storageSm, "mountStreamScan"), "true");
  EXPECT_EQ(Kor::attribute(*world.storageSm, "memStreamScan"), "true");
  auto& members = dynamic_cast<DirSm&>(*world.storageSm->machines()[0]);
  EXPECT_EQ(Kor::attribute(members, "versionEntityPtr"), "1");
  auto child = members.child("1");
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(Kor::attribute(*child, "versionStorageInfoTable"), "1");
  EXPECT_EQ(Kor::attribute(*child, "inputScanState0"), "2");
  EXPECT_EQ(Kor::attribute(*child, "inputScanState1"), "2");
  EXPECT_THAT(operationNames(members.korType()),
              testing::ElementsAre("doInputScan", "doDeleteAll", "doInputScan0", "doInputScan1",
                                   "handleEntityPtr0", "handleEntityPtr0Reactor", "onChildEvent0",
                                   "handleEntityPtr1", "handleEntityPtr1Reactor", "onChildEvent1"));
  EXPECT_THAT(operationNames(child->korType()),
              testing::ElementsAre("doInputScan", "doDeleteAll", "doInputScan0", "doInputScan1",
                                   "handleStorageInfoTable0", "handleStorageInfoTable0Reactor",
                                   "handleMemInfo1", "handleMemInfo1Reactor"));
}

using HrStorageDeath = HrStoragePipeline;

TEST_F(HrStorageDeath, NullArguments_EndTheProcess) {
  auto control = world.control();
  auto message = [](const char* argument) {
    return fmt::format(
        "Assertion `{}\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\"",
        argument);
  };
  EXPECT_DEATH(trelSnmpHrStorageTableSmFactory(nullptr, nullptr, nullptr, control),
               message("hostResourcesDir"));
  EXPECT_DEATH(trelSnmpHrStorageTableSmFactory(world.dir, nullptr, nullptr, control), message("trelMib"));
  EXPECT_DEATH(trelSnmpHrStorageTableSmFactory(world.dir, world.mib, nullptr, control),
               message("storageEntryMappings"));
}

TEST_F(HrStorageDeath, EntityDeletedBeforeItsChangeWasHeardOf_EndsTheProcess) {
  auto& entity = world.joins("1");
  auto earlier = entity.storageInfoTable().subscribe([&](const Kor::String&) { world.leaves("1"); });
  world.startStorageAndDrain();
  EXPECT_DEATH(
      world.mounts("1", "/", 1),
      "We missed notifications that happened to storageInfoTable before the enclosing entity got deleted");
}

TEST_F(HrStorageDeath, RowUnderAnotherKeyThanItsOwn_EndsTheProcess) {
  auto row = RivoCode::TrelSnmpHrStorageTableSm::rowOf(
      trelHrStorageEntryMountFactory({1, 2}, {}, "/", world.storage(1)));
  EXPECT_DEATH(TrelSnmpHrStorageTableSm::StorageRows::write(*world.mib, {1, 3}, row),
               "In \"into\\( trelMib.trelHrStorageTable\\[ key \\] \\)\" the value inserted in the into "
               "statement has internal key: \\(trelMemberId=1, hrStorageIndex=2\\), but the key specified in "
               "the into is: \\(trelMemberId=1, hrStorageIndex=3\\)");
}

TEST_F(HrStorageDeath, RecordThatIsNoRow_EndsTheProcess) {
  using RivoCode::TrelSnmpHrStorageTableSm::rowOf;
  EXPECT_DEATH(rowOf(Zavro::Ptr<const TrelHrStorageEntryMount>()),
               "_tmpCast26_ && \"dynamic cast to TrelSnmp::TrelHrStorageEntry::PtrConst from "
               "TrelSnmp::TrelHrStorageEntryMount::PtrConst failed\"");
  EXPECT_DEATH(rowOf(Zavro::Ptr<const TrelHrStorageEntryMem>()),
               "_tmpCast14_ && \"dynamic cast to TrelSnmp::TrelHrStorageEntry::PtrConst from "
               "TrelSnmp::TrelHrStorageEntryMem::PtrConst failed\"");
}

}  // namespace
}  // namespace TrelSnmp::Agent::HrStorageTraces
