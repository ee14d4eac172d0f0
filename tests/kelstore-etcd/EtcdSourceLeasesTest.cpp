// The leases of members, which an etcd source asks for when somebody wants to see them.
#include <fmt/format.h>

#include "kelstore/etcd/Client.h"
#include "tests/kelstore-etcd/EtcdSourceFixture.h"
#include "tests/kelstore-etcd/SilentAboutLeases.h"

namespace Kelstore::Etcd {
namespace {

TEST_F(EtcdSourceTest, Members_TheirLeaseIsAskedAfterOnRequest_AndTheirRowsGoWithIt) {
  Support::EtcdCluster etcd;
  std::string granted = etcd.ctl({"lease", "grant", "600"});
  std::string lease = granted.substr(6, granted.find(' ', 6) - 6);
  etcd.ctl({"put", "--lease=" + lease, "p/members/3/processors/1", R"({"load": 5})"});
  start(etcd.endpoint());
  ASSERT_TRUE(until([&] { return world_.host("3") != nullptr; }));
  EXPECT_EQ(status().store->members[0].leaseLeftSeconds, std::nullopt);
  ASSERT_TRUE(refreshed());
  EXPECT_EQ(status().store->members[0].member, "3");
  EXPECT_TRUE(status().store->members[0].leased);
  EXPECT_GT(*status().store->members[0].leaseLeftSeconds, 500u);
  EXPECT_LE(*status().store->members[0].leaseLeftSeconds, 600u);
  etcd.ctl({"lease", "revoke", lease});
  ASSERT_TRUE(until([&] { return world_.host("3") == nullptr; }));
  EXPECT_TRUE(status().store->members.empty());
}

// Every follower asked for every lease all the time, for a report that hardly anybody wants to see.
TEST_F(EtcdSourceTest, NobodyAsksForTheStatus_NoLeaseIsAskedAfter_AndThenEachOnce) {
  const std::string questions = R"(grpc_server_started_total{grpc_method="LeaseTimeToLive")";
  Support::EtcdCluster etcd;
  Client client(etcd.endpoints(), {});
  for (int member = 1; member <= 40; ++member) {
    auto lease = client.grant(600s);
    ASSERT_TRUE(lease.ok()) << lease.status();
    ASSERT_TRUE(client.put(fmt::format("p/members/{}/processors/1", member), R"({"load": 5})", *lease).ok());
  }
  start(etcd.endpoint());
  ASSERT_TRUE(until([&] { return world_.host("40") != nullptr; }));
  // A whole round of the client's own calls later.
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(client.put("p/interfaces/a", ifIndex(1)).ok());
  ASSERT_TRUE(untilIndex(1));
  EXPECT_EQ(etcd.metric(questions), 0);
  ASSERT_TRUE(refreshed());
  EXPECT_EQ(etcd.metric(questions), 40);
  ASSERT_TRUE(refreshed());
  EXPECT_EQ(etcd.metric(questions), 40) << "all who look at once get the same answer";
  clock_.leap(std::chrono::milliseconds(EtcdSource::kRefreshAgainMs));
  ASSERT_TRUE(refreshed());
  EXPECT_EQ(etcd.metric(questions), 80);
  for (const MemberStatus& member : status().store->members) EXPECT_TRUE(member.leaseLeftSeconds);
}

TEST_F(EtcdSourceTest, StoreHangs_TheReportIsNotKeptWaiting) {
  Support::EtcdCluster etcd;
  Client client(etcd.endpoints(), {});
  auto lease = client.grant(600s);
  ASSERT_TRUE(client.put("p/members/3/processors/1", R"({"load": 5})", *lease).ok());
  start(etcd.endpoint());
  ASSERT_TRUE(until([&] { return world_.host("3") != nullptr; }));
  ASSERT_TRUE(refreshed());
  etcd.process(0)->signal(SIGSTOP);
  clock_.leap(std::chrono::milliseconds(EtcdSource::kRefreshAgainMs));
  bool done = false;
  source_->refresh([&done] { done = true; });
  io_.work();
  EXPECT_FALSE(done);
  io_.advance(EtcdSource::kRefreshMs);
  io_.work();
  EXPECT_TRUE(done);
  EXPECT_TRUE(until([&] { return !status().store->members[0].leaseLeftSeconds; })) << "it is not known now";
  etcd.process(0)->signal(SIGCONT);
}

// Answers of the old connection come as cancelled while the new one is being made.
TEST_F(EtcdSourceTest, KeysAreListedAnewWhileLeasesAreAskedAfter_TheQuestionEnds) {
  SilentAboutLeases server;
  start(server.endpoint());
  ASSERT_TRUE(untilState(State::current));
  bool done = false;
  source_->refresh([&done] { done = true; });
  ASSERT_TRUE(until([&server] { return server.asked() >= 32; }));
  server.cancelWatches();
  EXPECT_TRUE(until([this] { return counter("relists") == 1; }));
  EXPECT_TRUE(until([&done] { return done; }));
  EXPECT_TRUE(untilState(State::current));
}

}  // namespace
}  // namespace Kelstore::Etcd
