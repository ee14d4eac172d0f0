// This machine's file systems as they are published: figures, rows, and the indexes that are kept, with time
// and work driven by hand.
#include <gmock/gmock.h>

#include <filesystem>

#include "LocalSource.h"
#include "ManualMachine.h"
#include "Text.h"
#include "kelstore/World.h"
#include "support/TempDir.h"
#include "support/TraceLog.h"

namespace Member {
namespace {

using Kelstore::World;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kSecond = 1000;

// A process: a store and its sources, of which the first two are what others say and the last is local, as
// member 7.
class Life {
 public:
  Life(std::shared_ptr<ManualMachine> machine, Zavro::ManualClock& clock, const std::string& indexFile,
       const std::string& others = "{}", bool indexesHang = false, const std::string& earlier = "{}")
      : io(clock), world(0) {
    auto first = world.store.layerIs();
    others_ = world.store.layerIs();
    world.submit(earlier, first);
    world.store.settledIs(first);
    source.emplace(LocalSource::Settings{7, 5, indexFile}, std::move(machine), world.store, io, clock);
    says(others);
    source->start();
    if (indexesHang) io.hangFirst();  // it is what is asked for first
    pass(0);
  }
  // What other sources say, and what is notified at once.
  std::string says(const std::string& others) { return world.says(others, others_); }
  std::string pass(uint64_t milliseconds) {
    io.advance(milliseconds);
    return world.drained();
  }

  // "/=100/40 /var=10/1", size and free.
  std::string figures() const {
    std::string text;
    auto host = world.host("7");
    if (!host) return "no member";
    for (auto at = host->storageInfoTable().begin(); at; at.next()) {
      const auto& record = *at.value();
      text += fmt::format("{}{}={}/{}", text.empty() ? "" : " ", at.key(), record->size(), record->free());
    }
    return text;
  }
  // "/=1001 /var=1002"
  std::string rows() const {
    std::string text;
    for (auto at = world.mappings().mountEntries().begin(); at; at.next()) {
      text += fmt::format("{}{}={}", text.empty() ? "" : " ", at.key(), at.value()->index);
    }
    return text;
  }
  // "1=1 2=2", of the kinds of memory.
  std::string memoryRows() const {
    std::map<int32_t, uint32_t> rows;
    for (auto at = world.mappings().memEntries().begin(); at; at.next()) rows[at.key()] = at.value()->index;
    std::string text;
    for (const auto& [memory, index] : rows) {
      text += fmt::format("{}{}={}", text.empty() ? "" : " ", memory, index);
    }
    return text;
  }
  std::vector<std::string> troubles() const {
    std::vector<std::string> all;
    for (const auto& one : source->status().collectors) {
      if (one.state == Collector::State::works) continue;
      all.push_back(fmt::format("{} {}: {}", one.name, stateName(one.state), one.error));
    }
    return all;
  }

  Kelstore::ManualIo io;
  World world;
  std::optional<LocalSource> source;

 private:
  Kelstore::Store::Layer others_;
};

class LocalStorageTest : public testing::Test {
 protected:
  // Something is mounted there, anew if something was.
  void mount(const std::string& point, Room room, MountKind kind = MountKind::fixedDisk) {
    unmount(point);
    table().push_back({point, kind, ++lastId_});
    machine_->rooms[point] = room;
  }
  void unmount(const std::string& point) {
    std::erase_if(table(), [&](const Mount& mount) { return mount.point == point; });
  }
  std::vector<Mount>& table() { return std::get<std::vector<Mount>>(machine_->mounted); }
  // The process ends and starts again.
  Life& restart(const std::string& others = "{}") {
    life_.reset();
    return life_.emplace(machine_, clock_, indexFile_, others);
  }
  // What is notified until the next look is over.
  std::string look() { return life_->pass(5 * kSecond); }

  Support::TempDir dir_;
  std::string indexFile_ = dir_.file("indexes.json");
  Zavro::ManualClock clock_{1'000'000'000'000};
  std::shared_ptr<ManualMachine> machine_ = std::make_shared<ManualMachine>();
  uint64_t lastId_ = 20;
  std::optional<Life> life_;
  TraceLog trace_{{"Member"}};
};

TEST_F(LocalStorageTest, EachMountHasFiguresAndARow) {
  mount("/", {4096, 100, 40});
  mount("/var", {512, 10, 1});
  restart();
  EXPECT_EQ(life_->figures(), "/=100/40 /var=10/1");
  EXPECT_EQ(life_->rows(), "/=1001 /var=1002");
  const auto& row = *life_->world.mappings().mountEntries().find("/var");
  EXPECT_EQ(row.type.text(), "1.3.6.1.2.1.25.2.1.4");
  EXPECT_EQ(row.description, "/var");
  EXPECT_THAT(life_->troubles(), IsEmpty());
  EXPECT_THAT(trace_.lines(), IsEmpty());
}

TEST_F(LocalStorageTest, MappingsAreThereBeforeTheFigures) {
  mount("/", {4096, 100, 40});
  restart();
  mount("/var", {4096, 10, 1});
  EXPECT_EQ(look(), "mount[/var] 7.storage[/var]");
}

TEST_F(LocalStorageTest, RoomChanges_OneNewRecord_UnchangedOnesStay) {
  mount("/", {4096, 100, 40});
  mount("/var", {4096, 10, 1});
  restart();
  look();
  machine_->rooms["/"] = Room{4096, 100, 39};
  EXPECT_EQ(look(), "7.storage[/]");
  EXPECT_EQ(life_->figures(), "/=100/39 /var=10/1");
}

TEST_F(LocalStorageTest, NothingIsMounted_TheMemberIsThereWithoutFileSystems) {
  restart();
  EXPECT_EQ(life_->figures(), "");
  EXPECT_EQ(life_->rows(), "");
}

TEST_F(LocalStorageTest, FileSystemWithoutRoom_IsNotShown) {
  mount("/", {4096, 100, 40});
  mount("/portal", {4096, 0, 0});
  restart();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_EQ(life_->rows(), "/=1001");
}

// Its mapping used to stay, and with it those of all mounts that ever were.
TEST_F(LocalStorageTest, Unmounted_ItsFiguresAndItsMappingGo_ItsIndexIsKeptForIt) {
  mount("/", {4096, 100, 40});
  mount("/var", {4096, 10, 1});
  restart();
  unmount("/var");
  look();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_EQ(life_->rows(), "/=1001");
  mount("/data", {4096, 20, 2});
  mount("/var", {4096, 30, 3});
  look();
  EXPECT_EQ(life_->figures(), "/=100/40 /data=20/2 /var=30/3");
  EXPECT_EQ(life_->rows(), "/=1001 /data=1003 /var=1002");
}

TEST_F(LocalStorageTest, FailsAfterItHadFigures_MappingStays) {
  mount("/net", {4096, 10, 1});
  restart();
  machine_->rooms["/net"] = Failure{"/net: Stale file handle"};
  look();
  EXPECT_EQ(life_->rows(), "/net=1001");
}

TEST_F(LocalStorageTest, MoreMountsComeAndGoThanAreRemembered_TheFileHoldsSoMany_ThoseThatAreThereIncluded) {
  std::string mounts;
  for (size_t i = 0; i < StorageIndexes::kMaxMountPoints; ++i) {
    mounts += fmt::format(R"({}"/m{}": {})", i == 0 ? "" : ", ", i, StorageIndexes::kFirst + i);
  }
  dir_.write("indexes.json", fmt::format(R"({{"version": 1, "mounts": {{{}}}}})", mounts));
  mount("/m0", {4096, 100, 40});
  mount("/m1", {4096, 100, 40});
  restart();
  unmount("/m1");
  mount("/new", {4096, 100, 40});
  look();
  auto kept = std::get<KeptIndexes>(readIndexes(indexFile_)).indexes;
  EXPECT_EQ(kept.size(), StorageIndexes::kMaxMountPoints);
  EXPECT_TRUE(kept.contains("/m0"));
  EXPECT_FALSE(kept.contains("/m1"));
  EXPECT_TRUE(kept.contains("/new"));
}

TEST_F(LocalStorageTest, AnotherKindIsMountedThere_TheRowSaysSo) {
  mount("/media", {4096, 100, 40});
  restart();
  mount("/media", {2048, 7, 0}, MountKind::compactDisc);
  look();
  EXPECT_EQ(life_->figures(), "/media=7/0");
  EXPECT_EQ(life_->world.mappings().mountEntries().find("/media")->type.text(), "1.3.6.1.2.1.25.2.1.7");
}

TEST_F(LocalStorageTest, MountHangs_ItsFiguresStay_TheOthersGoOn_AndItIsNotAskedAgain) {
  mount("/", {4096, 100, 40});
  mount("/net", {4096, 10, 1}, MountKind::networkDisk);
  restart();
  machine_->hanging = {"mount /net"};
  machine_->rooms["/"] = Room{4096, 100, 30};
  life_->pass(30 * kSecond);
  EXPECT_EQ(life_->figures(), "/=100/30 /net=10/1");
  EXPECT_THAT(life_->troubles(), ElementsAre("mount /net hangs: no answer for 3 s"));
  EXPECT_EQ(machine_->asked["mount /net"], 2);
  machine_->hanging = {};
  machine_->rooms["/net"] = Room{4096, 10, 5};
  life_->io.hungReturn();
  EXPECT_EQ(life_->pass(0), "7.storage[/net]");
  EXPECT_THAT(life_->troubles(), IsEmpty());
}

TEST_F(LocalStorageTest, MountHangsFromTheStart_TheOthersAreServedAfterItsPatience) {
  mount("/", {4096, 100, 40});
  for (const char* point : {"/n1", "/n2", "/n3", "/n4", "/n5"}) {
    mount(point, {4096, 10, 1});
    machine_->hanging.insert(std::string("mount ") + point);
  }
  restart();
  EXPECT_EQ(life_->figures(), "no member");
  life_->pass(Collector::kPatienceMs);
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_EQ(life_->troubles().size(), 5u);
}

// It used to be shown until it returned, which may be never.
TEST_F(LocalStorageTest, MountHangsAndIsUnmounted_ItGoesAtOnce_AndItsAnswerDoesNotCount) {
  mount("/", {4096, 100, 40});
  mount("/net", {4096, 10, 1});
  restart();
  machine_->hanging = {"mount /net"};
  life_->pass(10 * kSecond);
  unmount("/net");
  look();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_THAT(life_->troubles(), IsEmpty());
  machine_->hanging = {};
  life_->io.hungReturn();
  EXPECT_EQ(life_->pass(0), "");
  EXPECT_EQ(life_->figures(), "/=100/40");
}

// It used to wait for the answer of the one before, which may never come.
TEST_F(LocalStorageTest, AnotherIsMountedWhileTheOldOneHangs_ItIsThereAtOnce_TheOldOnesAnswerDoesNotCount) {
  mount("/net", {4096, 10, 1});
  restart();
  machine_->hanging = {"mount /net"};
  life_->pass(10 * kSecond);
  machine_->hanging = {};
  mount("/net", {4096, 77, 7});
  look();
  EXPECT_EQ(life_->figures(), "/net=77/7");
  EXPECT_THAT(life_->troubles(), IsEmpty());
  machine_->rooms["/net"] = Room{4096, 10, 1};
  life_->io.hungReturn();
  EXPECT_EQ(life_->pass(0), "");
  EXPECT_EQ(life_->figures(), "/net=77/7");
}

TEST_F(LocalStorageTest, MountFails_ItsFiguresStay) {
  mount("/net", {4096, 10, 1});
  restart();
  machine_->rooms["/net"] = Failure{"/net: Stale file handle"};
  look();
  EXPECT_EQ(life_->figures(), "/net=10/1");
  EXPECT_THAT(life_->troubles(), ElementsAre("mount /net fails: /net: Stale file handle"));
}

TEST_F(LocalStorageTest, TableOfMountsFails_TheMountsThatAreKnownAreLookedAtAllTheSame) {
  mount("/", {4096, 100, 40});
  restart();
  machine_->mounted = Failure{"/proc/self/mountinfo: Permission denied"};
  machine_->rooms["/"] = Room{4096, 100, 20};
  look();
  EXPECT_EQ(life_->figures(), "/=100/20");
}

TEST_F(LocalStorageTest, NamesWithBlanksPercentSlashesAndUmlauts) {
  const std::string sizes =
      "/gr\xc3\xb6\xc3\x9f"
      "e/100%/my data";
  mount(sizes, {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->figures(), sizes + "=100/40");
  EXPECT_EQ(life_->world.mappings().mountEntries().find(sizes)->description, sizes);
  restart();
  EXPECT_EQ(life_->rows(), sizes + "=1001");
}

TEST_F(LocalStorageTest, LongName_IsDescribedInAtMost255BytesOfUtf8) {
  std::string name = "/x";
  while (name.size() < 600) name += "\xc3\xb6";
  mount(name, {4096, 100, 40});
  restart();
  std::string description = life_->world.mappings().mountEntries().find(name)->description;
  EXPECT_LE(description.size(), 255u);
  EXPECT_GE(description.size(), 250u);
  EXPECT_TRUE(Kelstore::isUtf8(description));
  EXPECT_THAT(description, testing::EndsWith("\xc3\xb6..."));
}

TEST_F(LocalStorageTest, NameOfAsManyBytesAsADescriptionHas_IsWhole) {
  std::string name = "/" + std::string(254, 'x');
  mount(name, {4096, 100, 40});
  mount(name + "y", {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->world.mappings().mountEntries().find(name)->description, name);
  EXPECT_EQ(life_->world.mappings().mountEntries().find(name + "y")->description,
            name.substr(0, 252) + "...");
}

TEST_F(LocalStorageTest, NameThatIsTooLong_IsLeftOut_WithItsLength) {
  mount("/" + std::string(4096, 'x'), {4096, 100, 40});
  mount("/" + std::string(4095, 'x'), {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->rows(), "/" + std::string(4095, 'x') + "=1001");
  EXPECT_THAT(
      trace_.lines(),
      ElementsAre(testing::EndsWith("xxx...\" is left out: found 4097 bytes, expected at most 4096")));
}

TEST_F(LocalStorageTest, NamesThatTheStateCannotHold_AreLeftOutWithOneLine) {
  mount("/latin1/\xf6", {4096, 100, 40});
  mount("/new\nline", {4096, 100, 40});
  mount("/", {4096, 100, 40});
  restart();
  look();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_THAT(trace_.lines(),
              ElementsAre(HasSubstr("is left out"), HasSubstr("\"/new\\x0aline\" is left out")));
}

TEST_F(LocalStorageTest, OtherSourceHasAMapping_ItIsTheOneThatCounts_AndIfItGoesOursDoes) {
  mount("/", {4096, 100, 40});
  const std::string example =
      R"({"storageMappings": {"mounts": {"/": {"index": 31, "type": "1.3.6.1", "description": "root"}},
                              "memory": {"1": {"index": 1, "type": "1.3.6.1", "description": "RAM"}}}})";
  restart(example);
  EXPECT_EQ(life_->rows(), "/=31");
  EXPECT_EQ(life_->world.mappings().memEntries().find(1)->description, "RAM");
  EXPECT_EQ(life_->world.mappings().memEntries().find(100)->description, "Unavailable memory");
  EXPECT_EQ(life_->says("{}"), "-7.storage[/] mount[/] 7.storage[/] mem[1] 7.memory");
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_EQ(life_->says(example), "-7.storage[/] mount[/] 7.storage[/] mem[1] 7.memory");
}

TEST_F(LocalStorageTest, OtherSourceGaveOurFirstIndexes_WeGiveOthers) {
  mount("/", {4096, 100, 40});
  restart(R"({"storageMappings": {"mounts": {"/srv": {"index": 1001, "type": "1.3.6.1", "description": ""}},
                                  "memory": {"5": {"index": 1002, "type": "1.3.6.1", "description": ""}}}})");
  EXPECT_EQ(life_->rows(), "/=1003 /srv=1001");
}

TEST_F(LocalStorageTest, OtherSourceGivesAnIndexThatWeGave_OursIsAnotherOneAndThatIsSaid) {
  mount("/", {4096, 100, 40});
  restart();
  life_->says(
      R"({"storageMappings": {"mounts": {"/srv": {"index": 1001, "type": "1.3.6.1", "description": ""}}}})");
  look();
  EXPECT_EQ(life_->rows(), "/=1002 /srv=1001");
  EXPECT_THAT(trace_.lines(),
              ElementsAre("Member/1 storage index 1001 is another source's now: \"/\" gets 1002"));
}

// Their rows used to take turns under one index.
TEST_F(LocalStorageTest, OtherSourceGivesAnIndexOfMemory_ToAMountPoint_TheMemoryIsLeftOutAndThatIsSaidOnce) {
  mount("/", {4096, 100, 40});
  const std::string others =
      R"({"storageMappings": {"mounts": {"/": {"index": 1, "type": "1.3.6.1", "description": "root fs"}}}})";
  restart(others);
  EXPECT_EQ(life_->rows(), "/=1");
  EXPECT_EQ(life_->memoryRows(), "2=2 3=3 100=100");
  look();
  EXPECT_THAT(trace_.lines(),
              ElementsAre("Member/1 storage index 1 is another source's: \"Physical memory\" is left out"));
  life_->says("{}");
  look();
  EXPECT_EQ(life_->memoryRows(), "1=1 2=2 3=3 100=100");
  life_->says(others);
  EXPECT_EQ(life_->rows(), "/=1");
  look();
  EXPECT_EQ(life_->memoryRows(), "2=2 3=3 100=100");
  EXPECT_EQ(trace_.lines().size(), 2u);
}

TEST_F(LocalStorageTest, OtherSourceGivesAnIndexOfMemory_ToAnotherKindOfMemory_OursIsLeftOut) {
  restart(R"({"storageMappings": {"memory": {"1": {"index": 2, "type": "1.3.6.1", "description": ""},
                                             "7": {"index": 3, "type": "1.3.6.1", "description": ""}}}})");
  EXPECT_EQ(life_->memoryRows(), "1=2 7=3 100=100");
}

// What an earlier source says of a path does not count where a later one says something else.
TEST_F(LocalStorageTest, IndexOfMemoryIsInAMappingThatDoesNotCount_TheMemoryStays) {
  const std::string earlier =
      R"({"storageMappings": {"mounts": {"/": {"index": 1, "type": "1.3.6.1", "description": ""}}}})";
  const std::string later =
      R"({"storageMappings": {"mounts": {"/": {"index": 31, "type": "1.3.6.1", "description": ""}}}})";
  life_.emplace(machine_, clock_, indexFile_, later, /*indexesHang=*/false, earlier);
  EXPECT_EQ(life_->rows(), "/=31");
  EXPECT_EQ(life_->memoryRows(), "1=1 2=2 3=3 100=100");
}

TEST_F(LocalStorageTest, Restarted_MountPointsHaveTheIndexesThatTheyHad) {
  mount("/b", {4096, 100, 40});
  restart();
  mount("/a", {4096, 100, 40});
  look();
  EXPECT_EQ(life_->rows(), "/a=1002 /b=1001");
  unmount("/b");
  mount("/c", {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->rows(), "/a=1002 /c=1003");
  mount("/b", {4096, 100, 40});
  look();
  EXPECT_EQ(life_->rows(), "/a=1002 /b=1001 /c=1003");
}

TEST_F(LocalStorageTest, NothingNewToKeep_TheFileIsNotWritten) {
  mount("/", {4096, 100, 40});
  restart();
  std::filesystem::remove(indexFile_);
  look();
  look();
  EXPECT_FALSE(std::filesystem::exists(indexFile_));
}

TEST_F(LocalStorageTest, NoIndexFile_IndexesHoldForTheLifeOfTheProcess) {
  indexFile_ = "";
  mount("/", {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_THAT(life_->troubles(), IsEmpty());
}

TEST_F(LocalStorageTest, DamagedIndexFile_IsSaidAndSetAside_AndANewOneKept) {
  dir_.write("indexes.json", "{");
  mount("/", {4096, 100, 40});
  restart();
  EXPECT_THAT(trace_.lines(), ElementsAre("Member/0 " + indexFile_ + ": found no JSON object; set aside as " +
                                          indexFile_ + ".damaged"));
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_EQ(Support::readFile(indexFile_ + ".damaged"), "{");
  EXPECT_THAT(Support::readFile(indexFile_), HasSubstr("1001"));
}

TEST_F(LocalStorageTest, IndexFileThatCannotBeRead_IndexesAreGivenAndTheTroubleIsShown) {
  std::filesystem::create_directory(indexFile_);
  mount("/", {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_THAT(life_->troubles(), ElementsAre("indexes fails: " + indexFile_ + ": found no regular file"));
  look();
  EXPECT_TRUE(std::filesystem::is_directory(indexFile_));
}

TEST_F(LocalStorageTest, IndexFileIsSlow_NoIndexIsGivenBeforeItIsRead) {
  dir_.write("indexes.json", R"({"version": 1, "mounts": {"/": 1500}})");
  mount("/", {4096, 100, 40});
  life_.emplace(machine_, clock_, indexFile_, "{}", /*indexesHang=*/true);
  life_->pass(kSecond);
  EXPECT_EQ(life_->rows(), "");
  life_->io.hungReturn();
  life_->pass(0);
  EXPECT_EQ(life_->rows(), "/=1500");
  EXPECT_THAT(life_->troubles(), IsEmpty());
}

TEST_F(LocalStorageTest, IndexFileHangs_IndexesAreGivenAfterItsPatience_AndItIsLeftAsItIs) {
  const std::string kept = R"({"version": 1, "mounts": {"/": 1500}})";
  dir_.write("indexes.json", kept);
  mount("/", {4096, 100, 40});
  life_.emplace(machine_, clock_, indexFile_, "{}", /*indexesHang=*/true);
  life_->pass(Collector::kPatienceMs);
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_THAT(life_->troubles(), ElementsAre("indexes hangs: no answer for 3 s"));
  life_->io.hungReturn();
  look();
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_EQ(Support::readFile(indexFile_), kept);
  EXPECT_THAT(trace_.lines(), testing::Contains(HasSubstr("took too long to be read")));
}

TEST_F(LocalStorageTest, IndexesCannotBeKept_IsShown_AndTriedAgainAtTheNextLook) {
  indexFile_ = dir_.file("later/indexes.json");
  mount("/", {4096, 100, 40});
  // The directory cannot be made where a link leads nowhere.
  std::filesystem::create_symlink("/nonexistent/elsewhere", dir_.file("later"));
  restart();
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_THAT(life_->troubles(), ElementsAre("indexes fails: " + indexFile_ + ": No such file or directory"));
  std::filesystem::remove(dir_.file("later"));
  look();
  EXPECT_THAT(life_->troubles(), IsEmpty());
  EXPECT_THAT(Support::readFile(indexFile_), HasSubstr("1001"));
}

}  // namespace
}  // namespace Member
