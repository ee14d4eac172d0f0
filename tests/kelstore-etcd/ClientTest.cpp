// The client against real etcd servers.
#include "etcd/Client.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "etcd/Channels.h"
#include "rpc.grpc.pb.h"
#include "support/Etcd.h"
#include "support/Network.h"
#include "support/Relay.h"

namespace Kelstore::Etcd {
namespace {

using namespace std::chrono_literals;
using Support::EtcdCluster;
using Support::Millis;
using Support::waitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::vector<std::string> texts(const absl::StatusOr<Listing>& listing) {
  if (!listing.ok()) return {std::string(listing.status().message())};
  std::vector<std::string> all;
  for (const KeyValue& keyValue : listing->keyValues) all.push_back(keyValue.key + "=" + keyValue.value);
  return all;
}

// Takes connections, and never says a word.
class SilentServer {
 public:
  SilentServer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    bool listens =
        bind(fd_, generic, length) == 0 && listen(fd_, 16) == 0 && getsockname(fd_, generic, &length) == 0;
    EXPECT_TRUE(listens);
    port_ = ntohs(address.sin_port);
  }
  ~SilentServer() { close(fd_); }
  std::string endpoint() const { return fmt::format("127.0.0.1:{}", port_); }

 private:
  int fd_;
  uint16_t port_ = 0;
};

std::string deadEndpoint() { return fmt::format("127.0.0.1:{}", Support::freeTcpPort()); }

// One server for all tests that leave it as it is; each test has a prefix of its own.
class EtcdClientTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { server = std::make_unique<EtcdCluster>(); }
  static void TearDownTestSuite() { server.reset(); }

  EtcdClientTest()
      : prefix(testing::UnitTest::GetInstance()->current_test_info()->name()),
        keys(prefix),
        client({server->endpoint()}, {}) {}

  std::string key(const std::string& name) const { return prefix + "/" + name; }

  static std::unique_ptr<EtcdCluster> server;
  std::string prefix;
  Keys keys;
  Client client;
};

std::unique_ptr<EtcdCluster> EtcdClientTest::server;

TEST_F(EtcdClientTest, PutGetDelete_EachChangeIsARevision) {
  absl::StatusOr<int64_t> put = client.put(key("a"), "1");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_THAT(texts(client.get(key("a"))), ElementsAre(key("a") + "=1"));
  EXPECT_EQ(client.get(key("a"))->keyValues[0].modRevision, *put);
  EXPECT_EQ(client.get(key("a"))->revision, *put);
  EXPECT_EQ(*client.put(key("a"), "2"), *put + 1);
  EXPECT_EQ(client.get(key("a"))->keyValues[0].createRevision, *put);
  EXPECT_EQ(*client.del(key("a")), *put + 2);
  EXPECT_THAT(texts(client.get(key("a"))), ElementsAre());
  EXPECT_EQ(*client.del(key("a")), *put + 2);  // nothing there: no change
  EXPECT_EQ(client.endpoint(), server->endpoint());
}

TEST_F(EtcdClientTest, RangeHoldsWhatIsBelowThePrefixOnly) {
  for (const char* name : {"a", "b/c", "\xff"}) ASSERT_TRUE(client.put(key(name), "1").ok());
  ASSERT_TRUE(client.put(prefix + "0", "beside").ok());
  ASSERT_TRUE(client.put(prefix, "above").ok());
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("a=1"), key("b/c=1"), key("\xff=1")));
  EXPECT_EQ(client.del(keys.all())->keys, 3);
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre());
  EXPECT_THAT(texts(client.get(prefix)), ElementsAre(prefix + "=above"));
}

TEST_F(EtcdClientTest, Transaction_OneRevisionOrNothing) {
  ASSERT_TRUE(client.put(key("old"), "1").ok());
  std::vector<Op> ops = {{.what = Op::What::del, .key = key("old")}};
  for (size_t i = 1; i < Client::kMaxTxnOps; ++i)
    ops.push_back({.key = key(fmt::format("{:03}", i)), .value = "x"});
  absl::StatusOr<int64_t> revision = client.txn(ops);
  ASSERT_TRUE(revision.ok()) << revision.status();
  absl::StatusOr<Listing> listing = client.range(keys.all());
  ASSERT_EQ(listing->keyValues.size(), Client::kMaxTxnOps - 1);
  for (const KeyValue& keyValue : listing->keyValues) EXPECT_EQ(keyValue.modRevision, *revision);
  EXPECT_EQ(listing->revision, *revision);

  ops.push_back({.key = key("one too many"), .value = "x"});
  EXPECT_THAT(std::string(client.txn(ops).status().message()),
              HasSubstr("too many operations in txn request"));
  ops = {{.key = key("twice"), .value = "x"}, {.key = key("twice"), .value = "y"}};
  EXPECT_THAT(std::string(client.txn(ops).status().message()),
              HasSubstr("duplicate key given in txn request"));
  EXPECT_EQ(client.range(keys.all())->revision, *revision);
}

TEST_F(EtcdClientTest, TransactionWithGuards_NothingUnlessAllHold) {
  absl::StatusOr<int64_t> revision = client.put(key("a"), "1");
  ASSERT_TRUE(revision.ok());
  const std::vector<Op> ops = {{.key = key("b"), .value = "2"}};
  EXPECT_TRUE(absl::IsAborted(client.txn(ops, {{key("a"), *revision - 1}}).status()));
  EXPECT_TRUE(absl::IsAborted(client.txn(ops, {{key("a"), *revision}, {key("none"), 1}}).status()));
  EXPECT_TRUE(absl::IsAborted(client.txn(ops, {{key("a"), 0}}).status()));
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("a=1")));
  EXPECT_TRUE(client.txn(ops, {{key("a"), *revision}, {key("b"), 0}}).ok());
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("a=1"), key("b=2")));
}

// Between any two pages somebody else changes, adds and deletes keys on both sides of where the pages are.
TEST_F(EtcdClientTest, PagedRange_IsOfOneRevision) {
  std::vector<std::string> expected;
  std::vector<Op> ops;
  for (int i = 0; i < 100; ++i) {
    ops.push_back({.key = key(fmt::format("{:03}", i)), .value = "old"});
    expected.push_back(ops.back().key + "=old");
  }
  ASSERT_TRUE(client.txn(ops).ok());
  // What was changed after the first page is seen in none: the pages are asked for on one connection, and the
  // writer keeps writing on another from before the first page until after the last.
  std::atomic<bool> done = false;
  std::atomic<int> written = 0;
  std::thread writer([&] {
    Client other({server->endpoint()}, {});
    for (int i = 0; !done; ++i) {
      std::vector<Op> all;
      for (int k = 0; k < 100; ++k)
        all.push_back({.key = key(fmt::format("{:03}", k)), .value = std::to_string(i)});
      if (other.txn(all).ok()) ++written;
    }
  });
  Client paging({server->endpoint()}, {}, {.pageKeys = 3});
  std::set<std::string> valuesSeen;
  bool whole = true;
  bool seen = waitUntil([&] {
    absl::StatusOr<Listing> listing = paging.range(keys.all());
    whole = whole && listing.ok() && listing->keyValues.size() == 100;
    if (!whole) return true;
    for (const KeyValue& keyValue : listing->keyValues) {
      whole = whole && keyValue.value == listing->keyValues[0].value;
    }
    valuesSeen.insert(listing->keyValues[0].value);
    return !whole || valuesSeen.size() >= 5;
  });
  done = true;
  writer.join();
  EXPECT_TRUE(whole);
  EXPECT_TRUE(seen) << valuesSeen.size() << " of " << written;
}

TEST_F(EtcdClientTest, PageLongerThanAMessageMayBe_IsAskedForInParts) {
  std::string large(1 << 20, 'x');
  for (int i = 0; i < 70; ++i) ASSERT_TRUE(client.put(key(fmt::format("{:02}", i)), large).ok());
  absl::StatusOr<Listing> listing = client.range(keys.all());
  ASSERT_TRUE(listing.ok()) << listing.status();
  ASSERT_EQ(listing->keyValues.size(), 70u);
  for (const KeyValue& keyValue : listing->keyValues) EXPECT_EQ(keyValue.value.size(), large.size());
  ASSERT_TRUE(client.del(keys.all()).ok());
}

TEST_F(EtcdClientTest, LeaseIsGrantedKeptAliveAndRevoked) {
  absl::StatusOr<int64_t> lease = client.grant(60s);
  ASSERT_TRUE(lease.ok()) << lease.status();
  ASSERT_TRUE(client.put(key("a"), "1", *lease).ok());
  ASSERT_TRUE(client.txn({{.key = key("b"), .value = "2", .lease = *lease}}).ok());
  ASSERT_TRUE(client.put(key("c"), "3").ok());
  EXPECT_EQ(client.get(key("a"))->keyValues[0].lease, *lease);
  EXPECT_EQ(client.timeToLive(*lease)->granted, 60s);
  ASSERT_TRUE(waitUntil([&] { return client.timeToLive(*lease)->left < 59s; }));
  EXPECT_EQ(*client.keepAliveOnce(*lease), 60s);
  EXPECT_GE(client.timeToLive(*lease)->left, 59s);

  EXPECT_TRUE(client.revoke(*lease).ok());
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("c=3")));
  std::string gone = fmt::format("there is no lease {:x}", *lease);
  for (const absl::Status& status :
       {client.revoke(*lease), client.keepAliveOnce(*lease).status(), client.timeToLive(*lease).status()}) {
    EXPECT_TRUE(absl::IsNotFound(status)) << status;
    EXPECT_EQ(status.message(), gone);
  }
  absl::Status put = client.put(key("d"), "4", *lease).status();
  EXPECT_TRUE(absl::IsNotFound(put)) << put;
}

TEST_F(EtcdClientTest, LeaseThatNobodyKeepsAlive_GoesWithItsKeys) {
  absl::StatusOr<int64_t> lease = client.grant(1s);
  ASSERT_TRUE(client.put(key("a"), "1", *lease).ok());
  EXPECT_TRUE(waitUntil([&] { return client.range(keys.all())->keyValues.empty(); }));
  EXPECT_TRUE(absl::IsNotFound(client.keepAliveOnce(*lease).status()));
}

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
  EXPECT_LT(took, 3s);
  EXPECT_TRUE(absl::IsDeadlineExceeded(waiting.keepAliveOnce(1).status()));
}

TEST_F(EtcdClientTest, SilentEndpointHoldsUpOnlyItsShareOfTheDeadline) {
  SilentServer silent;
  Client any({silent.endpoint(), server->endpoint()}, {}, {.deadline = 2s});
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(any.put(key("a"), "1").ok());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 990ms);
  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(any.put(key("a"), "2").ok());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
}

// Behind a link so slow that there is time between the pages of a listing.
class EtcdCompactionTest : public EtcdClientTest {
 protected:
  EtcdCompactionTest()
      : link(static_cast<uint16_t>(std::stoi(server->endpoint().substr(server->endpoint().find(':') + 1)))),
        paging({link.endpoint()}, {}, {.pageKeys = 1}) {
    std::vector<Op> ops;
    for (int i = 0; i < 50; ++i) ops.push_back({.key = key(fmt::format("{:03}", i)), .value = "x"});
    EXPECT_TRUE(client.txn(ops).ok());
    link.slow(5ms, 1'000'000);
  }

  // Everything up to a new revision, which is returned.
  int64_t compact() {
    auto kv = etcdserverpb::KV::NewStub(
        grpc::CreateChannel(server->endpoint(), grpc::InsecureChannelCredentials()));
    etcdserverpb::CompactionRequest request;
    request.set_revision(client.put(key("000"), "y").value());
    etcdserverpb::CompactionResponse response;
    grpc::ClientContext context;
    EXPECT_TRUE(kv->Compact(&context, request, &response).ok());
    return request.revision();
  }

  Support::Relay link;
  Client paging;
};

TEST_F(EtcdCompactionTest, BetweenTwoPages_ListingBeginsAgain) {
  std::atomic<int64_t> compacted = 0;
  std::thread compactor([&] {
    EXPECT_TRUE(waitUntil([&] { return link.bytesBack() > 1000; }));
    compacted = compact();
  });
  absl::StatusOr<Listing> listing = paging.range(keys.all());
  compactor.join();
  ASSERT_TRUE(listing.ok()) << listing.status();
  EXPECT_EQ(listing->keyValues.size(), 50u);
  EXPECT_EQ(listing->revision, compacted);
  EXPECT_EQ(listing->keyValues[0].value, "y");
}

TEST_F(EtcdCompactionTest, AgainAndAgain_ListingGivesUp) {
  std::atomic<bool> done = false;
  std::thread compactor([&] {
    while (!done) compact();
  });
  absl::Status status = paging.range(keys.all()).status();
  done = true;
  compactor.join();
  EXPECT_TRUE(absl::IsOutOfRange(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("required revision has been compacted"));
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
  std::string endpoint = one.endpoint();
  Support::Relay relay(static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.find(':') + 1))));
  Client client({relay.endpoint(), other.endpoint()}, {}, {.pageKeys = 1});
  std::thread cutter([&] {
    EXPECT_TRUE(waitUntil([&] { return relay.bytesBack() > 1000; }));
    relay.cut();
  });
  absl::StatusOr<Listing> listing = client.range({"k/", "k0"});
  cutter.join();
  ASSERT_TRUE(listing.ok()) << listing.status();
  EXPECT_EQ(listing->keyValues.size(), 100u);
  for (const KeyValue& keyValue : listing->keyValues) EXPECT_EQ(keyValue.value, "other");
}

TEST(EtcdClientClusterTest, NodeIsIsolated_ItSaysThatItHasNoLeader) {
  EtcdCluster cluster({.nodes = 3, .isolable = true});
  Client client({cluster.endpoint(1)}, {}, {.deadline = 2s});
  ASSERT_TRUE(client.put("k", "1").ok());
  cluster.isolate(1);
  EXPECT_TRUE(waitUntil([&] { return absl::IsUnavailable(client.get("k").status()); }, 20s));
  EXPECT_THAT(std::string(client.get("k").status().message()), HasSubstr("no leader"));
  Client elsewhere({cluster.endpoint(1), cluster.endpoint(0), cluster.endpoint(2)}, {});
  EXPECT_TRUE(waitUntil([&] { return elsewhere.put("k", "2").ok(); }, 20s));
  cluster.rejoin();
  EXPECT_TRUE(waitUntil([&] { return client.get("k").ok(); }, 20s));
  EXPECT_THAT(texts(client.get("k")), ElementsAre("k=2"));
}

// --- authentication

class EtcdAuthTest : public testing::Test {
 protected:
  void start(const Support::Argv& arguments = {}) {
    server = std::make_unique<EtcdCluster>(Support::EtcdOptions{.arguments = arguments});
    for (const auto& command :
         std::vector<Support::Argv>{{"user", "add", "root:rootpw"},
                                    {"user", "grant-role", "root", "root"},
                                    {"role", "add", "writer"},
                                    {"role", "grant-permission", "writer", "readwrite", "trel/", "--prefix"},
                                    {"user", "add", "trel:secret"},
                                    {"user", "grant-role", "trel", "writer"},
                                    {"auth", "enable"}}) {
      if (command[1] == "grant-role" && command[2] == "root") server->tryCtl({"role", "add", "root"});
      server->ctl(command);
    }
  }
  Access login(const std::string& user, const std::string& password) {
    Access access;
    access.credentialsFile =
        directory.write("login", fmt::format(R"({{"user": "{}", "password": "{}"}})", user, password));
    chmod(access.credentialsFile.c_str(), 0600);
    return access;
  }

  Support::TempDir directory;
  std::unique_ptr<EtcdCluster> server;
};

TEST_F(EtcdAuthTest, UserMayDoWhatItsRoleSays_AndNothingElse) {
  start();
  Client client(server->endpoints(), login("trel", "secret"));
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  absl::Status status = client.put("other/a", "1").status();
  EXPECT_TRUE(absl::IsPermissionDenied(status)) << status;
  EXPECT_EQ(status.message(), server->endpoint() + ": etcdserver: permission denied");
  EXPECT_TRUE(client.put("trel/a", "2").ok());
}

TEST_F(EtcdAuthTest, WrongPassword_RefusedUntilTheFileIsMended) {
  start();
  Client client(server->endpoints(), login("trel", "wrong"));
  absl::Status status = client.put("trel/a", "1").status();
  EXPECT_TRUE(absl::IsUnauthenticated(status)) << status;
  EXPECT_EQ(status.message(),
            fmt::format("{}: user \"trel\" of {} was refused", server->endpoint(), directory.file("login")));
  login("trel", "secret");
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  chmod(directory.file("login").c_str(), 0644);
  EXPECT_TRUE(client.put("trel/a", "2").ok());  // the token still holds
  Client late(server->endpoints(), {.credentialsFile = directory.file("login")});
  EXPECT_TRUE(absl::IsFailedPrecondition(late.put("trel/a", "3").status()));
}

TEST_F(EtcdAuthTest, NobodyIsAsked_CredentialsAreNotNeeded) {
  EtcdCluster open;
  Client client(open.endpoints(), login("trel", "secret"));
  EXPECT_TRUE(client.put("trel/a", "1").ok());
}

TEST_F(EtcdAuthTest, AuthenticationIsEnabledMeanwhile_ClientAuthenticates) {
  server = std::make_unique<EtcdCluster>();
  Client client(server->endpoints(), login("root", "rootpw"));
  Client without(server->endpoints(), {});
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  EXPECT_TRUE(without.put("trel/a", "1").ok());
  server->ctl({"user", "add", "root:rootpw"});
  server->tryCtl({"role", "add", "root"});
  server->ctl({"user", "grant-role", "root", "root"});
  server->ctl({"auth", "enable"});
  absl::StatusOr<int64_t> put = client.put("trel/a", "2");
  EXPECT_TRUE(put.ok()) << put.status();
  EXPECT_EQ(without.put("trel/a", "3").status().message(),
            server->endpoint() + ": etcdserver: user name is empty");
}

// The token of the first call runs out after a second; that it did is seen by trying it.
TEST_F(EtcdAuthTest, TokenRanOut_AnotherOneIsAskedFor) {
  start({"--auth-token-ttl", "1"});
  Access access = login("trel", "secret");
  Client client(server->endpoints(), access);
  EXPECT_TRUE(client.put("trel/a", "1").ok());
  auto channel = makeChannel(server->endpoint(), access);
  ASSERT_TRUE(channel.ok());
  auto token = authenticate(server->endpoint(), *channel, access, std::chrono::system_clock::now() + 5s);
  ASSERT_TRUE(token.ok()) << token.status();
  ASSERT_NE(*token, "");
  auto kv = etcdserverpb::KV::NewStub(*channel);
  // Each use gives the token another second, so that it is left alone for longer and longer.
  Millis pause = 1s;
  bool refused = waitUntil(
      [&] {
        std::this_thread::sleep_for(pause);
        pause += 500ms;
        etcdserverpb::RangeRequest request;
        request.set_key("trel/a");
        etcdserverpb::RangeResponse response;
        grpc::ClientContext context;
        addMetadata(context, *token);
        return tokenRefused(kv->Range(&context, request, &response));
      },
      20s);
  ASSERT_TRUE(refused);
  absl::StatusOr<int64_t> put = client.put("trel/a", "2");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_EQ(client.get("trel/a")->keyValues[0].value, "2");
}

TEST_F(EtcdAuthTest, ServerRestartsAndForgetsItsTokens_CallGoesThrough) {
  start();
  Client client(server->endpoints(), login("trel", "secret"));
  ASSERT_TRUE(client.put("trel/a", "1").ok());
  server->end(0);
  server->start(0);
  absl::StatusOr<int64_t> put = client.put("trel/a", "2");
  EXPECT_TRUE(put.ok()) << put.status();
}

TEST_F(EtcdAuthTest, RolesChangeMeanwhile_CallGoesThrough) {
  start();
  Client client(server->endpoints(), login("trel", "secret"));
  ASSERT_TRUE(client.put("trel/a", "1").ok());
  server->ctl({"role", "grant-permission", "writer", "readwrite", "other/", "--prefix"}, "root:rootpw");
  absl::StatusOr<int64_t> put = client.put("other/a", "2");
  EXPECT_TRUE(put.ok()) << put.status();
}

// --- TLS

class EtcdTlsTest : public testing::Test {
 protected:
  // A CA, and certificates of it for the server and for a client.
  static void SetUpTestSuite() {
    directory = std::make_unique<Support::TempDir>();
    authority("ca");
    authority("stranger");
    certificate("server", "ca");
    certificate("client", "ca");
    certificate("intruder", "stranger");
    Support::EtcdOptions options;
    options.caFile = file("ca.pem");
    options.certFile = file("server.pem");
    options.keyFile = file("server.key");
    server = std::make_unique<EtcdCluster>(options);
  }
  static void TearDownTestSuite() {
    server.reset();
    directory.reset();
  }

  static std::string file(const std::string& name) { return directory->file(name); }
  static void openssl(Support::Argv arguments) {
    arguments.insert(arguments.begin(), "openssl");
    Support::Result result = Support::run(arguments);
    ASSERT_EQ(result.status, 0) << result.err;
  }
  static void authority(const std::string& name) {
    openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
             "2", "-subj", "/CN=" + name, "-keyout", file(name + ".key"), "-out", file(name + ".pem")});
  }
  static void certificate(const std::string& name, const std::string& authority) {
    openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
             "/CN=" + name, "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", file(name + ".key"), "-out",
             file(name + ".csr")});
    openssl({"x509", "-req", "-days", "2", "-in", file(name + ".csr"), "-copy_extensions", "copy", "-CA",
             file(authority + ".pem"), "-CAkey", file(authority + ".key"), "-CAcreateserial", "-out",
             file(name + ".pem")});
  }
  static Access access(const std::string& authority, const std::string& name) {
    Access access;
    access.caFile = file(authority + ".pem");
    if (!name.empty()) {
      access.certFile = file(name + ".pem");
      access.keyFile = file(name + ".key");
    }
    return access;
  }
  static absl::StatusOr<int64_t> putWith(const Access& with) {
    return Client(server->endpoints(), with, {.deadline = 3s}).put("k/a", "1");
  }

  static std::unique_ptr<Support::TempDir> directory;
  static std::unique_ptr<EtcdCluster> server;
};

std::unique_ptr<Support::TempDir> EtcdTlsTest::directory;
std::unique_ptr<EtcdCluster> EtcdTlsTest::server;

TEST_F(EtcdTlsTest, BothSidesShowACertificateOfTheCa) {
  absl::StatusOr<int64_t> put = putWith(access("ca", "client"));
  EXPECT_TRUE(put.ok()) << put.status();
}

TEST_F(EtcdTlsTest, ServerOfAnotherCaIsNotTrusted) {
  testing::internal::CaptureStderr();
  absl::Status status = putWith(access("stranger", "client")).status();
  EXPECT_TRUE(absl::IsUnavailable(status) || absl::IsDeadlineExceeded(status)) << status;
  // Nor is it with the CAs of the system.
  Access system = access("ca", "client");
  system.caFile.clear();
  EXPECT_FALSE(putWith(system).ok());
  // The error is the caller's to show; nothing of it is written past the caller.
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(EtcdTlsTest, ServerRefusesWhoHasNoCertificateOfItsCa) {
  EXPECT_FALSE(putWith(access("ca", "")).ok());
  EXPECT_FALSE(putWith(access("ca", "intruder")).ok());
  EXPECT_FALSE(putWith({}).ok());
}

TEST_F(EtcdTlsTest, CertificateWithoutTheServersAddressIsNotTrusted) {
  // The same server by a name that its certificate does not have.
  std::string byName = "localhost" + server->endpoint().substr(server->endpoint().find(':'));
  EXPECT_FALSE(Client({byName}, access("ca", "client"), {.deadline = 3s}).put("k/a", "1").ok());
}

TEST_F(EtcdTlsTest, FilesAreReadAgainForANewConnection) {
  Support::TempDir own;
  Access replaced = access("ca", "client");
  replaced.certFile = own.write("cert.pem", Support::readFile(file("intruder.pem")));
  replaced.keyFile = own.write("key.pem", Support::readFile(file("intruder.key")));
  chmod(replaced.keyFile.c_str(), 0600);
  Client client(server->endpoints(), replaced, {.deadline = 3s});
  EXPECT_FALSE(client.put("k/a", "1").ok());
  own.write("cert.pem", Support::readFile(file("client.pem")));
  own.write("key.pem", Support::readFile(file("client.key")));
  absl::StatusOr<int64_t> put = client.put("k/a", "1");
  EXPECT_TRUE(put.ok()) << put.status();
  own.write("key.pem", "no key");
  EXPECT_TRUE(client.put("k/a", "2").ok());
  Client late(server->endpoints(), replaced);
  absl::Status status = late.put("k/a", "3").status();
  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_EQ(status.message(), replaced.keyFile + ": expected a file in PEM format");
}

}  // namespace
}  // namespace Kelstore::Etcd
