// How many keys of a group are held, and that one whose group has room again is found by the next resync.
#include "kelstore/etcd/KeyTable.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/kelstore-etcd/Answers.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class KeyTableTest : public testing::Test {
 protected:
  // Keys count together by their first letter; there are two of each at most, of x none.
  static KeyTable::Group groupOf(const std::string& key) {
    return {key.substr(0, 1), key.starts_with('x') ? 0u : 2u};
  }
  std::vector<std::string> listing(const std::vector<std::vector<std::string>>& pages) {
    table_.listingBegins();
    for (const auto& page : pages) {
      std::vector<Record> records;
      for (const std::string& key : page) records.push_back(record(key, "v", 1));
      table_.listed(std::move(records));
    }
    return texts(table_.listingEnds());
  }
  static std::vector<std::string> texts(const std::vector<Change>& changes) {
    std::vector<std::string> all;
    for (const Change& change : changes) all.push_back((change.value ? "" : "-") + change.key);
    return all;
  }
  std::vector<std::string> refused() const {
    std::vector<std::string> all;
    for (const auto& [group, one] : table_.refused()) {
      all.push_back(fmt::format("{}: {} beyond {}, such as {}", group, one.keys, one.most, one.example));
    }
    return all;
  }
  // A resync that reads these keys, in one page; what it repairs.
  std::vector<std::string> resync(const std::vector<std::string>& keys, int64_t revision) {
    table_.resyncBegins();
    Page page{{1, revision, 1}, {}, false};
    for (const std::string& key : keys) page.records.push_back(record(key, "v", 1));
    std::vector<Change> changes;
    for (KeyTable::Suspect& suspect : table_.compare("", page)) {
      if (auto change = table_.repair(std::move(suspect))) changes.push_back(*std::move(change));
    }
    table_.resyncEnds(revision, true);
    return texts(changes);
  }

  KeyTable table_{groupOf, 5};
};

TEST_F(KeyTableTest, Listing_TheFirstOfEachGroupAreHeld_TheOthersAreCounted) {
  EXPECT_THAT(listing({{"a1", "a2", "a3"}, {"a4", "b1", "x1", "x2"}}), ElementsAre("a1", "a2", "b1"));
  EXPECT_EQ(table_.size(), 3u);
  EXPECT_THAT(refused(), ElementsAre("a: 2 beyond 2, such as a3", "x: 2 beyond 0, such as x1"));
  EXPECT_THAT(listing({{"a2", "a3"}}), ElementsAre("a3", "-a1", "-b1"));
  EXPECT_THAT(refused(), IsEmpty());
}

TEST_F(KeyTableTest, KeysInAll_HaveALimitToo) {
  EXPECT_THAT(listing({{"a1", "a2", "b1", "b2", "c1", "c2"}}), testing::SizeIs(5));
  EXPECT_THAT(refused(), ElementsAre("c: 1 beyond 5, such as c2"));
}

TEST_F(KeyTableTest, Event_IsRefusedWhileItsGroupIsFull) {
  listing({{"a1", "a2"}});
  EXPECT_FALSE(table_.put(record("a3", "v", 2)));
  EXPECT_TRUE(table_.put(record("a1", "w", 3))) << "it is there";
  EXPECT_TRUE(table_.put(record("b1", "v", 4))) << "another group";
  EXPECT_THAT(refused(), ElementsAre("a: 1 beyond 2, such as a3"));
  EXPECT_FALSE(table_.del("a3", 5));
  EXPECT_TRUE(table_.del("a1", 6));
  EXPECT_TRUE(table_.put(record("a4", "v", 7)));
}

TEST_F(KeyTableTest, AKeyGoes_TheNextResyncFindsOneThatWasRefused) {
  listing({{"a1", "a2", "a3", "a4"}});
  EXPECT_THAT(resync({"a1", "a2", "a3", "a4"}, 5), IsEmpty());
  EXPECT_THAT(refused(), ElementsAre("a: 2 beyond 2, such as a3"));
  table_.del("a1", 6);
  EXPECT_THAT(resync({"a2", "a3", "a4"}, 7), ElementsAre("a3"));
  EXPECT_THAT(refused(), ElementsAre("a: 1 beyond 2, such as a4"));
  table_.del("a2", 8);
  table_.del("a3", 9);
  EXPECT_THAT(resync({"a4"}, 10), ElementsAre("a4"));
  EXPECT_THAT(refused(), IsEmpty());
}

TEST_F(KeyTableTest, MovedTogether_ItKnowsTheSame) {
  listing({{"a1", "a2", "b1"}});
  table_.compact();
  EXPECT_EQ(table_.size(), 3u);
  EXPECT_EQ(table_.newest(1), "a1");
  EXPECT_FALSE(table_.put(record("a1", "v", 1))) << "it is known";
  EXPECT_FALSE(table_.put(record("a3", "v", 2))) << "the group is full";
  EXPECT_TRUE(table_.del("b1", 3));
}

// The keys that a page has more than one of are found missing together.
TEST_F(KeyTableTest, ResyncFindsMoreThanThereIsRoomFor_NoMoreAreHeld) {
  listing({{"a1"}});
  EXPECT_THAT(resync({"a1", "a2", "a3", "a4"}, 5), ElementsAre("a2"));
  EXPECT_EQ(table_.size(), 2u);
  EXPECT_THAT(refused(), ElementsAre("a: 2 beyond 2, such as a3"));
}

TEST_F(KeyTableTest, DeletionsWithinAResync_AreRememberedWithoutEnd_ButForTheLimit) {
  listing({{"a1"}});
  table_.resyncBegins();
  for (int i = 0; i < 100; ++i) table_.del(fmt::format("b{}", i), 10 + i);
  Page page{{1, 5, 1}, {record("b0", "v", 1), record("b99", "v", 1)}, false};
  auto suspects = table_.compare("b", page);
  ASSERT_EQ(suspects.size(), 1u);
  EXPECT_EQ(suspects[0].key, "b99");
}

TEST(RecordTest, LargeValue_IsLeftOut_AndItsSizeKept) {
  Record small = record("k", "12345", 1);
  small.cutTo(5);
  EXPECT_EQ(small.value, "12345");
  EXPECT_EQ(small.oversizeBytes, 0u);
  small.cutTo(4);
  EXPECT_EQ(small.value, "");
  EXPECT_EQ(small.oversizeBytes, 5u);
}

}  // namespace
}  // namespace Kelstore::Etcd
