// A daemon that follows a real store, at whose servers there is another one all of a sudden: an empty one, or
// a copy from before. A manager walks the tables all the time.
#include <gmock/gmock.h>

#include "kelstore/etcd/Client.h"
#include "tests/etcd-faults/Following.h"
#include "tests/etcd-faults/StoreState.h"
#include "tests/etcd-faults/Walker.h"
#include "tests/etcd-faults/Writer.h"
#include "tests/support/Etcd.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"

namespace Faults {
namespace {

using namespace std::chrono_literals;
using Support::EtcdCluster;
using Support::Millis;
using Support::waitUntil;
using testing::HasSubstr;

constexpr Millis kTurned = 25s;
constexpr int kHoldSeconds = 5;

// The store that is followed is behind the first door, an empty one behind the second.
class TwoStoresTest : public testing::Test {
 protected:
  TwoStoresTest() {
    follower_ = std::make_unique<Following>(
        door_.endpoint() + "," + empty_.endpoint(),
        Support::Argv{"--resync", "3600", "--hold", std::to_string(kHoldSeconds)});
  }
  Kelstore::Etcd::Client client() { return {store_.endpoints(), {}}; }
  testing::AssertionResult servesTheStore(Millis within) {
    auto revision = client().put(std::string(kPrefix) + "/sysname", "\"cluster\"");
    return follower_->becomes(documentOf(*client().range(kAll)), *revision, within);
  }

  EtcdCluster store_;
  EtcdCluster empty_;
  Support::Relay door_{Support::portOf(store_.endpoint())};
  Writer writer_{store_.endpoints(), {}, 7};
  std::unique_ptr<Following> follower_;
};

// Every row was gone within a moment, and the state said "watching".
TEST_F(TwoStoresTest, OtherServerIsEmpty_NoRowGoes_AndTheStoreIsFollowedAgain) {
  ASSERT_TRUE(servesTheStore(kTurned));
  Walker walker(follower_->port(), namesOf(follower_->expected(writer_.lasting())));
  door_.cut();
  EXPECT_TRUE(waitUntil([&] { return follower_->otherStore() != ""; }, kTurned));
  EXPECT_EQ(follower_->state(), "held");
  EXPECT_THAT(follower_->otherStore(), HasSubstr(empty_.endpoint() + ": found cluster "));
  EXPECT_EQ(walker.complaints(), "");
  door_.heal();
  EXPECT_TRUE(servesTheStore(kTurned));
  EXPECT_EQ(follower_->otherStore(), "");
  EXPECT_EQ(walker.complaints(), "");
}

TEST_F(TwoStoresTest, StoreStaysAway_TheEmptyOneCountsAfterTheHold) {
  ASSERT_TRUE(servesTheStore(kTurned));
  auto served = follower_->served();
  door_.cut();
  EXPECT_TRUE(waitUntil([&] { return follower_->otherStore() != ""; }, kTurned));
  EXPECT_EQ(follower_->served(), served);
  EXPECT_TRUE(waitUntil([&] { return follower_->state() == "watching"; }, 1s * kHoldSeconds + kTurned));
  EXPECT_TRUE(follower_->becomes(nlohmann::json::object(), 0, kTurned));
}

TEST(RestoredStoreTest, NothingIsThereToAccept_ItIsSaid) {
  EtcdCluster cluster;
  Following follower(cluster.endpoint(), {});
  Support::Result result = follower.daemon().ctl({"store", "accept"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("there is no other store to accept"));
}

// Cluster id, addresses and term are those from before, and the revision has gone past what was known.
TEST(RestoredStoreTest, SameIdAndALaterRevision_TheKeyThatChangedLastTells) {
  EtcdCluster cluster;
  Support::TempDir directory;
  Support::Relay door(Support::portOf(cluster.endpoint()));
  Writer writer(cluster.endpoints(), {}, 7);
  Kelstore::Etcd::Client client(cluster.endpoints(), {});
  auto idOf = [&] { return client.range(kAll)->clusterId; };
  const std::string key = std::string(kPrefix) + "/sysname";
  ASSERT_TRUE(client.put(key, "\"first\"").ok());
  cluster.saveSnapshot(directory.file("copy"));
  uint64_t id = idOf();
  Following follower(door.endpoint(), {"--resync", "3600"});
  absl::StatusOr<int64_t> last = client.put(key, "\"second\"");
  ASSERT_TRUE(waitUntil([&] { return follower.store().at("revision") == *last; }));
  auto served = follower.served();

  door.cut();
  cluster.restartFrom(directory.file("copy"), EtcdCluster::Id::same);
  EXPECT_EQ(idOf(), id);
  for (int64_t revision = 0; revision <= *last;) {
    revision = *client.put(std::string(kPrefix) + "/members/77/processors/1", R"({"load": 1})");
  }
  door.heal();
  EXPECT_TRUE(waitUntil([&] { return follower.otherStore() != ""; }, kTurned)) << follower.store();
  EXPECT_THAT(follower.otherStore(), HasSubstr("found another history of cluster "));
  EXPECT_EQ(follower.served(), served);
  EXPECT_EQ(follower.daemon().ctl({"store", "accept"}).status, 0);
  EXPECT_TRUE(follower.becomes(documentOf(*client.range(kAll)), *last, kTurned));
}

}  // namespace
}  // namespace Faults
