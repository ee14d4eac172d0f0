// A daemon that follows three etcd servers under steady change, while things happen to them and to the
// network between. After each fault the five tables equal the store's content within a stated time, as a
// model of the tables has it that knows neither the library nor etcd; no row that was there all along was
// ever missing from a walk; and unless all had to be read anew, each revision was applied once.
//
// The resync is put off, so that it mends nothing; but in the last test, where nothing else can.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <sys/stat.h>

#include <chrono>

#include "kelstore/etcd/Client.h"
#include "kelstore/etcd/rpc.grpc.pb.h"
#include "tests/e2e/Daemon.h"
#include "tests/etcd-faults/Following.h"
#include "tests/etcd-faults/LossyProxy.h"
#include "tests/etcd-faults/StoreState.h"
#include "tests/etcd-faults/Walker.h"
#include "tests/etcd-faults/Writer.h"
#include "tests/support/Etcd.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"
#include "tests/wire/Model.h"

namespace Faults {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Support::EtcdCluster;
using Support::Millis;
using Support::waitUntil;
using testing::HasSubstr;

constexpr uint64_t kSeed = 7;
// From the end of a fault to tables that equal the store. After a long one the daemon may be in a pause
// between two attempts, of 10 s at most.
constexpr Millis kPrompt = 10s;
constexpr Millis kAfterPause = 15s;
// A server that is gone is noticed at once, one that has lost the others within seconds, silence after 15 s.
constexpr Millis kNoticed = 25s;

const std::string kFirst = std::string(kPrefix) + "/";

// The number of revisions below the prefix in (after, until], and of changes in them, as a server tells who
// watches from the first of these on. Requires: `until` is one of them.
struct History {
  int64_t revisions = 0;
  int64_t events = 0;
};
History historyOf(const std::string& endpoint, int64_t after, int64_t until) {
  namespace Rpc = etcdserverpb;
  auto stub = Rpc::Watch::NewStub(grpc::CreateChannel(endpoint, grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + 20s);
  auto stream = stub->Watch(&context);
  Rpc::WatchRequest request;
  request.mutable_create_request()->set_key(kFirst);
  request.mutable_create_request()->set_range_end(kAll.end);
  request.mutable_create_request()->set_start_revision(after + 1);
  stream->Write(request);
  History history;
  int64_t last = after;
  Rpc::WatchResponse response;
  while (last < until && stream->Read(&response)) {
    for (const Rpc::Event& event : response.events()) {
      history.revisions += event.kv().mod_revision() > last ? 1 : 0;
      history.events += 1;
      last = event.kv().mod_revision();
    }
  }
  context.TryCancel();
  stream->Finish();
  if (last != until) throw std::runtime_error(fmt::format("history ends at {}, not at {}", last, until));
  return history;
}

class EtcdFaultsTest : public testing::Test {
 protected:
  struct World {
    World()
        : rootLogin(login("root", "rootpw")),
          followerLogin(login("follower", "wrong")),
          client(cluster.endpoints(), {.credentialsFile = rootLogin}),
          writer(cluster.endpoints(), {.credentialsFile = rootLogin}, kSeed) {
      for (const std::string& endpoint : cluster.endpoints()) {
        doors.push_back(std::make_unique<Support::Relay>(Support::portOf(endpoint)));
      }
      snapshot = directory.file("snapshot");
      cluster.saveSnapshot(snapshot);
      follower = std::make_unique<Following>(
          fmt::format("{},{},{}", doors[0]->endpoint(), doors[1]->endpoint(), doors[2]->endpoint()),
          Support::Argv{"--resync", "3600", "--etcd-credentials", followerLogin});
      walker = std::make_unique<Walker>(follower->port(), namesOf(follower->expected(writer.lasting())));
    }
    std::string login(const std::string& user, const std::string& password) {
      std::string file =
          directory.write(user, fmt::format(R"({{"user": "{}", "password": "{}"}})", user, password));
      chmod(file.c_str(), 0600);
      return file;
    }

    Support::TempDir directory;
    EtcdCluster cluster{{.nodes = 3, .isolable = true}};
    std::vector<std::unique_ptr<Support::Relay>> doors;  // between the daemon and each node
    std::string rootLogin;
    std::string followerLogin;
    Kelstore::Etcd::Client client;
    Writer writer;
    std::string snapshot;
    std::unique_ptr<Following> follower;
    std::unique_ptr<Walker> walker;
  };

  static void SetUpTestSuite() { world = std::make_unique<World>(); }
  static void TearDownTestSuite() { world.reset(); }

  // Each test begins with tables that equal the store, at this revision.
  void SetUp() override {
    settles(kAfterPause);
    ASSERT_FALSE(HasFailure());
    walksBefore_ = world->walker->walks();
    world->writer.goOn();
    writes(10);
  }
  void TearDown() override {
    world->writer.pause();
    fmt::print("  {} walks meanwhile\n", world->walker->walks() - walksBefore_);
    EXPECT_GE(world->walker->walks() - walksBefore_, 10u);
    for (auto& door : world->doors) door->heal();
    world->cluster.rejoin();
    EXPECT_EQ(world->walker->complaints(), "");
    // All is mended by following, nothing by chance.
    EXPECT_EQ(follower().counters().at("repairs"), 0);
  }

  static Following& follower() { return *world->follower; }
  static EtcdCluster& cluster() { return world->cluster; }
  static void allDoors(void (Support::Relay::*method)()) {
    for (auto& door : world->doors) (door.get()->*method)();
  }
  // Waits until so many transactions more were carried out.
  static void writes(uint64_t transactions) {
    uint64_t enough = world->writer.written() + transactions;
    ASSERT_TRUE(waitUntil([&] { return world->writer.written() >= enough; }, 30s));
  }
  // The node that the daemon listens to.
  static size_t followed() {
    size_t node = world->doors.size();
    auto known = [&] {
      std::string endpoint = follower().endpoint();
      for (node = 0; node < world->doors.size(); ++node) {
        if (world->doors[node]->endpoint() == endpoint) return true;
      }
      return false;
    };
    if (!waitUntil(known, kNoticed))
      throw std::runtime_error("it follows no node: " + follower().store().dump());
    return node;
  }
  // Waits until the daemon listens to another node than that one.
  static void isLeft(size_t node) {
    EXPECT_TRUE(waitUntil([&] { return followed() != node; }, kNoticed));
  }
  static testing::AssertionResult becomes(const std::string& state) {
    if (waitUntil([&] { return follower().state() == state; }, kNoticed)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << follower().store();
  }

  // What a call comes to once the servers have a leader again, who may have lost a vote because of a fault.
  template <class Call>
  auto answered(Call call) {
    auto answer = call();
    bool first = true;
    waitUntil(
        [&] {
          if (!first) answer = call();
          first = false;
          return !absl::IsUnavailable(answer.status()) && !absl::IsDeadlineExceeded(answer.status());
        },
        kNoticed);
    return answer;
  }

  // The writer pauses; the tables equal the store within that time.
  void settles(Millis within) {
    auto start = std::chrono::steady_clock::now();
    world->writer.pause();
    // Marks the end; it is no row's.
    auto revision = answered([] { return world->client.put(kFirst + "sysname", "\"cluster\""); });
    ASSERT_TRUE(revision.ok()) << revision.status();
    auto listing = answered([] { return world->client.range(kAll); });
    ASSERT_TRUE(listing.ok()) << listing.status();
    EXPECT_TRUE(follower().becomes(documentOf(*listing), *revision, within));
    auto took = std::chrono::duration_cast<Millis>(std::chrono::steady_clock::now() - start);
    fmt::print("  equal after {} ms, {} keys, revision {}\n", took.count(), listing->records.size(),
               *revision);
    settledIn_ = took;
    // What is told may be a moment older than what is served.
    ASSERT_TRUE(waitUntil([&] {
      look();
      return settledAt_ >= *revision;
    }));
  }
  // The revision that the daemon has come to, and what it has counted by then. It may be past the one that
  // was put last: what a call did that was repeated, as nobody answered it, may come later.
  void look() {
    nlohmann::json status = follower().status();
    settledAt_ = status.at("stores").at(0).at("revision");
    settledCounters_ = Following::countersIn(status);
  }
  // The same; and since the tables were equal last, every revision was applied once. `listings`: how many new
  // ones there may have been instead, as when a server that lost the others ends a watch.
  void settlesWithoutALoss(Millis within, int64_t listings = 0) {
    int64_t before = settledAt_;
    auto countersBefore = settledCounters_;
    settles(within);
    auto since = [&](const char* name) { return settledCounters_.at(name) - countersBefore.at(name); };
    EXPECT_LE(since("relists"), listings);
    if (since("relists") > 0) return;
    History history = historyOf(world->client.endpoint(), before, settledAt_);
    EXPECT_EQ(since("revisions"), history.revisions);
    EXPECT_EQ(since("events") - since("dropped"), history.events);
    EXPECT_GT(history.revisions, 0);
  }
  // The leader is so many nodes after the followed one.
  void followedIsKilled(size_t leader) {
    size_t node = followed();
    cluster().leaderIs((node + leader) % cluster().size());
    writes(10);
    cluster().end(node);
    isLeft(node);
    writes(50);
    cluster().start(node);
    settlesWithoutALoss(kPrompt);
  }
  // The servers have another store than before, and an operator accepts it.
  static void accepts() {
    EXPECT_TRUE(waitUntil([] { return follower().otherStore() != ""; }, kNoticed)) << follower().store();
    EXPECT_EQ(follower().daemon().ctl({"store", "accept"}).status, 0);
  }
  // Since the tables were equal before that.
  int64_t relistsSince(int64_t before) const { return settledCounters_.at("relists") - before; }

  static std::unique_ptr<World> world;
  int64_t settledAt_ = 0;
  Millis settledIn_{0};
  std::map<std::string, int64_t> settledCounters_;
  uint64_t walksBefore_ = 0;
};

std::unique_ptr<EtcdFaultsTest::World> EtcdFaultsTest::world;

TEST_F(EtcdFaultsTest, NoFault_EachRevisionIsAppliedOnce) {
  writes(200);
  settlesWithoutALoss(kPrompt);
}

TEST_F(EtcdFaultsTest, LeaderIsKilled) { followedIsKilled(0); }
TEST_F(EtcdFaultsTest, NodeThatIsFollowedIsKilled_AnotherLeads) { followedIsKilled(1); }

// It is up and answers, but hears nothing of what the others decide.
TEST_F(EtcdFaultsTest, NodeThatIsFollowedIsPartitionedFromTheOthers) {
  size_t node = followed();
  cluster().isolate(node);
  isLeft(node);
  writes(50);
  cluster().rejoin();
  settlesWithoutALoss(kPrompt, 2);
}

TEST_F(EtcdFaultsTest, DaemonIsPartitionedFromAllNodes_ConnectionsEnd) {
  allDoors(&Support::Relay::cut);
  EXPECT_TRUE(becomes("held"));
  writes(100);
  allDoors(&Support::Relay::heal);
  settlesWithoutALoss(kAfterPause);
}

TEST_F(EtcdFaultsTest, DaemonIsPartitionedInSilence_HistoryIsCompactedMeanwhile) {
  allDoors(&Support::Relay::freeze);
  EXPECT_TRUE(becomes("held"));
  writes(50);
  cluster().ctl({"compact", std::to_string(world->writer.revision())});
  writes(50);
  allDoors(&Support::Relay::heal);
  int64_t before = settledCounters_.at("relists");
  settles(kAfterPause);
  EXPECT_GE(relistsSince(before), 1);
}

TEST_F(EtcdFaultsTest, AllNodesRestart) {
  for (size_t node = 0; node < cluster().size(); ++node) cluster().end(node, SIGTERM);
  EXPECT_TRUE(becomes("held"));
  for (size_t node = 0; node < cluster().size(); ++node) cluster().launch(node);
  for (size_t node = 0; node < cluster().size(); ++node) cluster().awaitHealthy(node);
  writes(50);
  settlesWithoutALoss(kAfterPause);
}

// The revision goes back by all that was written since, and the cluster is another one: an operator says that
// it counts.
TEST_F(EtcdFaultsTest, ClusterIsRestoredFromAnOlderSnapshot) {
  world->writer.pause();
  int64_t revisionBefore = world->writer.revision();
  int64_t relistsBefore = settledCounters_.at("relists");
  cluster().restartFrom(world->snapshot);
  accepts();
  settles(kAfterPause);
  EXPECT_LT(settledAt_, revisionBefore);
  EXPECT_GE(relistsSince(relistsBefore), 1);
  world->writer.goOn();
  writes(50);
  settlesWithoutALoss(kPrompt);
}

// By the time that the daemon hears of it again, the restored cluster is past every revision that was known
// of the other one: only the cluster's id tells.
TEST_F(EtcdFaultsTest, RestoredClusterHasOvertakenTheOtherOne) {
  std::string snapshot = world->directory.file("later");
  world->writer.pause();
  cluster().saveSnapshot(snapshot);
  world->writer.goOn();
  writes(50);
  settles(kPrompt);
  int64_t revisionBefore = settledAt_;
  int64_t relistsBefore = settledCounters_.at("relists");
  allDoors(&Support::Relay::cut);
  cluster().restartFrom(snapshot);
  for (int64_t revision = 0; revision <= revisionBefore;) {
    absl::StatusOr<int64_t> put = world->client.put("other/key", std::to_string(revision));
    ASSERT_TRUE(put.ok()) << put.status();
    revision = *put;
  }
  allDoors(&Support::Relay::heal);
  accepts();
  settles(kAfterPause);
  EXPECT_GT(settledAt_, revisionBefore);
  EXPECT_GE(relistsSince(relistsBefore), 1);
}

TEST_F(EtcdFaultsTest, AuthenticationFails_UntilTheCredentialsAreMended) {
  cluster().ctl({"user", "add", "root:rootpw"});
  cluster().tryCtl({"role", "add", "root"});
  cluster().ctl({"user", "grant-role", "root", "root"});
  cluster().ctl({"role", "add", "follower"});
  cluster().ctl({"role", "grant-permission", "follower", "read", kAll.first, kAll.end});
  cluster().ctl({"user", "add", "follower:secret"});
  cluster().ctl({"user", "grant-role", "follower", "follower"});
  cluster().ctl({"auth", "enable"});
  // What is open stays open; a new connection is asked for a name.
  allDoors(&Support::Relay::cut);
  allDoors(&Support::Relay::heal);
  EXPECT_TRUE(becomes("held"));
  EXPECT_TRUE(waitUntil(
      [&] { return follower().store().at("lastError").dump().find("refused") != std::string::npos; },
      kNoticed));
  writes(50);
  world->login("follower", "secret");
  settles(kAfterPause);
  cluster().ctl({"auth", "disable"}, "root:rootpw");
  world->writer.goOn();
  writes(50);
  settlesWithoutALoss(kAfterPause);
}

TEST_F(EtcdFaultsTest, LinkToAllNodesIsSlow) {
  constexpr Millis kDelay = 150ms;
  for (auto& door : world->doors) door->slow(kDelay, 200'000);
  writes(100);
  settlesWithoutALoss(kPrompt);
  EXPECT_GE(settledIn_, kDelay);
}

// The server, or what is between, keeps one deletion to itself: nothing shows that it is missing but the
// keys.
TEST(EtcdResyncTest, DeletionIsLostInSilence_TheResyncRepairsIt) {
  EtcdCluster cluster;
  Writer writer(cluster.endpoints(), {}, kSeed);
  Kelstore::Etcd::Client client(cluster.endpoints(), {});
  LossyProxy proxy(cluster.endpoint());
  constexpr int kResyncSeconds = 3;
  Following follower(proxy.endpoint(), {"--resync", std::to_string(kResyncSeconds)});
  Walker walker(follower.port(), namesOf(follower.expected(writer.lasting())));
  std::string key = kFirst + "members/77/processors/1";
  ASSERT_TRUE(client.put(key, R"({"load": 1})").ok());
  auto document = [&] { return documentOf(*client.range(kAll)); };
  json before = document();
  ASSERT_TRUE(follower.becomes(before, 0, kPrompt));

  proxy.loseNextDeletion();
  ASSERT_TRUE(client.del(key).ok());
  ASSERT_TRUE(waitUntil([&] { return proxy.lost() == key; }));
  absl::StatusOr<int64_t> after = client.put(kFirst + "sysname", "\"after\"");
  // The row is there no longer, and is served all the same, by who knows all that came after.
  EXPECT_TRUE(waitUntil([&] { return follower.store().at("mirroredRevision") >= *after; }));
  EXPECT_EQ(follower.counters().at("repairs"), 0);
  EXPECT_EQ(follower.served().size(), follower.expected(before).size());

  EXPECT_TRUE(follower.becomes(document(), *after, Millis(1s * kResyncSeconds) + kPrompt));
  EXPECT_TRUE(waitUntil([&] { return follower.counters().at("repairs") == 1; }));
  EXPECT_EQ(follower.counters().at("relists"), 0);
  writer.goOn();
  EXPECT_TRUE(waitUntil([&] { return writer.written() > 100; }));
  writer.pause();
  after = client.put(kFirst + "sysname", "\"end\"");
  EXPECT_TRUE(follower.becomes(document(), *after, kPrompt));
  // Nothing of what was on its way during a resync was taken for a loss.
  EXPECT_EQ(follower.counters().at("repairs"), 1);
  EXPECT_EQ(walker.complaints(), "");
}

// Each change came with the next resync only, for ever.
TEST(EtcdResyncTest, WatchIsDeadButAnswersForProgress_AnotherOneIsOpenedInItsPlace) {
  EtcdCluster cluster;
  Kelstore::Etcd::Client client(cluster.endpoints(), {});
  constexpr int kResyncSeconds = 20;
  constexpr const char* kKey = "members/77/processors/1";
  auto put = [&](int load) { return client.put(kFirst + kKey, fmt::format(R"({{"load": {}}})", load)); };
  // A server that is starved for ten seconds is left, which opens another watch as well.
  for (bool wasLeft = true; wasLeft;) {
    ASSERT_TRUE(put(0).ok());
    LossyProxy proxy(cluster.endpoint());
    Following follower(proxy.endpoint(), {"--resync", std::to_string(kResyncSeconds)});
    ASSERT_TRUE(follower.becomes(documentOf(*client.range(kAll)), 0, kAfterPause));
    Walker walker(follower.port(), namesOf(follower.expected(documentOf(*client.range(kAll)))));
    proxy.killWatches();
    ASSERT_TRUE(put(1).ok());
    EXPECT_TRUE(
        follower.becomes(documentOf(*client.range(kAll)), 0, Millis(1s * kResyncSeconds) + kAfterPause));
    absl::StatusOr<int64_t> last = put(2);
    EXPECT_TRUE(follower.becomes(documentOf(*client.range(kAll)), *last, kPrompt));
    wasLeft = follower.counters().at("reconnections") > follower.counters().at("reopenings");
    if (wasLeft) continue;
    EXPECT_EQ(follower.counters().at("reopenings"), 1);
    EXPECT_EQ(follower.counters().at("repairs"), 1);
    EXPECT_EQ(walker.complaints(), "");
  }
}

// The watch overtakes the pages that are read meanwhile: that is no loss, however often all is read anew.
TEST(EtcdResyncTest, LinkIsSlow_WhatIsOnItsWayDuringAResyncIsNoLoss) {
  EtcdCluster cluster;
  Writer writer(cluster.endpoints(), {}, kSeed);
  Kelstore::Etcd::Client client(cluster.endpoints(), {});
  Support::Relay door(Support::portOf(cluster.endpoint()));
  Following follower(door.endpoint(), {"--resync", "1"});
  Walker walker(follower.port(), namesOf(follower.expected(writer.lasting())));
  door.slow(150ms, 200'000);
  writer.goOn();
  int64_t before = follower.counters().at("resyncs");
  EXPECT_TRUE(waitUntil(
      [&] { return follower.counters().at("resyncs") >= before + 8 && writer.written() > 500; }, 60s));
  writer.pause();
  absl::StatusOr<int64_t> end = client.put(kFirst + "sysname", "\"end\"");
  ASSERT_TRUE(end.ok()) << end.status();
  EXPECT_TRUE(follower.becomes(documentOf(*client.range(kAll)), *end, kPrompt));
  for (const char* counter : {"repairs", "relists", "reconnections", "resyncFailures"}) {
    EXPECT_EQ(follower.counters().at(counter), 0) << counter;
  }
  EXPECT_EQ(walker.complaints(), "");
}

}  // namespace
}  // namespace Faults
