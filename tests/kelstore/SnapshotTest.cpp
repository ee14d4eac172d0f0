// Snapshots that are made from one another, held against a map.
#include "kelstore/Snapshot.h"

#include <gmock/gmock.h>

#include <map>

#include "tests/support/Random.h"

namespace Kelstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Path at(uint32_t number) { return {Kind::interface, "i" + std::to_string(number), {}}; }

Snapshot numbered(uint32_t count) {
  std::vector<Snapshot::Entry> entries;
  for (uint32_t i = 0; i < count; ++i) entries.emplace_back(at(i), Interface{i});
  return Snapshot(std::move(entries));
}

TEST(SnapshotTest, PathsOfAnyLength_AreOrderedByTheirSegments) {
  const std::string kLongest(kMaxNameBytes, 'x');
  std::vector<Path> paths;
  for (const std::string& first : {std::string("1"), std::string("12"), kLongest}) {
    for (const std::string& second : {std::string("/"), std::string("/mnt/of sixteen."), kLongest}) {
      paths.emplace_back(Kind::storage, first, second);
      EXPECT_EQ(paths.back().first(), first);
      EXPECT_EQ(paths.back().second(), second);
      EXPECT_EQ(paths.back(), Path(Kind::storage, first, second));
    }
  }
  EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end(), std::less_equal<>()));
  EXPECT_LT(Path(Kind::processor, "2", "1"), paths.front());
  EXPECT_EQ(Path(Kind::system, kLongest, "").second(), "");
}

TEST(SnapshotTest, ChangesTakeEffect_AndOnlyDifferencesAreTold) {
  std::vector<Path> changed;
  Snapshot now = numbered(4).with({{at(1), Interface{1}},
                                   {at(2), Interface{22}},
                                   {at(3), std::nullopt},
                                   {at(7), std::nullopt},
                                   {at(9), Interface{9}}},
                                  changed);
  EXPECT_THAT(changed, ElementsAre(at(2), at(3), at(9)));
  EXPECT_EQ(
      std::vector(now.begin(), now.end()),
      (std::vector<Snapshot::Entry>{
          {at(0), Interface{0}}, {at(1), Interface{1}}, {at(2), Interface{22}}, {at(9), Interface{9}}}));
}

TEST(SnapshotTest, FewChanges_WhatIsNotNearThemIsShared) {
  Snapshot before = numbered(100'000);
  std::vector<Path> changed;
  Snapshot after = before.with({{at(50'000), Interface{1}}}, changed);
  size_t shared = 0;
  for (const auto& [path, value] : before) shared += after.find(path) == &value ? 1 : 0;
  EXPECT_GE(shared, before.size() - Snapshot::kMaxChunk);
  EXPECT_EQ(after.size(), before.size());
}

TEST(SnapshotTest, NoChange_EverythingIsShared) {
  Snapshot before = numbered(3);
  std::vector<Path> changed;
  Snapshot after = before.with({{at(1), Interface{1}}, {at(8), std::nullopt}}, changed);
  EXPECT_THAT(changed, IsEmpty());
  EXPECT_EQ(&*before.begin(), &*after.begin());
}

TEST(SnapshotTest, RandomChanges_ItEqualsAMap) {
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    Support::Random random(seed);
    uint32_t keys = 1 + random.below(3000);
    std::map<Path, Value> model;
    Snapshot snapshot;
    for (int round = 0; round < 60; ++round) {
      std::map<Path, std::optional<Value>> changes;
      // Now and then most of it goes, or comes.
      bool wholesale = random.below(10) == 0;
      uint32_t removing = random.below(2) == 0 ? 9 : 2;
      for (uint32_t i = wholesale ? keys : random.below(20); i > 0; --i) {
        auto& change = changes[at(random.below(keys))];
        change.reset();
        if (random.below(10) >= removing) change = Interface{random.below(3)};
      }
      std::vector<Path> expected;
      for (const auto& [path, value] : changes) {
        auto found = model.find(path);
        bool there = found != model.end();
        if (there ? !value || *value != found->second : value.has_value()) expected.push_back(path);
        if (value) {
          model.insert_or_assign(path, *value);
        } else {
          model.erase(path);
        }
      }
      std::vector<Path> changed;
      Snapshot before = snapshot;
      snapshot = before.with({changes.begin(), changes.end()}, changed);
      ASSERT_EQ(changed, expected);
      ASSERT_EQ(differences(before, snapshot), expected);
      ASSERT_EQ(snapshot.size(), model.size());
      ASSERT_TRUE(std::equal(
          snapshot.begin(), snapshot.end(), model.begin(), model.end(),
          [](const auto& a, const auto& b) { return a.first == b.first && a.second == b.second; }));
      for (uint32_t i = 0; i < keys; i += 1 + random.below(50)) {
        const Value* value = snapshot.find(at(i));
        auto found = model.find(at(i));
        ASSERT_EQ(value == nullptr, found == model.end());
        ASSERT_TRUE(value == nullptr || *value == found->second);
        ASSERT_EQ(snapshot.any(Kind::interface, at(i).first()), value != nullptr);
      }
    }
  }
}

}  // namespace
}  // namespace Kelstore
