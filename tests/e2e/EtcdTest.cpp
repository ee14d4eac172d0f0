// A daemon that follows an etcd cluster, as a manager and an operator see it.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/e2e/Daemon.h"
#include "tests/support/Etcd.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;

class Etcd : public testing::Test {
 protected:
  // At the store's prefix; the server need not be there.
  Daemon& following(const Support::Argv& options = {}) {
    return daemon_.with({"--state", "etcd:" + etcd_.endpoint() + "/trel"}).with(options);
  }
  void reports(int member, int neighbour, const std::string& state, const std::string& lease = {}) {
    std::string key = fmt::format("trel/members/{}/reachability/{}", member, neighbour);
    Support::Argv put = {"put", key, fmt::format(R"({{"state": "{}", "lastChange": 0}})", state)};
    if (!lease.empty()) put.push_back("--lease=" + lease);
    etcd_.ctl(put);
  }
  std::string lease() {
    std::string granted = etcd_.ctl({"lease", "grant", "600"});
    return granted.substr(6, granted.find(' ', 6) - 6);
  }
  // "1.2=3 1.3=5": row and state, as the MIB numbers them.
  std::string shown() const {
    std::istringstream lines(daemon_.manager().walk("reach.4"));
    std::string text;
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("reach.4.")) continue;
      text += (text.empty() ? "" : " ") + line.substr(8, line.find(' ') - 8) + "=" + line.back();
    }
    return text;
  }
  testing::AssertionResult becomes(const std::string& expected, Support::Millis deadline = 5s) {
    std::string last;
    bool became = Support::waitUntil([&] { return (last = shown()) == expected; }, deadline);
    return became ? testing::AssertionSuccess()
                  : testing::AssertionFailure() << last << "\n"
                                                << daemon_.process().err();
  }
  testing::AssertionResult storeIs(const std::string& state, Support::Millis deadline = 20s) {
    std::string last;
    bool became = Support::waitUntil([&] { return (last = store().at("state")) == state; }, deadline);
    return became ? testing::AssertionSuccess() : testing::AssertionFailure() << last;
  }
  nlohmann::json store() const { return daemon_.status().at("stores").at(0); }

  Support::EtcdCluster etcd_;
  Daemon daemon_;
};

TEST_F(Etcd, KeysAreRows_AsTheyComeChangeAndGo) {
  reports(1, 2, "reachable");
  following().start();
  EXPECT_EQ(shown(), "1.2=3");
  reports(1, 3, "degraded");
  EXPECT_TRUE(becomes("1.2=3 1.3=4"));
  reports(1, 2, "unreachable");
  EXPECT_TRUE(becomes("1.2=5 1.3=4"));
  etcd_.ctl({"del", "trel/members/1/reachability/3"});
  EXPECT_TRUE(becomes("1.2=5"));
}

TEST_F(Etcd, LeaseOfAMemberEnds_ItsRowsGo_AllOthersStay) {
  std::string dying = lease();
  reports(1, 3, "reachable", lease());
  reports(3, 1, "reachable", dying);
  reports(3, 2, "reachable", dying);
  following().with({"--grace", "1"}).start();
  EXPECT_EQ(shown(), "1.3=3 3.1=3 3.2=3");
  etcd_.ctl({"lease", "revoke", dying});
  EXPECT_TRUE(becomes("1.3=3"));
  nlohmann::json members = daemon_.status().at("members");
  ASSERT_EQ(members.size(), 1u);
  EXPECT_EQ(members[0].at("member"), "1");
}

TEST_F(Etcd, ServerIsGone_TheRowsStay_AndTheStoreIsHeldThenStale) {
  reports(1, 2, "reachable");
  following({"--hold", "2"}).start();
  etcd_.end(0);
  EXPECT_TRUE(storeIs("held"));
  EXPECT_EQ(daemon_.status().at("sources").at(0).at("state"), "held");
  EXPECT_TRUE(storeIs("stale"));
  EXPECT_FALSE(store().at("staleSince").is_null());
  EXPECT_EQ(shown(), "1.2=3");
  EXPECT_THAT(daemon_.sourceError(), HasSubstr("refused"));
  etcd_.start(0);
  reports(1, 3, "reachable");
  EXPECT_TRUE(becomes("1.2=3 1.3=3", 20s));
  EXPECT_TRUE(storeIs("watching"));
}

TEST_F(Etcd, ClearedAfterHold_TheRowsGo_AndComeBackWithTheServer) {
  reports(1, 2, "reachable");
  following({"--hold", "1", "--after-hold", "clear"}).start();
  EXPECT_EQ(shown(), "1.2=3");
  etcd_.end(0);
  EXPECT_TRUE(becomes(""));
  etcd_.start(0);
  EXPECT_TRUE(becomes("1.2=3", 20s));
}

TEST_F(Etcd, ServerIsNotThereYet_OtherSourcesAreServed_AndItIsCompleteOnceItIs) {
  reports(1, 2, "reachable");
  etcd_.end(0);
  daemon_.stateIs(R"({"members": {"7": {"reachability": {"8": {"state": "reachable", "lastChange": 0}}}}})");
  following().start();
  EXPECT_EQ(shown(), "7.8=3");
  EXPECT_EQ(daemon_.status().at("sources").at(1).at("state"), "stale");
  etcd_.start(0);
  EXPECT_TRUE(becomes("1.2=3 7.8=3", 20s));
}

TEST_F(Etcd, ServerHangs_TheDaemonServesAndEndsAtOnce) {
  reports(1, 2, "reachable");
  following().start();
  etcd_.process(0)->signal(SIGSTOP);
  EXPECT_TRUE(storeIs("held", 30s));
  EXPECT_EQ(shown(), "1.2=3");
  EXPECT_EQ(daemon_.process().stop(SIGTERM, 2s), 0);
  etcd_.process(0)->signal(SIGCONT);
}

TEST_F(Etcd, BadValue_IsShownWithItsKey_TheLastGoodOneStays) {
  reports(1, 2, "reachable");
  following().start();
  reports(1, 2, "sideways");
  EXPECT_TRUE(Support::waitUntil([&] { return !daemon_.status().at("setAside").empty(); }));
  EXPECT_EQ(daemon_.status().at("setAside").at(0).at("key"), "trel/members/1/reachability/2");
  EXPECT_EQ(shown(), "1.2=3");
  EXPECT_THAT(daemon_.ctl({"status"}).out, HasSubstr("trel/members/1/reachability/2"));
}

TEST_F(Etcd, Status_HowFollowingGoes) {
  reports(1, 2, "reachable", lease());
  following().start();
  reports(1, 2, "degraded", lease());
  EXPECT_TRUE(becomes("1.2=4"));
  EXPECT_TRUE(
      Support::waitUntil([&] { return !daemon_.status().at("members").at(0).at("leaseLeft").is_null(); }));
  nlohmann::json status = daemon_.status();
  nlohmann::json store = status.at("stores").at(0);
  EXPECT_EQ(store.at("source"), "etcd:" + etcd_.endpoint() + "/trel");
  EXPECT_EQ(store.at("state"), "watching");
  EXPECT_EQ(store.at("endpoint"), etcd_.endpoint());
  EXPECT_EQ(store.at("revision"), 3);
  EXPECT_EQ(store.at("mirroredRevision"), 3);
  EXPECT_LT(store.at("heardSecondsAgo").get<double>(), 30);
  EXPECT_TRUE(store.at("heldSince").is_null());
  EXPECT_TRUE(store.at("lastError").is_null());
  nlohmann::json counters = status.at("storeCounters").at(0);
  EXPECT_EQ(counters.at("revisions"), 1);
  EXPECT_EQ(counters.at("events"), 1);
  EXPECT_EQ(counters.at("setAside"), 0);
  nlohmann::json member = status.at("members").at(0);
  EXPECT_EQ(member.at("member"), "1");
  EXPECT_EQ(member.at("leased"), true);
  EXPECT_GT(member.at("leaseLeft"), 500);
  EXPECT_FALSE(member.at("lastChange").is_null());
  std::string text = daemon_.ctl({"status"}).out;
  for (const char* title : {"\nstores:\n", "\nstore counters:\n", "\nmembers:\n"})
    EXPECT_THAT(text, HasSubstr(title));
}

}  // namespace
}  // namespace E2e
