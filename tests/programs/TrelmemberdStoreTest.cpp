// The program when its store is away, silent or empty, and when it wants to know who publishes. Member 1
// begins with the second of its servers, and ends with the first.
#include <gmock/gmock.h>

#include <array>

#include "programs/trelmemberd/EtcdLeaseStore.h"
#include "tests/kelstore-etcd/SilentServer.h"
#include "tests/programs/TrelmemberdFixture.h"
#include "tests/support/EtcdAccess.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"

namespace Member {
namespace {

using testing::HasSubstr, testing::IsEmpty;

TEST_F(TrelmemberdTest, StoreIsAwayForAWhile_GoesOnAndIsBack) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  etcd_->end(0);
  EXPECT_TRUE(awaitLine(*process, "the store cannot be used"));
  EXPECT_TRUE(process->running());
  etcd_->start(0);
  EXPECT_TRUE(awaitLine(*process, "the store works again", 20s));
  EXPECT_TRUE(awaitKey("members/1/figures"));
  int64_t revision = keys()["members/1/figures"].modRevision;
  EXPECT_TRUE(waitUntil([&] { return keys()["members/1/figures"].modRevision > revision; }));
}

TEST_F(TrelmemberdTest, StoreComesBackEmpty_NothingIsWrittenBeforeTheHoldIsOver_ThenEverythingAnew) {
  holdSeconds_ = 4;
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  auto before = names();
  auto wiped = std::chrono::steady_clock::now();
  etcd_->restartEmpty();
  EXPECT_TRUE(waitUntil([&] { return !names().empty(); }, 30s)) << process->err();
  EXPECT_GE(std::chrono::steady_clock::now() - wiped, 4s) << "it was written before the hold was over";
  EXPECT_TRUE(waitUntil([&] { return names() == before; }, 20s)) << process->err();
  EXPECT_TRUE(awaitLine(*process, "is gone: everything is written anew"));
}

TEST_F(TrelmemberdTest, OneOfTwoServersIsAnotherCluster_NothingIsWrittenThere) {
  Support::EtcdCluster other;
  Kelstore::Etcd::Client otherClient({other.endpoint()}, {});
  Support::Relay known(Support::portOf(etcd_->endpoint()));
  Support::Relay mistaken(Support::portOf(other.endpoint()));
  auto process = start(config(1, loopback(), mistaken.endpoint() + "," + known.endpoint(), kTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  known.cut();
  EXPECT_TRUE(awaitLine(*process, "another store: found cluster"));
  // What it asks is refused again and again, also when its lease has ended.
  uint64_t refused = mistaken.bytesBack();
  EXPECT_TRUE(waitUntil([&] { return mistaken.bytesBack() >= 5 * refused; }, 60s)) << process->err();
  auto listing = otherClient.range({"trel/", "trel0"});
  ASSERT_TRUE(listing.ok()) << listing.status();
  EXPECT_THAT(listing->records, IsEmpty());
  EXPECT_EQ(listing->revision, 1) << "something was written, and is gone again";
  known.heal();
  EXPECT_TRUE(awaitLine(*process, "the store works again", 20s));
}

TEST_F(TrelmemberdTest, StoreIsAwayAtTheEnd_EndsSoonAllTheSame_AndSaysWhatStays) {
  auto process = start(config(1, loopback(), kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  etcd_->process(0)->signal(SIGSTOP);
  EXPECT_EQ(process->stop(), 0) << process->err();
  etcd_->process(0)->signal(SIGCONT);
  EXPECT_THAT(process->err(), HasSubstr("is not given back: "));
}

TEST_F(TrelmemberdTest, FirstServersAreSilent_TheEndBeginsWithTheOneThatAnswers) {
  Support::Relay silent(Support::portOf(etcd_->endpoint()));
  Support::Relay silentToo(Support::portOf(etcd_->endpoint()));
  for (Support::Relay* relay : {&silent, &silentToo}) relay->freeze();
  auto servers = fmt::format("{},{},{}", etcd_->endpoint(), silent.endpoint(), silentToo.endpoint());
  auto process = start(config(1, loopback(), servers, kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/figures", 20s)) << process->err();
  EXPECT_EQ(process->stop(), 0) << process->err();
  EXPECT_TRUE(waitUntil([&] { return keys().empty(); })) << process->err();
}

// The program has no time to wait for silent servers first.
TEST(EtcdLeaseStoreTest, FirstServersAreSilent_TheLeaseIsGivenBackToTheOneThatAnswers) {
  Support::EtcdCluster etcd;
  std::array<Kelstore::Etcd::SilentServer, 3> silent;
  Kelstore::Etcd::Address address{{}, "trel"};
  for (const auto& server : silent) address.endpoints.push_back(server.endpoint());
  address.endpoints.push_back(etcd.endpoint());
  // The number of a member that asks four servers in the order in which they are given.
  EtcdLeaseStore store(24, address, {}, {.renewal = 1s, .revocation = 100s});
  absl::StatusOr<LeaseStore::Lease> granted;
  ASSERT_TRUE(waitUntil(
      [&] {
        granted = store.grant(300s);
        return granted.ok();
      },
      30s));
  auto connections = [&] {
    size_t all = 0;
    for (auto& server : silent) all += server.connections();
    return all;
  };
  size_t before = connections();
  EXPECT_GE(before, silent.size());
  EXPECT_EQ(store.revoke(*granted, LeaseStore::Why::leaves), absl::OkStatus());
  EXPECT_EQ(connections(), before);
  Client client({etcd.endpoint()}, {});
  EXPECT_TRUE(absl::IsNotFound(client.timeToLive(*granted).status()));
}

// Renewals were refused for as long again as grants, and the lease ended.
TEST(EtcdLeaseStoreTest, OtherStoreCounts_TheLeaseFromItIsRenewedAtOnce) {
  Support::EtcdCluster etcd;
  EtcdLeaseStore store(1, {{etcd.endpoint()}, "trel"}, {}, {.renewal = 5s, .revocation = 20s, .hold = 2s});
  absl::StatusOr<LeaseStore::Lease> lease = store.grant(300s);
  ASSERT_TRUE(lease.ok()) << lease.status();
  ASSERT_EQ(store.renew(*lease), absl::OkStatus());
  etcd.restartEmpty();
  ASSERT_TRUE(waitUntil([&] { return (lease = store.grant(300s)).ok(); }, 30s)) << lease.status();
  EXPECT_EQ(store.renew(*lease), absl::OkStatus());
  EXPECT_EQ(store.revoke(*lease, LeaseStore::Why::leaves), absl::OkStatus());
}

// Those who follow the keys tell by it that the member meant its lease to end.
TEST(EtcdLeaseStoreTest, LeaseIsGivenBack_ItIsMarkedFirst_AndTheMarkGoesWithTheKeys) {
  Support::EtcdCluster etcd;
  EtcdLeaseStore store(7, {{etcd.endpoint()}, "trel"}, {}, {.renewal = 5s, .revocation = 20s});
  absl::StatusOr<LeaseStore::Lease> lease = store.grant(300s);
  ASSERT_TRUE(lease.ok()) << lease.status();
  ASSERT_TRUE(store.write({{{Kelstore::Kind::memory, "7", ""}, "{}"}}, {}, *lease).ok());
  ASSERT_EQ(store.revoke(*lease, LeaseStore::Why::leaves), absl::OkStatus());
  Client client({etcd.endpoint()}, {});
  absl::StatusOr<Kelstore::Etcd::Listing> after = client.range({"trel/", "trel0"});
  ASSERT_TRUE(after.ok()) << after.status();
  EXPECT_TRUE(after->records.empty());
  EXPECT_EQ(
      etcd.ctl({"get", "--prefix", "--keys-only", "--rev", std::to_string(after->revision - 1), "trel/"}),
      "trel/members/7/leaving\n\ntrel/members/7/memory\n\n");
}

TEST_F(TrelmemberdTest, ServerFallsSilentBeforeTheEnd_AnotherOneTakesTheLease) {
  Support::Relay relay(Support::portOf(etcd_->endpoint()));
  auto process = start(config(1, loopback(), etcd_->endpoint() + "," + relay.endpoint(), kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  relay.freeze();
  EXPECT_EQ(process->stop(), 0) << process->err();
  EXPECT_TRUE(waitUntil([&] { return keys().empty(); })) << process->err();
}

// Servers that ask who it is: of the publisher, and of the test.
class TrelmemberdAccessTest : public TrelmemberdTest {
 protected:
  void SetUp() override {}
  void serversAre(const Support::EtcdOptions& options, const Kelstore::Etcd::Access& access) {
    etcd_ = std::make_unique<Support::EtcdCluster>(options);
    client_ = std::make_unique<Client>(etcd_->endpoints(), access);
  }
  // Publishes, renews the lease, and gives it back: every kind of call is let in.
  void expectPublishes() {
    auto process = start(config(1, loopback()));
    ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
    auto lease = leases();
    EXPECT_TRUE(awaitWrites(6)) << process->err();
    EXPECT_EQ(leases(), lease);
    EXPECT_EQ(process->stop(), 0);
    EXPECT_THAT(names(), testing::IsEmpty()) << process->err();
    EXPECT_THAT(process->err(), testing::Not(HasSubstr("cannot be used")));
  }
  void expectIsRefused(const std::string& why) {
    auto process = start(config(1, loopback()));
    EXPECT_TRUE(awaitLine(*process, "cannot be used: "));
    EXPECT_THAT(process->err(), HasSubstr(why));
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(process->stop(), 0) << process->err();
  }
};

TEST_F(TrelmemberdAccessTest, ServerWantsACertificate_PublishesWithOneOfItsCaOnly) {
  Support::Certificates certificates;
  for (const char* ca : {"ca", "stranger"}) certificates.authority(ca);
  for (const char* name : {"server", "test", "member"}) certificates.certificate(name, "ca");
  certificates.certificate("intruder", "stranger");
  serversAre(certificates.serverOptions("server", "ca"),
             {certificates.certFile("ca"), certificates.certFile("test"), certificates.keyFile("test")});
  auto showing = [&](const std::string& name) -> nlohmann::json {
    return {{"ca", certificates.certFile("ca")},
            {"cert", certificates.certFile(name)},
            {"key", certificates.keyFile(name)}};
  };
  access_ = showing("member");
  expectPublishes();
  access_ = showing("intruder");
  expectIsRefused(etcd_->endpoint());
}

TEST_F(TrelmemberdAccessTest, ServerWantsAUser_PublishesWithItsPasswordOnly) {
  serversAre({}, {.credentialsFile = Support::writeLogin(directory_, "test", "root", "rootpw")});
  Support::enableAuthentication(*etcd_);
  access_ = {{"credentials", Support::writeLogin(directory_, "member", "trel", "secret")}};
  expectPublishes();
  access_ = {{"credentials", Support::writeLogin(directory_, "wrong", "trel", "wrong")}};
  expectIsRefused("user \"trel\" of " + directory_.file("wrong") + " was refused");
}

}  // namespace
}  // namespace Member
