// A start over a table that is full of rows of an earlier life: half of them stale, half of them live.
#include <gtest/gtest.h>

#include "tests/pipelines/ReachabilityWorld.h"
#include "tests/pipelines/Untraced.h"

namespace TrelSnmp::Agent {
namespace {

using State = Trel::ReachabilityState;

constexpr uint32_t kMembers = 255;

// Members 1 to 255 report every neighbour 0 to 254: 65,025 live rows. As many stale rows stand under
// neighbours that nobody reports; they are interleaved with the live ones in walk order.
class LargeStart : public Untraced {
 protected:
  void SetUp() override {
    Untraced::SetUp();
    for (uint32_t member = 1; member <= kMembers; ++member) {
      auto entity = Zavro::makePtr<Trel::ReachabilityStatus>(std::to_string(member));
      for (uint32_t n = 0; n < kMembers; ++n) {
        auto record = world.record(State::reachable);
        entity->reachabilityStatus().set(Trel::MemberId(static_cast<uint8_t>(n)), record);
        world.staleRow(member, n, record);
        world.staleRow(member, n + 1000, record);
      }
      world.dir->entityPtrIs(entity);
    }
  }

  ReachabilityWorld world;
};

TEST_F(LargeStart, NoLiveRowIsMissingAtAnyMoment_StaleOnesGo) {
  const auto& table = world.mib->trelReachabilityTable();
  ASSERT_EQ(table.size(), 2 * kMembers * kMembers);
  size_t liveRemoved = 0;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change& change) {
    if (!change.entry && std::get<MemberIdPair>(change.key).secondId() < kMembers) ++liveRemoved;
  });
  int asked = 0;
  world.scheduler.yieldWhen([&] { return ++asked % 100 == 0; });
  world.start();
  size_t slices = world.scheduler.drain();
  EXPECT_EQ(liveRemoved, 0U);
  EXPECT_EQ(table.size(), kMembers * kMembers);
  for (auto row = table.begin(); row; row.next()) ASSERT_LT(row.key().secondId(), kMembers);
  EXPECT_TRUE(world.sm->ready());
  // Two scans and one deletion scan, each cut into slices of a hundred items.
  EXPECT_GT(slices, 4 * kMembers * kMembers / 100);
}

// What the thread does between two chances to serve SNMP is bounded by what the scheduler grants, not by the
// table.
TEST_F(LargeStart, EverySliceEndsWhenTheSchedulerSaysSo) {
  size_t handled = 0;
  size_t most = 0;
  world.scheduler.yieldWhen([&] {
    most = std::max(most, ++handled);
    return handled >= 50;
  });
  size_t deletions = 0;
  auto subscription = world.mib->publisher().subscribe([&](const TrelMib::Change&) { ++deletions; });
  size_t mostDeletions = 0;
  world.start();
  world.scheduler.drain([&] {
    handled = 0;
    mostDeletions = std::max(mostDeletions, std::exchange(deletions, 0));
  });
  EXPECT_LE(most, 52U);           // a child's element, then its parent's
  EXPECT_LE(mostDeletions, 51U);  // asked before each row but the first
}

}  // namespace
}  // namespace TrelSnmp::Agent
