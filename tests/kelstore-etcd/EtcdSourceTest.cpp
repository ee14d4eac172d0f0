// The source against real servers: with its own thread, and an event loop that the test turns.
#include "kelstore/etcd/EtcdSource.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>

#include "kelstore/etcd/Client.h"
#include "tests/kelstore-etcd/EtcdSourceFixture.h"
#include "tests/kelstore-etcd/SilentServer.h"
#include "tests/support/EtcdAccess.h"
#include "tests/support/HangingMount.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"
#include "tests/support/TempDir.h"

namespace Kelstore::Etcd {
namespace {

using testing::HasSubstr;

TEST_F(EtcdSourceTest, KeysAreListedAndFollowed) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  put(etcd, "p2/interfaces/a", ifIndex(99));
  start(etcd.endpoint());
  EXPECT_EQ(status().state, State::loading);
  ASSERT_TRUE(untilState(State::current));
  ASSERT_TRUE(untilIndex(1));
  EXPECT_TRUE(world_.layers.idle());
  EXPECT_EQ(status().store->endpoint, etcd.endpoint());
  EXPECT_EQ(status().paths, 1u);
  EXPECT_EQ(status().name, "etcd:" + etcd.endpoint() + "/p");

  put(etcd, "p/interfaces/a", ifIndex(2));
  ASSERT_TRUE(untilIndex(2));
  EXPECT_NE(status().lastChangeUtcNs, 0u);
  EXPECT_EQ(status().store->revision, status().store->mirroredRevision);
  etcd.ctl({"del", "p/interfaces/a"});
  EXPECT_TRUE(untilIndex(0));
  EXPECT_EQ(counter("revisions"), 2u);
  EXPECT_EQ(counter("events"), 2u);
  EXPECT_EQ(counter("dropped"), 0u);
}

TEST_F(EtcdSourceTest, MoreKeysThanAPageHolds_AreListed_AndALargeTransactionIsOneRevision) {
  Support::EtcdCluster etcd;
  Client client(etcd.endpoints(), {});
  auto write = [&client](int from, int count, const std::string& value) {
    std::vector<Op> ops;
    for (int i = from; i < from + count; ++i) {
      ops.push_back({Op::What::put, "p/interfaces/i" + std::to_string(i), value, 0});
    }
    return client.txn(ops).ok();
  };
  for (int i = 0; i < 1200; i += 100) ASSERT_TRUE(write(i, 100, ifIndex(1)));
  start(etcd.endpoint());
  ASSERT_TRUE(until([&] { return index("i1199") == 1; }));
  EXPECT_EQ(status().paths, 1200u);
  ASSERT_TRUE(write(0, 100, ifIndex(2) + std::string(4'000, ' ')));
  ASSERT_TRUE(until([&] { return index("i99") == 2; }));
  EXPECT_EQ(counter("revisions"), 1u);
  EXPECT_EQ(counter("events"), 100u);
}

// As much as a message may hold, and more: the refusal of the first page counted as a server that was tried
// in vain, so that the others were served without these keys.
TEST_F(EtcdSourceTest, KeysAreMoreThanAMessageHolds_TheyAreReadBeforeItSettles) {
  Support::EtcdCluster etcd;
  Client client(etcd.endpoints(), {});
  FollowSettings settings;
  settings.limits.valueBytes = 2'000'000;
  std::string large(1'400'000, ' ');
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(client.put("p/interfaces/i" + std::to_string(i), ifIndex(1) + large).ok());
  }
  start(etcd.endpoint(), settings);
  ASSERT_TRUE(until([&] { return world_.layers.idle(); }));
  EXPECT_EQ(status().state, State::current);
  EXPECT_EQ(index("i49"), 1u);
}

TEST_F(EtcdSourceTest, NoServer_OthersAreServed_AndItIsCompleteWhenOneComes) {
  uint16_t port = Support::freeTcpPort();
  LayeredState::Layer other = world_.layers.addLayer();
  start("127.0.0.1:" + std::to_string(port));
  world_.says(R"({"interfaces": {"b": {"ifIndex": 7}}})", other);
  ASSERT_TRUE(until([&] { return world_.layers.idle(); })) << "it keeps nobody waiting";
  EXPECT_EQ(status().state, State::stale);
  EXPECT_THAT(status().error, HasSubstr("refused"));
  EXPECT_EQ(status().store->state, "stale");
  EXPECT_EQ(index("b"), 7u);

  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  put(etcd, "p/interfaces/c", ifIndex(3));
  Support::Relay relay(Support::portOf(etcd.endpoint()), port);
  ASSERT_TRUE(untilState(State::current)) << status().error;
  ASSERT_TRUE(untilIndex(1));
  EXPECT_EQ(index("b"), 7u);
  EXPECT_EQ(index("c"), 3u);
  EXPECT_EQ(status().error, "");
  EXPECT_EQ(status().staleSinceUtcNs, 0u);
  EXPECT_EQ(status().paths, 2u);
}

TEST_F(EtcdSourceTest, ServerAcceptsAndNeverAnswers_ItSettlesAfterAWhile) {
  SilentServer hung;
  start(hung.endpoint());
  EXPECT_FALSE(world_.layers.idle());
  io_.advance(EtcdSource::kPatienceMs);
  EXPECT_TRUE(world_.layers.idle());
  EXPECT_EQ(status().state, State::stale);
  EXPECT_EQ(status().staleSinceUtcNs, status().store->staleSinceUtcNs);
  EXPECT_EQ(status().error, "its keys have not been read yet");
  // And it ends, though the server never will.
  source_.reset();
}

// How soon each is left, ThreeServersTest knows.
TEST_F(EtcdSourceTest, TwoServersAreSilent_TheThirdIsHeard) {
  SilentServer first;
  SilentServer second;
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  start(first.endpoint() + "," + second.endpoint() + "," + etcd.endpoint());
  EXPECT_TRUE(until([&] { return index() == 1; }, 60s)) << status().error;
}

TEST_F(EtcdSourceTest, ServerIsHeardAfterPatienceEnded_ItIsStaleNoLonger) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  Support::Relay relay(Support::portOf(etcd.endpoint()));
  relay.freeze();
  start(relay.endpoint());
  io_.advance(EtcdSource::kPatienceMs);
  EXPECT_EQ(status().state, State::stale);
  relay.heal();
  ASSERT_TRUE(untilIndex(1));
  EXPECT_EQ(status().state, State::current);
  EXPECT_EQ(status().staleSinceUtcNs, 0u);
  EXPECT_EQ(status().store->staleSinceUtcNs, 0u);
}

TEST_F(EtcdSourceTest, ServerIsGone_TheStateIsHeld_ThenStale_AndFollowedAgain) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  FollowSettings settings;
  settings.holdSeconds = 2;
  start(etcd.endpoint(), settings);
  ASSERT_TRUE(untilIndex(1));
  log_.clear();
  etcd.end(0);
  ASSERT_TRUE(untilState(State::held));
  EXPECT_EQ(status().store->state, "held");
  EXPECT_EQ(index(), 1u);
  ASSERT_TRUE(untilState(State::stale));
  EXPECT_NE(status().staleSinceUtcNs, 0u);
  EXPECT_EQ(index(), 1u);
  EXPECT_EQ(log_, "") << "nothing is taken away";
  etcd.start(0);
  put(etcd, "p/interfaces/b", ifIndex(2));
  ASSERT_TRUE(until([&] { return index("b") == 2; }, 30s));
  EXPECT_EQ(status().state, State::current);
  EXPECT_EQ(log_, "ifIndex[b]");
}

TEST_F(EtcdSourceTest, ClearedAfterHold_TheStateIsWithdrawn_AndBackWithTheServer) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  FollowSettings settings;
  settings.holdSeconds = 1;
  settings.clearAfterHold = true;
  start(etcd.endpoint(), settings);
  ASSERT_TRUE(untilIndex(1));
  etcd.end(0);
  ASSERT_TRUE(untilIndex(0));
  etcd.start(0);
  EXPECT_TRUE(until([&] { return index() == 1; }, 30s));
}

TEST_F(EtcdSourceTest, StoreIsRestoredFromACopy_AndAccepted_TheDifferenceIsApplied) {
  Support::EtcdCluster etcd;
  Support::TempDir dir;
  put(etcd, "p/interfaces/a", ifIndex(1));
  put(etcd, "p/interfaces/b", ifIndex(1));
  etcd.saveSnapshot(dir.file("copy"));
  put(etcd, "p/interfaces/a", ifIndex(2));
  put(etcd, "p/interfaces/c", ifIndex(2));
  start(etcd.endpoint());
  ASSERT_TRUE(untilIndex(2));
  log_.clear();
  EXPECT_FALSE(source_->accept());
  etcd.restartFrom(dir.file("copy"));
  ASSERT_TRUE(until([&] { return !status().store->otherStore.empty(); }, 30s));
  EXPECT_EQ(status().state, State::held);
  EXPECT_EQ(status().error, status().store->otherStore);
  EXPECT_EQ(index(), 2);
  EXPECT_TRUE(source_->accept());
  ASSERT_TRUE(until([&] { return index() == 1 && index("c") == 0; }, 30s));
  EXPECT_THAT(log_, testing::Not(HasSubstr("-ifIndex[a]")));
  EXPECT_THAT(log_, testing::Not(HasSubstr("ifIndex[b]")));
  EXPECT_EQ(status().store->otherStore, "");
  put(etcd, "p/interfaces/a", ifIndex(3));
  EXPECT_TRUE(untilIndex(3));
}

TEST_F(EtcdSourceTest, BadValue_IsShownWithItsKey) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  put(etcd, "p/interfaces/b", "oops");
  start(etcd.endpoint());
  ASSERT_TRUE(untilState(State::partial));
  EXPECT_THAT(status().error, testing::StartsWith("key p/interfaces/b: 1:1: "));
  put(etcd, "p/interfaces/b", ifIndex(2));
  EXPECT_TRUE(untilState(State::current));
}

TEST_F(EtcdSourceTest, ItsThreadHangs_ItIsNotAliveUntilItGoesOn) {
  start(fmt::format("127.0.0.1:{}", Support::freeTcpPort()));
  ASSERT_TRUE(untilState(State::stale));
  EXPECT_TRUE(source_->alive());
  std::unique_lock hanging = clock_.hang();
  EXPECT_TRUE(Support::waitUntil([this] { return !source_->alive(); }));
  EXPECT_FALSE(source_->alive());
  hanging.unlock();
  EXPECT_TRUE(Support::waitUntil([this] { return source_->alive(); }));
}

TEST_F(EtcdSourceTest, ServerIsBack_ItIsFollowedAgainSomeMinutesLater_WithoutAListing) {
  Support::EtcdCluster etcd({.nodes = 3});
  put(etcd, "p/interfaces/a", ifIndex(1));
  start(etcd.endpointList());
  ASSERT_TRUE(untilIndex(1));
  EXPECT_EQ(status().store->endpoint, etcd.endpoint(0));
  etcd.end(0);
  ASSERT_TRUE(until(
      [&] { return status().store->state == "watching" && status().store->endpoint != etcd.endpoint(0); }));
  etcd.start(0);
  ASSERT_TRUE(leapUntilFollowed(etcd.endpoint(0)));
  put(etcd, "p/interfaces/a", ifIndex(2));
  EXPECT_TRUE(untilIndex(2));
  EXPECT_EQ(counter("relists"), 0u);
  EXPECT_EQ(counter("reconnections"), 2u);
}

class EtcdSourceAuthTest : public EtcdSourceTest {
 protected:
  EtcdSourceAuthTest() {
    etcd_.ctl({"user", "add", "root:secret"});
    etcd_.ctl({"user", "grant-role", "root", "root"});
    etcd_.ctl({"put", "p/interfaces/a", ifIndex(1)});
    etcd_.ctl({"auth", "enable"});
    settings_.access.credentialsFile = credentials("secret");
  }
  std::string credentials(const std::string& password) {
    dir_.replace("credentials", R"({"user": "root", "password": ")" + password + "\"}");
    std::filesystem::permissions(dir_.file("credentials"), std::filesystem::perms::owner_read);
    return dir_.file("credentials");
  }

  // Tokens that nobody uses for a while are forgotten.
  Support::EtcdCluster etcd_{{.nodes = 1, .arguments = {"--auth-token-ttl=1"}}};
  Support::TempDir dir_;
  FollowSettings settings_;
};

TEST_F(EtcdSourceAuthTest, UserAndPassword_FromTheCredentialsFile) {
  start(etcd_.endpoint(), settings_);
  ASSERT_TRUE(untilIndex(1));
  etcd_.ctl({"put", "p/interfaces/a", ifIndex(2)}, "root:secret");
  EXPECT_TRUE(untilIndex(2));
}

TEST_F(EtcdSourceAuthTest, NoCredentials_TheErrorIsShown) {
  start(etcd_.endpoint());
  ASSERT_TRUE(until([&] { return !status().error.empty(); }));
  EXPECT_THAT(status().error, HasSubstr("user name is empty"));
}

TEST_F(EtcdSourceAuthTest, PasswordIsWrong_ThenMended) {
  credentials("wrong");
  start(etcd_.endpoint(), settings_);
  ASSERT_TRUE(until([&] { return !status().error.empty(); }));
  EXPECT_THAT(status().error, HasSubstr("user \"root\" of"));
  EXPECT_THAT(status().error, HasSubstr("was refused"));
  EXPECT_THAT(status().error, testing::Not(HasSubstr("wrong")));
  credentials("secret");
  EXPECT_TRUE(untilIndex(1));
}

TEST_F(EtcdSourceAuthTest, TokenExpires_ItIsRenewed) {
  settings_.resyncSeconds = 3;
  start(etcd_.endpoint(), settings_);
  ASSERT_TRUE(untilIndex(1));
  ASSERT_TRUE(until([&] { return counter("resyncs") >= 2; }, 30s));
  EXPECT_EQ(counter("reconnections"), 0u);
  EXPECT_EQ(status().store->lastError, "");
}

// Hundreds of daemons logged in at once when a server came back, each of which costs it a tenth of a second.
TEST_F(EtcdSourceTest, ConnectionBreaks_TheTokenIsKept) {
  const std::string logins = R"(grpc_server_started_total{grpc_method="Authenticate")";
  Support::EtcdCluster etcd;
  etcd.ctl({"user", "add", "root:secret"});
  etcd.ctl({"user", "grant-role", "root", "root"});
  put(etcd, "p/interfaces/a", ifIndex(1));
  etcd.ctl({"auth", "enable"});
  Support::TempDir dir;
  dir.replace("credentials", R"({"user": "root", "password": "secret"})");
  std::filesystem::permissions(dir.file("credentials"), std::filesystem::perms::owner_read);
  FollowSettings settings;
  settings.access.credentialsFile = dir.file("credentials");
  Support::Relay relay(Support::portOf(etcd.endpoint()));
  start(relay.endpoint(), settings);
  ASSERT_TRUE(untilIndex(1));
  EXPECT_EQ(etcd.metric(logins), 1);
  for (uint64_t times = 1; times <= 3; ++times) {
    relay.cut();
    ASSERT_TRUE(untilState(State::held));
    relay.heal();
    ASSERT_TRUE(until([&] { return counter("reconnections") == times; }));
  }
  EXPECT_EQ(etcd.metric(logins), 1);
}

// Each server has the tokens in memory only. One that was started again refused the token that was kept,
// which counted as not being back: it had no follower any more.
TEST_F(EtcdSourceTest, HomeWasStartedAgainAndRefusesTheToken_TheFollowerLogsInThereAndGoesHome) {
  Support::EtcdCluster etcd({.nodes = 3});
  etcd.ctl({"user", "add", "root:secret"});
  etcd.ctl({"user", "grant-role", "root", "root"});
  put(etcd, "p/interfaces/a", ifIndex(1));
  etcd.ctl({"auth", "enable"});
  Support::TempDir dir;
  FollowSettings settings;
  settings.access.credentialsFile = Support::writeLogin(dir, "credentials", "root", "secret");
  start(etcd.endpointList(), settings);
  ASSERT_TRUE(untilIndex(1));
  // A server repeats what came after its last write to disk, so also the login, if nothing was written since.
  etcd.ctl({"put", "p/interfaces/a", ifIndex(2)}, "root:secret");
  ASSERT_TRUE(untilIndex(2));
  ASSERT_EQ(status().store->endpoint, etcd.endpoint(0));
  etcd.end(0, SIGTERM);
  ASSERT_TRUE(until(
      [&] { return status().store->state == "watching" && status().store->endpoint != etcd.endpoint(0); }));
  etcd.start(0);
  ASSERT_TRUE(leapUntilFollowed(etcd.endpoint(0)));
  etcd.ctl({"put", "p/interfaces/a", ifIndex(3)}, "root:secret");
  EXPECT_TRUE(untilIndex(3));
  EXPECT_EQ(counter("relists"), 0u);
}

class EtcdSourceTlsTest : public EtcdSourceTest {
 protected:
  EtcdSourceTlsTest() {
    certificates_.authority("ca");
    certificates_.authority("stranger");
    certificates_.certificate("server", "ca");
    certificates_.certificate("client", "ca");
    certificates_.certificate("intruder", "stranger");
    etcd_.emplace(certificates_.serverOptions("server", "ca"));
    put(*etcd_, "p/interfaces/a", ifIndex(1));
  }
  Access access(const std::string& authority, const std::string& name) const {
    return {.caFile = certificates_.certFile(authority),
            .certFile = certificates_.certFile(name),
            .keyFile = certificates_.keyFile(name)};
  }
  void startWith(const Access& access) {
    FollowSettings settings;
    settings.access = access;
    start(etcd_->endpoint(), settings);
  }

  Support::Certificates certificates_;
  std::optional<Support::EtcdCluster> etcd_;
};

TEST_F(EtcdSourceTlsTest, BothSidesShowACertificateOfTheCa_KeysAreFollowed) {
  startWith(access("ca", "client"));
  ASSERT_TRUE(untilIndex(1));
  put(*etcd_, "p/interfaces/a", ifIndex(2));
  EXPECT_TRUE(untilIndex(2));
  EXPECT_EQ(status().store->lastError, "");
}

// The kernel keeps whoever opens a file there waiting for as long as the server of its file system is away.
TEST_F(EtcdSourceTlsTest, FileSystemOfTheFilesHangs_TheStateIsHeld_TheFilesAreNamed_AndItEndsAtOnce) {
  if (std::string why = Support::enterOwnMounts(); !why.empty()) GTEST_SKIP() << why;
  Support::TempDir dir;
  FollowSettings settings;
  settings.access = {dir.file("ca"), dir.file("cert"), dir.file("key")};
  std::filesystem::copy(certificates_.certFile("ca"), settings.access.caFile);
  std::filesystem::copy(certificates_.certFile("client"), settings.access.certFile);
  std::filesystem::copy(certificates_.keyFile("client"), settings.access.keyFile);
  Support::Relay relay(Support::portOf(etcd_->endpoint()));
  start(relay.endpoint(), settings);
  ASSERT_TRUE(untilIndex(1));
  std::optional<Support::HangingMount> hangs;
  auto connectionIsLost = [&] {
    hangs.emplace(dir.path());
    relay.cut();
    relay.heal();
    return until([&] { return status().error.find("no answer from the file system") != std::string::npos; },
                 30s);
  };
  ASSERT_TRUE(connectionIsLost()) << status().error;
  EXPECT_EQ(status().error, fmt::format("{}, {}, {}: no answer from the file system", settings.access.caFile,
                                        settings.access.certFile, settings.access.keyFile));
  EXPECT_EQ(status().state, State::held);
  EXPECT_EQ(index(), 1u);
  hangs.reset();
  put(*etcd_, "p/interfaces/a", ifIndex(2));
  ASSERT_TRUE(untilIndex(2));
  EXPECT_EQ(status().state, State::current);

  ASSERT_TRUE(connectionIsLost()) << status().error;
  source_.reset();
  EXPECT_TRUE(threads_.busy()) << "the file system hangs still, and nobody waits for it";
  hangs.reset();
  EXPECT_FALSE(threads_.busyFor(10s));
}

TEST_F(EtcdSourceTlsTest, ServerOfAnotherCa_IsNotListenedTo) {
  startWith(access("stranger", "client"));
  ASSERT_TRUE(untilState(State::stale));
  EXPECT_THAT(status().error, HasSubstr(etcd_->endpoint()));
  EXPECT_EQ(index(), 0u);
}

TEST_F(EtcdSourceTlsTest, CertificateIsRefused_ThenReplaced_ItIsReadForTheNextConnection) {
  Access shown = access("ca", "intruder");
  startWith(shown);
  ASSERT_TRUE(untilState(State::stale));
  EXPECT_EQ(index(), 0u);
  std::filesystem::rename(certificates_.keyFile("client"), shown.keyFile);
  std::filesystem::rename(certificates_.certFile("client"), shown.certFile);
  EXPECT_TRUE(untilIndex(1));
}

TEST_F(EtcdSourceTlsTest, KeyTurnsUnusable_WhatWasFollowedIsHeld_AndTheFileIsNamed) {
  Access shown = access("ca", "client");
  startWith(shown);
  ASSERT_TRUE(untilIndex(1));
  std::filesystem::permissions(shown.keyFile, std::filesystem::perms::others_read,
                               std::filesystem::perm_options::add);
  etcd_->end(0);
  etcd_->start(0);
  ASSERT_TRUE(until([&] { return status().error.find(shown.keyFile) != std::string::npos; }));
  EXPECT_EQ(status().state, State::held);
  EXPECT_EQ(index(), 1u);
  std::filesystem::permissions(shown.keyFile, std::filesystem::perms::others_read,
                               std::filesystem::perm_options::remove);
  EXPECT_TRUE(untilState(State::current));
}

}  // namespace
}  // namespace Kelstore::Etcd
