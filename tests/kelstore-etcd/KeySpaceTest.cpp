// Keys of a store: one for every path, one path for every key.
#include "kelstore/etcd/KeySpace.h"

#include <gmock/gmock.h>

namespace Kelstore::Etcd {
namespace {

using testing::StartsWith;

const KeySpace kKeys("trel");

std::string read(std::string_view key) {
  auto path = kKeys.path(key);
  if (path.ok()) return path->text();
  std::string code = absl::IsNotFound(path.status())          ? "unknown: "
                     : absl::IsInvalidArgument(path.status()) ? "bad: "
                                                              : "?: ";
  return code + std::string(path.status().message());
}

TEST(EtcdKeySpaceTest, MarkOfAMemberThatLeaves_IsNoKeyOfTheState_ButIsHeld) {
  EXPECT_EQ(kKeys.leavingKey(7), "trel/members/7/leaving");
  EXPECT_TRUE(kKeys.isLeavingKey(kKeys.leavingKey(7)));
  for (const char* other : {"trel/members/7/system", "trel/members/leaving", "trel/members/7/storage/leaving",
                            "trel/topology/7/leaving", "other/members/7/leaving"}) {
    EXPECT_FALSE(kKeys.isLeavingKey(other)) << other;
  }
  EXPECT_TRUE(absl::IsNotFound(kKeys.path(kKeys.leavingKey(7)).status()));
  EXPECT_GE(kKeys.groups(Limits())(kKeys.leavingKey(7)).most, 256u);
}

TEST(EtcdKeySpaceTest, EveryKindOfValueHasItsKey) {
  const std::vector<std::pair<Path, std::string>> all = {
      {{Kind::sysname, "", ""}, "trel/sysname"},
      {{Kind::mountMapping, "/var/log", ""}, "trel/storageMappings/mounts/%2Fvar%2Flog"},
      {{Kind::memoryMapping, "-1", ""}, "trel/storageMappings/memory/-1"},
      {{Kind::interface, "Backplane1/2", ""}, "trel/interfaces/Backplane1%2F2"},
      {{Kind::link, "1", "255"}, "trel/topology/1/255"},
      {{Kind::system, "7", ""}, "trel/members/7/system"},
      {{Kind::memory, "7", ""}, "trel/members/7/memory"},
      {{Kind::processor, "7", "4294967295"}, "trel/members/7/processors/4294967295"},
      {{Kind::storage, "7", "/"}, "trel/members/7/storage/%2F"},
      {{Kind::reachability, "0", "7"}, "trel/members/0/reachability/7"},
      {{Kind::unread, "7", "mount /"}, "trel/members/7/unread/mount%20%2F"},
  };
  for (const auto& [path, key] : all) {
    EXPECT_EQ(kKeys.key(path), key);
    auto back = kKeys.path(key);
    ASSERT_TRUE(back.ok()) << back.status();
    EXPECT_EQ(*back, path) << key;
  }
}

TEST(EtcdKeySpaceTest, EveryByteOfANameComesBack) {
  EXPECT_EQ(encodedSegment("aZ09-._~"), "aZ09-._~");
  EXPECT_EQ(encodedSegment("a b%/:\"@\xc3\xa9"), "a%20b%25%2F%3A%22%40%C3%A9");
  for (const char* name : {"a b", "%2F", "%", "/mnt/caf\xc3\xa9", "..", "{\"x\"}", "+", "\\"}) {
    Path path{Kind::storage, "1", name};
    auto back = kKeys.path(kKeys.key(path));
    ASSERT_TRUE(back.ok()) << back.status();
    EXPECT_EQ(*back, path);
  }
}

TEST(EtcdKeySpaceTest, OtherSpellingsOfAPathAreToldAsSuch) {
  EXPECT_EQ(read("trel/members/1/storage/%2fvar"),
            "bad: members/1/storage/\"/var\": found \"%2fvar\", expected \"%2Fvar\"");
  EXPECT_EQ(read("trel/members/%31/system"), "bad: members/1: found \"%31\", expected \"1\"");
  EXPECT_EQ(read("trel/interfaces/a b"), "bad: interfaces/a b: found \"a b\", expected \"a%20b\"");
  EXPECT_EQ(read("trel/interfaces/100%"), "bad: interfaces/100%: found \"100%\", expected \"100%25\"");
  EXPECT_EQ(read("trel/interfaces/%2"), "bad: interfaces/%2: found \"%2\", expected \"%252\"");
  EXPECT_EQ(read("trel/interfaces/%zz"), "bad: interfaces/%zz: found \"%zz\", expected \"%25zz\"");
  EXPECT_EQ(read("trel/interfaces/%+1"), "bad: interfaces/%+1: found \"%+1\", expected \"%25%2B1\"");
}

TEST(EtcdKeySpaceTest, SegmentsThatTheirLevelDoesNotTake) {
  EXPECT_EQ(read("trel/members/01/system"), "bad: members/01: found \"01\", expected a member id, 0 to 255");
  EXPECT_EQ(read("trel/members/256/system"),
            "bad: members/256: found \"256\", expected a member id, 0 to 255");
  EXPECT_EQ(read("trel/members/1/processors/x"),
            "bad: members/1/processors/x: found \"x\", expected a number from 0 to 4294967295");
  EXPECT_EQ(
      read("trel/interfaces/"),
      "bad: interfaces/\"\": found \"\", expected a name of 1 to 4096 bytes without control characters");
  EXPECT_EQ(
      read("trel/interfaces/a%00"),
      "bad: interfaces/\"a\\x00\": found \"a\\x00\", expected a name of 1 to 4096 bytes without control "
      "characters");
  EXPECT_THAT(read("trel/interfaces/" + std::string(4097, 'a')), StartsWith("bad: interfaces/aaa"));
}

TEST(EtcdKeySpaceTest, NamesThatAreNotUtf8) {
  EXPECT_EQ(read("trel/interfaces/%FF"), "bad: interfaces/\\xff: found \"%FF\", expected UTF-8");
}

TEST(EtcdKeySpaceTest, WhatIsNoneOfOurBusiness) {
  EXPECT_EQ(read("trel/colour"), "unknown: colour: unknown, ignored");
  EXPECT_EQ(read("trel/members/1/fans/1"), "unknown: members/1/fans/1: unknown, ignored");
  EXPECT_EQ(read("trel/members/1/system/uptime"), "unknown: members/1/system/uptime: unknown, ignored");
  EXPECT_EQ(read("trel/members/1/processors"),
            "unknown: members/1/processors: found a key, expected keys below it only; ignored");
  EXPECT_EQ(read("trel/members/1"), "unknown: members/1: found a key, expected keys below it only; ignored");
  EXPECT_EQ(read("trelfoo/sysname"), "unknown: found \"trelfoo/sysname\", expected a key below \"trel\"");
  EXPECT_EQ(read("trel"), "unknown: found \"trel\", expected a key below \"trel\"");
}

TEST(EtcdKeySpaceTest, RangesHoldWhatIsBelowAndNothingBeside) {
  auto holds = [](const KeyRange& range, const std::string& key) {
    return range.first <= key && key < range.end;
  };
  EXPECT_EQ(kKeys.all().first, "trel/");
  EXPECT_TRUE(holds(kKeys.all(), "trel/sysname"));
  EXPECT_TRUE(holds(kKeys.all(), "trel/\xff\xff"));
  EXPECT_FALSE(holds(kKeys.all(), "trel"));
  EXPECT_FALSE(holds(kKeys.all(), "trel0"));
  EXPECT_FALSE(holds(kKeys.all(), "trel-lab/sysname"));
  KeyRange member = kKeys.below(std::vector<std::string>{"members", "1"});
  EXPECT_TRUE(holds(member, "trel/members/1/system"));
  EXPECT_FALSE(holds(member, "trel/members/10/system"));
  EXPECT_FALSE(holds(member, "trel/members/1"));
  KeyRange mount = kKeys.below(std::vector<std::string>{"members", "1", "storage", "/var"});
  EXPECT_EQ(mount.first, "trel/members/1/storage/%2Fvar/");
}

TEST(EtcdKeySpaceTest, SegmentsOfATypedPath) {
  EXPECT_THAT(*segmentsOf("members/1/storage/%2Fvar"),
              testing::ElementsAre("members", "1", "storage", "/var"));
  EXPECT_EQ(segmentsOf("members//storage")->at(1), "");
  EXPECT_EQ(segmentsOf("a b").status().message(), "a b: found \"a b\", expected \"a%20b\"");
}

}  // namespace
}  // namespace Kelstore::Etcd
