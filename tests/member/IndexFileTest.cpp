// The file of indexes: kept, missing, damaged, unreadable.
#include "member/IndexFile.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/TempDir.h"

namespace Member {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class IndexFileTest : public testing::Test {
 protected:
  KeptIndexes read() {
    auto result = readIndexes(path_);
    EXPECT_TRUE(result.ok()) << result.status();
    return *result;
  }
  static std::string failureOf(const absl::Status& result) {
    return result.ok() ? "none" : std::string(result.message());
  }
  static std::string failureOf(const absl::StatusOr<KeptIndexes>& result) {
    return failureOf(result.status());
  }
  // Names in the directory.
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  Support::TempDir dir_;
  std::string path_ = dir_.file("indexes.json");
};

TEST_F(IndexFileTest, WhatIsWritten_IsRead) {
  StorageIndexes::ByMountPoint indexes = {
      {"/", 1001}, {"/with space", 1002}, {"/100%/x", 1003}, {"/größe/日本", 1004}, {"/q\"\\", 2147483647}};
  EXPECT_EQ(failureOf(writeIndexes(path_, indexes)), "none");
  EXPECT_EQ(read().indexes, indexes);
  EXPECT_EQ(read().damage, "");
  EXPECT_THAT(files(), ElementsAre("indexes.json"));
}

TEST_F(IndexFileTest, NoFile_NothingIsKept) {
  EXPECT_THAT(read().indexes, IsEmpty());
  EXPECT_EQ(read().damage, "");
}

TEST_F(IndexFileTest, Written_TheDirectoryIsMade_AndOnlyTheOwnerMayChangeTheFile) {
  path_ = dir_.file("a/b/indexes.json");
  EXPECT_EQ(failureOf(writeIndexes(path_, {{"/", 1001}})), "none");
  struct stat found {};
  ASSERT_EQ(stat(path_.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0644u);
}

TEST_F(IndexFileTest, WrittenAnew_ReadersHaveTheOldOneOrTheNewOne) {
  ASSERT_EQ(failureOf(writeIndexes(path_, {{"/", 1001}})), "none");
  std::filesystem::create_hard_link(path_, dir_.file("old"));
  ASSERT_EQ(failureOf(writeIndexes(path_, {{"/", 1002}})), "none");
  EXPECT_THAT(Support::readFile(dir_.file("old")), HasSubstr("1001"));
  EXPECT_EQ(read().indexes.at("/"), 1002u);
}

TEST_F(IndexFileTest, WrittenHalfBefore_NothingOfItStays) {
  dir_.write("indexes.json.new", std::string(5000, 'x'));
  EXPECT_EQ(failureOf(writeIndexes(path_, {{"/", 1001}})), "none");
  EXPECT_EQ(read().indexes.size(), 1u);
  EXPECT_THAT(files(), ElementsAre("indexes.json"));
}

struct Damage {
  const char* name;
  std::string content;
  const char* text;
  friend std::ostream& operator<<(std::ostream& out, const Damage& it) { return out << it.name; }
};

class Damaged : public IndexFileTest, public testing::WithParamInterface<Damage> {};
INSTANTIATE_TEST_SUITE_P(
    All, Damaged,
    testing::Values(
        Damage{"Empty", "", "found no JSON object"},
        Damage{"CutOff", R"({"version": 1, "mounts": {"/": 10)", "found no JSON object"},
        Damage{"Binary", std::string("\0\xff\xfe", 3), "found no JSON object"},
        Damage{"AnotherVersion", R"({"version": 2, "mounts": {}})", "found version 2, expected 1"},
        Damage{"NoVersion", R"({"mounts": {}})", "found version null, expected 1"},
        Damage{"VersionThatIsLong",
               fmt::format(R"({{"version": "{}", "mounts": {{}}}})", std::string(5000, 'v')),
               "vvv..., expected 1;"},
        Damage{"NoMounts", R"({"version": 1})", "found no object \"mounts\""},
        Damage{"IndexTooSmall", R"({"version": 1, "mounts": {"/": 1000}})", "found index 1000 for \"/\""},
        Damage{"IndexTooLarge", R"({"version": 1, "mounts": {"/": 2147483648}})", "found index 2147483648"},
        Damage{"IndexNegative", R"({"version": 1, "mounts": {"/": -1}})", "found index -1"},
        Damage{"IndexNoNumber", R"({"version": 1, "mounts": {"/": "1001"}})", "found index \"1001\""},
        Damage{"IndexTwice", R"({"version": 1, "mounts": {"/": 1001, "/b": 1001}})", "for \"/b\""}),
    [](const auto& damage) { return damage.param.name; });

TEST_P(Damaged, IsSetAsideAndSaidInOneLine) {
  dir_.write("indexes.json", GetParam().content);
  KeptIndexes kept = read();
  EXPECT_THAT(kept.indexes, IsEmpty());
  EXPECT_THAT(kept.damage, AllOf(StartsWith(path_ + ": "), HasSubstr(GetParam().text),
                                 testing::EndsWith("; set aside as " + path_ + ".damaged")));
  EXPECT_THAT(kept.damage, testing::Not(HasSubstr("\n")));
  EXPECT_THAT(files(), ElementsAre("indexes.json.damaged"));
  EXPECT_EQ(Support::readFile(path_ + ".damaged"), GetParam().content);
}

TEST_F(IndexFileTest, DamagedAgain_TheOneSetAsideBeforeStays) {
  dir_.write("indexes.json", "first");
  read();
  dir_.write("indexes.json", "second");
  EXPECT_THAT(read().damage, testing::EndsWith(".damaged.2"));
  EXPECT_EQ(Support::readFile(path_ + ".damaged"), "first");
  EXPECT_EQ(Support::readFile(path_ + ".damaged.2"), "second");
}

TEST_F(IndexFileTest, SomethingElseStandsThere_ItIsAFailureAndStays) {
  std::filesystem::create_directory(path_);
  EXPECT_EQ(failureOf(readIndexes(path_)), path_ + ": found a directory, expected a file");
  EXPECT_THAT(failureOf(writeIndexes(path_, {})), StartsWith(path_ + ": "));
  EXPECT_THAT(files(), ElementsAre("indexes.json"));
}

TEST_F(IndexFileTest, ItsDirectoryIsNone_IsAFailureThatSaysSo) {
  dir_.write("file", "");
  path_ = dir_.file("file/indexes.json");
  EXPECT_EQ(failureOf(readIndexes(path_)), path_ + ": Not a directory");
  EXPECT_EQ(failureOf(writeIndexes(path_, {})), path_ + ": Not a directory");
}

}  // namespace
}  // namespace Member
