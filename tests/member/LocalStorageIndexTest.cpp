// The indexes of this machine's file systems and memory: beside those that other sources give, and kept from
// one life to the next.
#include <gmock/gmock.h>

#include <filesystem>

#include "tests/member/LocalStorageFixture.h"

namespace Member {
namespace {

using Runtime::kSecond;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
  auto kept = readIndexes(indexFile_)->indexes;
  EXPECT_EQ(kept.size(), StorageIndexes::kMaxMountPoints);
  EXPECT_TRUE(kept.contains("/m0"));
  EXPECT_FALSE(kept.contains("/m1"));
  EXPECT_TRUE(kept.contains("/new"));
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
  EXPECT_THAT(life_->troubles(),
              ElementsAre("indexes fails: " + indexFile_ + ": found a directory, expected a file"));
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
