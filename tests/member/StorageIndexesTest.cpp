// Which index each mount point gets, keeps and loses.
#include "member/StorageIndexes.h"

#include <gmock/gmock.h>

namespace Member {
namespace {

using testing::ElementsAre;
using testing::Pair;

constexpr uint32_t kFirst = StorageIndexes::kFirst;
constexpr uint32_t kLast = StorageIndexes::kLast;

bool nobody(uint32_t, const std::string&) { return false; }

TEST(StorageIndexesTest, MountPointsGetOneIndexEach_AndKeepIt) {
  StorageIndexes indexes;
  EXPECT_EQ(indexes.indexOf("/", nobody), kFirst);
  EXPECT_EQ(indexes.indexOf("/var", nobody), kFirst + 1);
  EXPECT_EQ(indexes.indexOf("/", nobody), kFirst);
  EXPECT_THAT(indexes.all(), ElementsAre(Pair("/", kFirst), Pair("/var", kFirst + 1)));
}

TEST(StorageIndexesTest, IndexesOfAnEarlierLifeCount_AndAreNotGivenToOthers) {
  StorageIndexes indexes;
  indexes.known({{"/gone", 5000}, {"/var", 1003}});
  EXPECT_EQ(indexes.indexOf("/var", nobody), 1003u);
  EXPECT_EQ(indexes.indexOf("/new", nobody), 5001u);
  EXPECT_EQ(indexes.indexOf("/gone", nobody), 5000u);
}

TEST(StorageIndexesTest, IndexesOfOthers_AreNotGiven) {
  StorageIndexes indexes;
  auto taken = [](uint32_t index, const std::string&) { return index < kFirst + 3; };
  EXPECT_EQ(indexes.indexOf("/", taken), kFirst + 3);
}

TEST(StorageIndexesTest, IndexIsTakenByAnotherLater_TheMountPointGetsANewOne) {
  StorageIndexes indexes;
  indexes.indexOf("/", nobody);
  indexes.indexOf("/var", nobody);
  auto taken = [](uint32_t index, const std::string& mountPoint) {
    return index == kFirst && mountPoint != "/srv";
  };
  EXPECT_EQ(indexes.indexOf("/", taken), kFirst + 2);
  EXPECT_EQ(indexes.indexOf("/", nobody), kFirst + 2);
  EXPECT_EQ(indexes.indexOf("/srv", taken), kFirst + 3);
}

TEST(StorageIndexesTest, LargestIndexIsGiven_TheFirstOneThatIsFreeFollows) {
  StorageIndexes indexes;
  indexes.known({{"/a", kLast}, {"/b", kFirst}});
  EXPECT_EQ(indexes.indexOf("/c", nobody), kFirst + 1);
}

// So many and some more, of which "/m0" was given an index first.
StorageIndexes more() {
  StorageIndexes::ByMountPoint many;
  for (uint32_t i = 0; i < StorageIndexes::kMaxMountPoints + 3; ++i) {
    many["/m" + std::to_string(i)] = kFirst + i;
  }
  StorageIndexes indexes;
  indexes.known(many);
  return indexes;
}

TEST(StorageIndexesTest, MoreMountPointsThanAreRemembered_TheOldestThatAreGoneAreForgotten) {
  StorageIndexes indexes = more();
  indexes.forget([](const std::string& mountPoint) { return mountPoint != "/m0"; });
  EXPECT_EQ(indexes.all().size(), StorageIndexes::kMaxMountPoints);
  EXPECT_TRUE(indexes.all().contains("/m0"));
  for (const char* forgotten : {"/m1", "/m2", "/m3"}) EXPECT_FALSE(indexes.all().contains(forgotten));
  EXPECT_TRUE(indexes.all().contains("/m4"));
  EXPECT_EQ(indexes.indexOf("/m1", nobody), kFirst + StorageIndexes::kMaxMountPoints + 3);
}

TEST(StorageIndexesTest, MoreMountPointsAreThereThanAreRemembered_AllKeepTheirIndexes) {
  StorageIndexes indexes = more();
  indexes.forget([](const std::string&) { return false; });
  EXPECT_EQ(indexes.all().size(), StorageIndexes::kMaxMountPoints + 3);
}

TEST(StorageIndexesTest, NoMoreMountPointsThanAreRemembered_NoneIsForgotten) {
  StorageIndexes indexes;
  indexes.indexOf("/", nobody);
  indexes.forget([](const std::string&) { return true; });
  EXPECT_EQ(indexes.indexOf("/", nobody), kFirst);
}

}  // namespace
}  // namespace Member
