// The client of several real etcd servers: some of them are dead, silent, cut off, or of another cluster.
#include <gmock/gmock.h>

#include <thread>

#include "tests/kelstore-etcd/BrokenOff.h"
#include "tests/kelstore-etcd/ClientFixture.h"
#include "tests/kelstore-etcd/SilentServer.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"

namespace Kelstore::Etcd {
namespace {

using namespace std::chrono_literals;
using Support::EtcdCluster;
using Support::waitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::string deadEndpoint() { return fmt::format("127.0.0.1:{}", Support::freeTcpPort()); }

TEST_F(EtcdClientTest, DeadEndpoints_TheNextOneAnswers_AndIsAskedFirstFromThenOn) {
  std::string dead = deadEndpoint();
  Client any({dead, deadEndpoint(), server->endpoint()}, {});
  EXPECT_EQ(any.endpoint(), dead);
  EXPECT_TRUE(any.put(key("a"), "1").ok());
  EXPECT_EQ(any.endpoint(), server->endpoint());
  EXPECT_TRUE(any.put(key("a"), "2").ok());
}

TEST_F(EtcdClientTest, NoEndpointAnswers_OneLineNamesEach) {
  std::string first = deadEndpoint();
  std::string second = deadEndpoint();
  Client none({first, second}, {});
  absl::Status status = none.put(key("a"), "1").status();
  EXPECT_TRUE(absl::IsUnavailable(status)) << status;
  std::string message(status.message());
  EXPECT_THAT(message, StartsWith(first + ": "));
  EXPECT_THAT(message, HasSubstr("; " + second + ": "));
  EXPECT_THAT(message, HasSubstr("Connection refused"));
  EXPECT_EQ(message.find('\n'), std::string::npos);
}

TEST_F(EtcdClientTest, EndpointThatIsBack_IsUsedAtOnce) {
  uint16_t port = Support::freeTcpPort();
  Client late({fmt::format("127.0.0.1:{}", port)}, {});
  EXPECT_FALSE(late.get(key("a")).ok());
  std::string url = fmt::format("http://127.0.0.1:{}", port);
  Support::TempDir directory;
  std::string peer = fmt::format("http://127.0.0.1:{}", Support::freeTcpPort());
  Support::Process again({"etcd", "--data-dir", directory.file("data"), "--listen-client-urls", url,
                          "--advertise-client-urls", url, "--listen-peer-urls", peer,
                          "--initial-advertise-peer-urls", peer, "--initial-cluster", "default=" + peer});
  EXPECT_TRUE(waitUntil([&] { return late.get(key("a")).ok(); }, 5s)) << again.err();
}

TEST_F(EtcdClientTest, EndpointTakesTheConnectionAndIsSilent_CallEndsAtItsDeadline) {
  SilentServer silent;
  Client waiting({silent.endpoint()}, {}, {.deadline = 300ms});
  auto start = std::chrono::steady_clock::now();
  absl::Status status = waiting.get(key("a")).status();
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(absl::IsDeadlineExceeded(status)) << status;
  EXPECT_EQ(status.message(), silent.endpoint() + ": no answer in time");
  EXPECT_GE(took, 290ms);
  EXPECT_TRUE(absl::IsDeadlineExceeded(waiting.keepAliveOnce(1).status()));
}

TEST_F(EtcdClientTest, SilentEndpointHoldsUpOnlyItsShareOfTheDeadline) {
  SilentServer silent;
  Client any({silent.endpoint(), server->endpoint()}, {}, {.deadline = 8s});
  auto start = std::chrono::steady_clock::now();
  absl::StatusOr<int64_t> put = any.put(key("a"), "1");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 3900ms);
  size_t before = silent.connections();
  EXPECT_GE(before, 1u);
  put = any.put(key("a"), "2");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_EQ(silent.connections(), before) << "the one that answered last is asked first";
}

// With equal shares, the one that is sure to answer had no time to do so where there were many others.
TEST_F(EtcdClientTest, EndpointThatIsAskedFirstHasHalfOfTheTime_TheOthersShareTheRest) {
  SilentServer first;
  SilentServer second;
  Client any({first.endpoint(), second.endpoint(), server->endpoint()}, {}, {.deadline = 8s});
  auto start = std::chrono::steady_clock::now();
  absl::StatusOr<int64_t> put = any.put(key("a"), "1");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 5900ms);
}

TEST_F(EtcdClientTest, HomeIsBackAfterAWhile_TheClientGoesThere_AndItsLeaseLives) {
  Support::EtcdCluster cluster({.nodes = 3});
  Client::Options options{.deadline = 8s};
  options.goHomeAfter = 1ms;
  Client any(cluster.endpoints(), {}, options);
  auto lease = any.grant(60s);
  ASSERT_TRUE(lease.ok()) << lease.status();
  EXPECT_EQ(any.endpoint(), cluster.endpoint(0));
  cluster.end(0);
  ASSERT_TRUE(Support::waitUntil([&] { return any.keepAliveOnce(*lease).ok(); }));
  std::string away = any.endpoint();
  EXPECT_NE(away, cluster.endpoint(0));
  // It is asked each time in vain.
  ASSERT_TRUE(any.keepAliveOnce(*lease).ok());
  EXPECT_EQ(any.endpoint(), away);
  cluster.start(0);
  EXPECT_TRUE(Support::waitUntil(
      [&] { return any.keepAliveOnce(*lease).ok() && any.endpoint() == cluster.endpoint(0); }));
  EXPECT_GT(any.timeToLive(*lease)->left, 50s);
}

TEST_F(EtcdClientTest, HomeHangs_TheCallHasItsTime_AndTheConnectionElsewhereIsKept) {
  SilentServer silent;
  Client::Options options{.deadline = 4s};
  options.goHomeAfter = 1ms;
  Client any({silent.endpoint(), server->endpoint()}, {}, options);
  any.prefer(server->endpoint());
  for (int i = 0; i < 2; ++i) {
    absl::StatusOr<int64_t> put = any.put(key("a"), "1");
    ASSERT_TRUE(put.ok()) << put.status();
    EXPECT_EQ(any.endpoint(), server->endpoint());
  }
  EXPECT_GE(silent.connections(), 1u) << "it was asked";
}

TEST_F(EtcdClientTest, EndpointThatIsPreferred_IsAskedFirst) {
  SilentServer silent;
  Client any({silent.endpoint(), server->endpoint()}, {}, {.deadline = 8s});
  any.prefer(server->endpoint());
  EXPECT_EQ(any.endpoint(), server->endpoint());
  absl::StatusOr<int64_t> put = any.put(key("a"), "1");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_EQ(silent.connections(), 0u);
  any.prefer("h:1");
  EXPECT_EQ(any.endpoint(), server->endpoint()) << "it is none of its endpoints";
  // A connection is not kept for another endpoint.
  any.prefer(silent.endpoint());
  auto start = std::chrono::steady_clock::now();
  put = any.put(key("a"), "2");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 3900ms);
}

TEST_F(EtcdClientTest, DeletionIsNotAnswered_ItIsRepeated_AndSaysSo) {
  ASSERT_TRUE(client.put(key("a"), "1").ok());
  BrokenOff first(server->endpoint());
  Client any({first.endpoint(), server->endpoint()}, {});
  absl::StatusOr<Deletion> deletion = any.del(keys.all());
  ASSERT_TRUE(deletion.ok()) << deletion.status();
  EXPECT_EQ(deletion->keys, 0);
  EXPECT_TRUE(deletion->repeated);
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre());
  deletion = any.del(keys.all());
  ASSERT_TRUE(deletion.ok()) << deletion.status();
  EXPECT_FALSE(deletion->repeated);
}

TEST_F(EtcdClientTest, DeletionArrivedNowhere_TheNextOneIsTheFirst) {
  Client dead({deadEndpoint(), server->endpoint()}, {});
  absl::StatusOr<Deletion> deletion = dead.del(keys.all());
  ASSERT_TRUE(deletion.ok()) << deletion.status();
  EXPECT_FALSE(deletion->repeated);
  SilentServer silent;
  Client hung({silent.endpoint(), server->endpoint()}, {}, {.deadline = 6s});
  deletion = hung.del(keys.all());
  ASSERT_TRUE(deletion.ok()) << deletion.status();
  EXPECT_FALSE(deletion->repeated);
}

TEST(EtcdClientClusterTest, LeaderIsKilled_CallsGoOnAtTheOthers) {
  EtcdCluster cluster({.nodes = 3});
  Client client(cluster.endpoints(), {}, {.deadline = 10s});
  ASSERT_TRUE(client.put("k/a", "1").ok());
  cluster.end(cluster.leader());
  // Until there is a new leader calls fail; they say so, and do not hang.
  EXPECT_TRUE(waitUntil([&] { return client.put("k/b", "2").ok(); }, 20s));
  EXPECT_THAT(texts(client.range({"k/", "k0"})), ElementsAre("k/a=1", "k/b=2"));
}

// The first server goes away in the middle of a listing, and the next one is of another cluster, whose
// revision is as high.
TEST(EtcdClientClusterTest, EndpointsOfDifferentClusters_NoListingMixesThem) {
  EtcdCluster one;
  EtcdCluster other;
  for (const EtcdCluster* cluster : {&one, &other}) {
    Client client(cluster->endpoints(), {});
    std::vector<Op> ops;
    for (int i = 0; i < 100; ++i) {
      ops.push_back({.key = fmt::format("k/{:03}", i), .value = cluster == &one ? "one" : "other"});
    }
    ASSERT_TRUE(client.txn(ops).ok());
  }
  Support::Relay relay(Support::portOf(one.endpoint()));
  Client client({relay.endpoint(), other.endpoint()}, {}, {.pageKeys = 1});
  std::thread cutter([&] {
    EXPECT_TRUE(waitUntil([&] { return relay.bytesBack() > 1000; }));
    relay.cut();
  });
  absl::StatusOr<Listing> listing = client.range({"k/", "k0"});
  cutter.join();
  ASSERT_TRUE(listing.ok()) << listing.status();
  EXPECT_EQ(listing->records.size(), 100u);
  for (const Record& record : listing->records) EXPECT_EQ(record.value, "other");
}

// Each client believed the new store after a hold of its own, which began with its first call: what one of
// them had written was not renewed by another one for that long.
TEST(EtcdClientClusterTest, OtherStoreCountsForOneClient_ItDoesForThoseThatShareIts) {
  constexpr auto kHold = 2s;
  EtcdCluster cluster;
  auto known = std::make_shared<KnownStore>();
  Client first({cluster.endpoint()}, {}, {.hold = kHold, .known = known});
  Client second({cluster.endpoint()}, {}, {.hold = kHold, .known = known});
  Client alone({cluster.endpoint()}, {}, {.hold = kHold});
  for (Client* client : {&first, &second, &alone}) ASSERT_TRUE(client->put("k/a", "1").ok());
  cluster.restartEmpty();
  absl::StatusOr<int64_t> lease;
  EXPECT_TRUE(waitUntil([&] { return absl::IsUnavailable(first.grant(60s).status()); }, 20s));
  EXPECT_TRUE(waitUntil([&] { return (lease = first.grant(60s)).ok(); }, 20s));
  EXPECT_THAT(std::string(alone.keepAliveOnce(*lease).status().message()), HasSubstr("another store"));
  EXPECT_EQ(second.keepAliveOnce(*lease).status(), absl::OkStatus());
  EXPECT_TRUE(second.put("k/a", "2").ok());
}

// It has asked nothing yet, and would believe any.
TEST(EtcdClientClusterTest, ClientKnowsTheStoreOfThoseThatShareIts_BeforeItsFirstCall) {
  EtcdCluster cluster;
  auto known = std::make_shared<KnownStore>();
  Client first({cluster.endpoint()}, {}, {.hold = 300s, .known = known});
  Client second({cluster.endpoint()}, {}, {.hold = 300s, .known = known});
  ASSERT_TRUE(first.put("k/a", "1").ok());
  cluster.restartEmpty();
  absl::Status status;
  EXPECT_TRUE(waitUntil(
      [&] {
        status = second.get("k/a").status();
        return status.message().find("another store") != std::string::npos;
      },
      20s))
      << status;
}

TEST(EtcdClientClusterTest, NodeIsIsolated_ItSaysThatItHasNoLeader) {
  EtcdCluster cluster({.nodes = 3, .isolable = true});
  Client client({cluster.endpoint(1)}, {}, {.deadline = 2s});
  ASSERT_TRUE(client.put("k", "1").ok());
  cluster.isolate(1);
  EXPECT_TRUE(waitUntil([&] { return absl::IsUnavailable(client.get("k").status()); }, 20s));
  EXPECT_THAT(std::string(client.get("k").status().message()), HasSubstr("no leader"));
  Client elsewhere({cluster.endpoint(1), cluster.endpoint(0), cluster.endpoint(2)}, {}, {.deadline = 10s});
  EXPECT_TRUE(waitUntil([&] { return elsewhere.put("k", "2").ok(); }, 20s));
  // What it refuses so is not done, and done for the first time elsewhere.
  elsewhere.prefer(cluster.endpoint(1));
  absl::StatusOr<Deletion> deletion = elsewhere.del(KeyRange{"none", ""});
  ASSERT_TRUE(deletion.ok()) << deletion.status();
  EXPECT_EQ(deletion->keys, 0);
  EXPECT_FALSE(deletion->repeated);
  EXPECT_NE(elsewhere.endpoint(), cluster.endpoint(1));
  cluster.rejoin();
  EXPECT_TRUE(waitUntil([&] { return client.get("k").ok(); }, 20s));
  EXPECT_THAT(texts(client.get("k")), ElementsAre("k=2"));
}

}  // namespace
}  // namespace Kelstore::Etcd
