// Leases of members end while a manager walks the tables: by themselves, all at once or for good, or because
// the member gave its lease back.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "kelstore/etcd/Client.h"
#include "tests/etcd-faults/Following.h"
#include "tests/etcd-faults/StoreState.h"
#include "tests/etcd-faults/Walker.h"
#include "tests/support/Etcd.h"

namespace Faults {
namespace {

using namespace std::chrono_literals;
using Kelstore::Etcd::Op;
using Support::waitUntil;

constexpr int kMembers = 20;

class LeasesTest : public testing::Test {
 protected:
  // Every member publishes its processors anew, under another lease.
  void publish() {
    for (int member = 1; member <= kMembers; ++member) {
      absl::StatusOr<int64_t> lease = client_.grant(600s);
      ASSERT_TRUE(lease.ok()) << lease.status();
      std::vector<Op> ops;
      for (int processor = 1; processor <= 3; ++processor) {
        ops.push_back({Op::What::put, fmt::format("{}/members/{}/processors/{}", kPrefix, member, processor),
                       R"({"load": 7})", *lease});
      }
      revision_ = *client_.txn(ops);
      leases_[member] = *lease;
    }
  }
  void revokeAll() {
    for (const auto& [member, lease] : leases_) ASSERT_TRUE(client_.revoke(lease).ok());
  }
  nlohmann::json document() { return documentOf(*client_.range(kAll)); }
  // Those whose rows are held since their leases ended.
  static size_t held(const Following& follower) {
    size_t count = 0;
    const nlohmann::json status = follower.status();
    for (const auto& member : status.at("members")) count += member.at("heldSince").is_null() ? 0 : 1;
    return count;
  }

  Support::EtcdCluster cluster_;
  Kelstore::Etcd::Client client_{cluster_.endpoints(), {}};
  std::map<int, int64_t> leases_;
  int64_t revision_ = 0;
};

// An old leader that was stopped does so. Every live member's rows were gone until it had published again.
TEST_F(LeasesTest, AllLeasesEndAtOnce_NoRowIsMissing_OnceAllMembersAreBack) {
  publish();
  Following follower(cluster_.endpoint(), {"--grace", "60"});
  ASSERT_TRUE(follower.becomes(document(), revision_, 20s));
  Walker walker(follower.port(), namesOf(follower.expected(document())));
  revokeAll();
  EXPECT_TRUE(waitUntil([&] { return held(follower) == kMembers; }));
  EXPECT_EQ(walker.complaints(), "");
  publish();
  EXPECT_TRUE(follower.becomes(document(), revision_, 20s));
  EXPECT_EQ(held(follower), 0u);
  EXPECT_EQ(walker.complaints(), "");
}

TEST_F(LeasesTest, MembersDoNotComeBack_TheirRowsAreHeldForTheGrace_AndGo) {
  publish();
  Following follower(cluster_.endpoint(), {"--grace", "4"});
  ASSERT_TRUE(follower.becomes(document(), revision_, 20s));
  revokeAll();
  EXPECT_TRUE(waitUntil([&] { return held(follower) == kMembers; }));
  EXPECT_TRUE(follower.becomes(nlohmann::json::object(), revision_, 20s));
}

TEST_F(LeasesTest, MemberGivesItsLeaseBack_OrDeletesAKey_TheRowsGoAtOnce) {
  publish();
  Following follower(cluster_.endpoint(), {"--grace", "3600"});
  ASSERT_TRUE(follower.becomes(document(), revision_, 20s));
  const Kelstore::Etcd::KeySpace keys(kPrefix);
  std::string stem = fmt::format("{}/members/2/processors/", kPrefix);
  ASSERT_TRUE(
      client_.txn({{Op::What::del, stem + "3"}, {Op::What::put, stem + "2", R"({"load": 7})", leases_[2]}})
          .ok());
  ASSERT_TRUE(client_.put(keys.leavingKey(1), "{}", leases_[1]).ok());
  ASSERT_TRUE(client_.revoke(leases_[1]).ok());
  EXPECT_TRUE(follower.becomes(document(), revision_ + 1, 20s));
  EXPECT_EQ(held(follower), 0u);
}

}  // namespace
}  // namespace Faults
