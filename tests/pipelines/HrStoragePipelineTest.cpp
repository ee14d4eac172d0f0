// What the storage table holds as file systems, memory and mappings come, change and go.
#include "tests/pipelines/HostFixture.h"

namespace TrelSnmp::Agent {
namespace {

using HrStoragePipeline = HostPipeline;

TEST_F(HrStoragePipeline, MappedFileSystemsAndMemory_EachHaveARow) {
  world.mapMount("/", 31);
  world.mapMount("/var", 32);
  world.mapMemory(1, 1);
  world.mapMemory(2, 100);
  world.mounts("3", "/", 60);
  world.mounts("3", "/var", 10);
  world.mounts("3", "/unmapped", 10);
  world.remembers("3", 400);
  world.startStorageAndDrain();
  EXPECT_EQ(world.storageRows(), "[ (3,1)=1:600 (3,31)=/:40 (3,32)=/var:90 (3,100)=2:1000 ]");
}

TEST_F(HrStoragePipeline, SameMappingsOnTwoMembers_SameIndexes) {
  world.mapMount("/", 31);
  for (const char* key : {"1", "2"}) world.mounts(key, "/", 60);
  world.startStorageAndDrain();
  EXPECT_EQ(world.storageRows(), "[ (1,31)=/:40 (2,31)=/:40 ]");
}

TEST_F(HrStoragePipeline, RowsAreMadeOfTheMappingAndTheVeryRecord) {
  world.mapMount("/", 31);
  world.mapMemory(-5, 2);
  auto storage = world.storage(1);
  auto memory = world.memory(2);
  world.host("1")->storageInfoTable().set("/", storage);
  world.host("1")->memInfoIs(memory);
  world.startStorageAndDrain();
  auto mount =
      boost::dynamic_pointer_cast<const TrelHrStorageEntryMount>(world.mib->trelHrStorageTable({1, 31}));
  ASSERT_NE(mount, nullptr);
  EXPECT_EQ(mount->storageInfo(), storage);
  EXPECT_EQ(mount->type(), Snmp::ObjectIdentifier("1.3.6.4"));
  EXPECT_EQ(mount->descr(), "/");
  auto mem = boost::dynamic_pointer_cast<const TrelHrStorageEntryMem>(world.mib->trelHrStorageTable({1, 2}));
  ASSERT_NE(mem, nullptr);
  EXPECT_EQ(mem->memInfo(), memory);
  EXPECT_EQ(mem->type(), Snmp::ObjectIdentifier("1.3.6.2"));
  EXPECT_EQ(mem->descr(), "-5");
}

TEST_F(HrStoragePipeline, MappedMountRemoved_ItsRowGoes_UnmappedOneChangesNothing) {
  world.mapMount("/", 31);
  world.mapMount("/var", 32);
  for (const char* mountpt : {"/", "/var", "/unmapped"}) world.mounts("1", mountpt, 60);
  world.startStorageAndDrain();
  HostPublications published(*world.mib);
  world.member("1")->storageInfoTable().del("/unmapped");
  EXPECT_EQ(published.take(), "");
  world.member("1")->storageInfoTable().del("/");
  EXPECT_EQ(published.take(), "-storage(1,31) ");
  EXPECT_EQ(world.storageRows(), "[ (1,32)=/var:40 ]");
}

TEST_F(HrStoragePipeline, EveryEventReplacesTheRowWhole_AlsoForTheSameRecord) {
  world.mapMount("/", 31);
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  auto before = world.mib->trelHrStorageTable({1, 31});
  HostPublications published(*world.mib);
  auto& storage = world.member("1")->storageInfoTable();
  storage.set("/", *storage.find("/"));
  EXPECT_EQ(published.take(), "+storage(1,31) ");
  EXPECT_NE(world.mib->trelHrStorageTable({1, 31}), before);
}

TEST_F(HrStoragePipeline, ChangedMemory_RewritesEveryMemoryRowOfThatMember) {
  world.mapMemory(1, 1);
  world.mapMemory(2, 2);
  world.mapMount("/", 31);
  world.mounts("1", "/", 60);
  for (const char* key : {"1", "2"}) world.remembers(key, 400);
  world.startStorageAndDrain();
  HostPublications published(*world.mib);
  world.remembers("1", 300);
  EXPECT_EQ(published.take(), "+storage(1,1) +storage(1,2) ");
  EXPECT_EQ(world.storageRows(), "[ (1,1)=1:700 (1,2)=2:1000 (1,31)=/:40 (2,1)=1:600 (2,2)=2:1000 ]");
  world.member("1")->memInfoIs(nullptr);
  EXPECT_EQ(published.take(), "-storage(1,1) -storage(1,2) ");
}

TEST_F(HrStoragePipeline, MappingThatComesLate_TakesEffectWithTheNextRecord) {
  world.mounts("1", "/", 60);
  world.remembers("1", 400);
  world.startStorageAndDrain();
  world.mapMount("/", 31);
  world.mapMemory(1, 1);
  EXPECT_EQ(world.storageRows(), "[ ]");
  world.mounts("1", "/", 50);
  EXPECT_EQ(world.storageRows(), "[ (1,31)=/:50 ]");
  world.remembers("1", 300);
  EXPECT_EQ(world.storageRows(), "[ (1,1)=1:700 (1,31)=/:50 ]");
}

TEST_F(HrStoragePipeline, MappingThatComesLate_TakesEffectAtTheNextStart) {
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  world.mapMount("/", 31);
  world.startStorage();
  world.scheduler.drain();
  EXPECT_EQ(world.storageRows(), "[ (1,31)=/:40 ]");
}

TEST_F(HrStoragePipeline, MappingThatWent_LeavesItsRowToReconciliation) {
  world.mapMount("/", 31);
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  world.mappings->mountEntries().del("/");
  world.member("1")->storageInfoTable().del("/");
  EXPECT_EQ(world.storageRows(), "[ (1,31)=/:40 ]");
  world.startStorage();
  world.scheduler.drain();
  EXPECT_EQ(world.storageRows(), "[ ]");
}

TEST_F(HrStoragePipeline, NoMemoryMappings_MemoryWritesAndDeletesNothing) {
  world.remembers("1", 400);
  world.mib->trelHrStorageTableIs(trelHrStorageEntryMemFactory({1, 1}, {}, "", nullptr));
  world.startStorage();
  while (!world.storageSm->initialScanDone()) world.scheduler.step();
  HostPublications published(*world.mib);
  world.member("1")->memInfoIs(nullptr);
  EXPECT_EQ(published.take(), "");
}

TEST_F(HrStoragePipeline, MemberLeaves_MountRowsThenMemoryRowsVanish_OthersStay) {
  world.mapMount("/", 31);
  world.mapMount("/var", 30);
  world.mapMemory(1, 1);
  for (const char* key : {"1", "2"}) {
    world.mounts(key, "/", 60);
    world.mounts(key, "/var", 60);
    world.mounts(key, "/unmapped", 60);
    world.remembers(key, 400);
  }
  world.startStorageAndDrain();
  HostPublications published(*world.mib);
  world.leaves("1");
  EXPECT_EQ(published.take(), "-storage(1,31) -storage(1,30) -storage(1,1) ");
  EXPECT_EQ(world.storageRows(), "[ (2,1)=1:600 (2,30)=/var:40 (2,31)=/:40 ]");
}

TEST_F(HrStoragePipeline, EntityReplaced_OldRowsGoBeforeNewOnesCome) {
  world.mapMount("/", 31);
  world.mapMemory(1, 1);
  world.mounts("1", "/", 60);
  world.remembers("1", 400);
  world.startStorageAndDrain();
  HostPublications published(*world.mib);
  world.replacedAlike("1");
  EXPECT_EQ(published.take(), "-storage(1,31) -storage(1,1) +storage(1,31) +storage(1,1) ");
}

TEST_F(HrStoragePipeline, MountPointsOfAnySpelling_ReachTheTable) {
  const char* const mountpts[] = {"/mnt/my disk", "/mnt/100%", "/mnt/\xC3\xA4\xC3\xB6", "", "relative"};
  uint32_t index = 1;
  for (const char* mountpt : mountpts) {
    world.mapMount(mountpt, index++);
    world.mounts("1", mountpt, 0);
  }
  world.startStorageAndDrain();
  EXPECT_EQ(world.storageRows(),
            "[ (1,1)=/mnt/my disk:100 (1,2)=/mnt/100%:100 (1,3)=/mnt/\xC3\xA4\xC3\xB6:100 (1,4)=:100 "
            "(1,5)=relative:100 ]");
}

TEST_F(HrStoragePipeline, IndexesAtTheEdge_ReachTheTable) {
  world.mapMount("/a", 0);
  world.mapMount("/b", 0xFFFFFFFF);
  for (const char* mountpt : {"/a", "/b"}) world.mounts("255", mountpt, 60);
  world.startStorageAndDrain();
  EXPECT_EQ(world.storageRows(), "[ (255,0)=/a:40 (255,4294967295)=/b:40 ]");
}

TEST_F(HrStoragePipeline, RowsOfAnEarlierLife_GoUnlessOneOfTheStreamsProducesThem) {
  world.mapMount("/", 31);
  world.mapMount("/gone", 32);
  world.mapMemory(1, 1);
  world.mounts("1", "/", 60);
  world.remembers("1", 400);
  for (uint32_t index : std::initializer_list<uint32_t>{1, 2, 31, 32, 33}) {
    world.mib->trelHrStorageTableIs(trelHrStorageEntryMemFactory({1, index}, {}, "", nullptr));
  }
  HostPublications published(*world.mib);
  world.startStorageAndDrain();
  EXPECT_EQ(published.take(), "+storage(1,31) +storage(1,1) -storage(1,2) -storage(1,32) -storage(1,33) ");
  EXPECT_EQ(world.storageRows(), "[ (1,1)=1:600 (1,31)=/:40 ]");
}

TEST_F(HrStoragePipeline, EventsBeforeTheInitialScanIsDone_WriteNothing) {
  world.mapMount("/", 31);
  world.mapMemory(1, 1);
  world.startStorage();
  world.storageSm->eventToMountStream("5", "/", world.storage(1));
  world.storageSm->eventToMemStream("5", world.memory(1));
  EXPECT_EQ(world.storageRows(), "[ ]");
}

TEST_F(HrStoragePipeline, DoDeleteAllByName_DeletesEveryRow) {
  world.mapMount("/", 31);
  world.mapMemory(1, 1);
  world.mounts("1", "/", 60);
  world.remembers("2", 60);
  world.startStorageAndDrain();
  Kor::invoke(*world.storageSm, "doDeleteAll");
  EXPECT_EQ(world.storageRows(), "[ ]");
}

TEST_F(HrStoragePipeline, Dropped_TakesItsRowsAlongAndHoldsNothing) {
  world.mapMount("/", 31);
  world.mapMemory(1, 1);
  world.mounts("1", "/", 60);
  world.remembers("1", 60);
  world.startStorageAndDrain();
  world.storageSm.reset();
  EXPECT_EQ(world.storageRows(), "[ ]");
  EXPECT_EQ(world.dir->useCount(), 1U);
  EXPECT_EQ(world.mib->useCount(), 1U);
  EXPECT_EQ(world.mappings->useCount(), 1U);
  EXPECT_EQ(world.member("1")->storageInfoTable().subscribers(), 0U);
  EXPECT_EQ(world.mappings->mountEntries().subscribers(), 0U);
  EXPECT_TRUE(world.scheduler.get()->tasks().empty());
}

TEST_F(HrStoragePipeline, Mappings_AreNotFollowed) {
  world.startStorageAndDrain();
  EXPECT_EQ(world.mappings->mountEntries().subscribers(), 0U);
  EXPECT_EQ(world.mappings->memEntries().subscribers(), 0U);
}

TEST_F(HrStoragePipeline, WhileInactive_ChangesWaitUntilItIsActiveAgain) {
  world.mapMount("/", 31);
  world.mapMemory(1, 1);
  world.mounts("1", "/", 60);
  world.startStorageAndDrain();
  world.storageSm->hasNotificationActiveIs(false);
  world.mounts("1", "/", 50);
  world.remembers("1", 400);
  EXPECT_EQ(world.storageRows(), "[ (1,31)=/:40 ]");
  world.storageSm->hasNotificationActiveIs(true);
  EXPECT_EQ(world.storageRows(), "[ (1,1)=1:600 (1,31)=/:50 ]");
}

}  // namespace
}  // namespace TrelSnmp::Agent
