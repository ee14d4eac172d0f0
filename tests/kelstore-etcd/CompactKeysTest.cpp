// Random changes of keys, held against a plain map.
#include "kelstore/etcd/CompactKeys.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <malloc.h>

#include <limits>
#include <map>

#include "tests/support/Random.h"

namespace Kelstore::Etcd {
namespace {

using Known = CompactKeys::Known;
using Model = std::map<std::string, Known>;

Model contentOf(const CompactKeys& keys, const std::string& from = "") {
  Model content;
  std::string before;
  for (auto at = keys.from(from); !at.atEnd(); at.next()) {
    EXPECT_TRUE(content.empty() || before < at.key()) << at.key();
    before = at.key();
    content[at.key()] = at.known();
  }
  return content;
}

class Keys {
 public:
  explicit Keys(uint64_t seed) : random_(seed) {}

  void put() {
    std::string key = anyKey();
    Known known{anyNumber(), anyNumber(), static_cast<uint32_t>(random_.any())};
    keys_.put(key, known);
    model_[key] = known;
  }
  void del() {
    std::string key = model_.empty() || random_.percent(25) ? anyKey() : random_.of(model_).first;
    keys_.del(key);
    model_.erase(key);
  }
  void check() {
    ASSERT_EQ(keys_.size(), model_.size());
    ASSERT_EQ(contentOf(keys_), model_);
    std::string key = anyKey();
    ASSERT_EQ(contentOf(keys_, key), Model(model_.lower_bound(key), model_.end()));
    auto known = model_.find(key);
    ASSERT_EQ(keys_.find(key), known == model_.end() ? std::nullopt : std::optional(known->second));
  }
  size_t size() const { return model_.size(); }
  uint32_t below(uint32_t end) { return random_.below(end); }

 private:
  std::string anyKey() {
    std::string key = fmt::format("/trel/members/{}/x/{}", random_.below(8), random_.below(150));
    if (random_.below(8) == 0) key.resize(random_.below(static_cast<uint32_t>(key.size() + 1)));
    if (random_.below(16) == 0) key.append(200, '\xff');
    if (random_.below(16) == 0) key += '\0';
    return key;
  }
  int64_t anyNumber() {
    switch (random_.below(8)) {
      case 0:
        return std::numeric_limits<int64_t>::max();
      case 1:
        return std::numeric_limits<int64_t>::min();
      case 2:
        return 0;
      default:
        return 1'000'000 + static_cast<int64_t>(random_.below(300));
    }
  }

  Support::Random random_;
  CompactKeys keys_;
  Model model_;
};

TEST(CompactKeysTest, RandomChanges_LeaveWhatAMapHolds) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    Keys keys(seed);
    // Grows and shrinks, down to nothing, so that blocks are split, joined and removed.
    for (int round = 0; round < 6; ++round) {
      uint32_t putsInTen = round % 2 == 0 ? 8 : 2;
      for (int i = 0; i < 1500; ++i) {
        if (keys.below(10) < putsInTen) {
          keys.put();
        } else {
          keys.del();
        }
        if (i % 50 == 0) {
          ASSERT_NO_FATAL_FAILURE(keys.check());
        }
      }
    }
    while (keys.size() != 0) keys.del();
    ASSERT_NO_FATAL_FAILURE(keys.check());
    keys.put();
    ASSERT_NO_FATAL_FAILURE(keys.check());
  }
}

// All keys of a full cluster, and then one member's that is left of it.
TEST(CompactKeysTest, Key_TakesLittleMemory_AndLeavesNoneBehind) {
  size_t before = mallinfo2().uordblks;
  CompactKeys keys;
  for (int member = 0; member < 255; ++member) {
    for (int i = 0; i < 255; ++i) {
      keys.put(fmt::format("/trel/members/{:03}/reachability/{:03}", member, i),
               {1'000'000 + i, 0x1234567890abcdef + member, static_cast<uint32_t>(i) * 2654435761U});
    }
  }
  EXPECT_LE((mallinfo2().uordblks - before) / keys.size(), 16u);
  for (int member = 1; member < 255; ++member) {
    for (int i = 0; i < 255; ++i) keys.del(fmt::format("/trel/members/{:03}/reachability/{:03}", member, i));
  }
  EXPECT_EQ(keys.size(), 255u);
  EXPECT_LE((mallinfo2().uordblks - before) / keys.size(), 64u);
}

}  // namespace
}  // namespace Kelstore::Etcd
