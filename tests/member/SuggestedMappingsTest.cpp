// The storage mappings that a machine suggests, and the indexes that it keeps for them.
#include "member/SuggestedMappings.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/member/ManualMachine.h"
#include "tests/support/TempDir.h"
#include "tests/support/TraceLog.h"

namespace Member {
namespace {

using testing::ElementsAre;
using testing::Pair;

class SuggestedMappingsTest : public testing::Test {
 protected:
  SuggestedMappingsTest() { mounts({"/", "/var"}); }
  void mounts(const std::vector<std::string>& points) {
    std::vector<Mount> all;
    for (const std::string& point : points) {
      all.push_back({point, MountKind::fixedDisk, 1});
      machine_->rooms[point] = Room{4096, 100, 50};
    }
    machine_->mounted = all;
  }
  // Indexes by mount point.
  std::map<std::string, int> indexes(const std::string& file = "") {
    auto suggested = suggestedMappings(machine_, file, clock_);
    if (!suggested.ok()) {
      ADD_FAILURE() << suggested.status();
      return {};
    }
    std::map<std::string, int> all;
    auto document = Kelstore::documentOf(*suggested);
    EXPECT_EQ(document["storageMappings"]["memory"].size(), 4u);
    for (const auto& [point, mapping] : document["storageMappings"]["mounts"].items()) {
      EXPECT_EQ(mapping["type"], "1.3.6.1.2.1.25.2.1.4");
      EXPECT_EQ(mapping["description"], point);
      all[point] = mapping["index"];
    }
    return all;
  }

  Zavro::ManualClock clock_;
  std::shared_ptr<ManualMachine> machine_ = std::make_shared<ManualMachine>();
  TraceLog trace_{{"Member"}};
};

TEST_F(SuggestedMappingsTest, EveryMountThatHasRoom_AndTheKindsOfMemory) {
  mounts({"/", "/var", "/none"});
  machine_->rooms["/none"] = Room{};
  EXPECT_THAT(indexes(), ElementsAre(Pair("/", 1001), Pair("/var", 1002)));
}

TEST_F(SuggestedMappingsTest, IndexesThatWereKept_AreGivenAgain) {
  Support::TempDir dir;
  std::string file = dir.file("indexes.json");
  EXPECT_THAT(indexes(file), ElementsAre(Pair("/", 1001), Pair("/var", 1002)));
  mounts({"/", "/boot", "/var"});
  EXPECT_THAT(indexes(file), ElementsAre(Pair("/", 1001), Pair("/boot", 1003), Pair("/var", 1002)));
}

TEST_F(SuggestedMappingsTest, MountThatCannotBeAsked_IsLeftOut) {
  machine_->rooms["/var"] = absl::UnknownError("/var: Input/output error");
  EXPECT_THAT(indexes(), ElementsAre(Pair("/", 1001)));
}

TEST_F(SuggestedMappingsTest, MountsCannotBeListedOrIndexesNotKept_IsAnError) {
  Support::TempDir dir;
  auto error = [&](const std::string& file) {
    return std::string(suggestedMappings(machine_, file, clock_).status().message());
  };
  EXPECT_THAT(error(dir.write("no-directory", "") + "/indexes.json"), testing::HasSubstr("no-directory"));
  machine_->mounted = absl::UnknownError("/proc/self/mountinfo: Permission denied");
  EXPECT_EQ(error(""), "/proc/self/mountinfo: Permission denied");
}

}  // namespace
}  // namespace Member
