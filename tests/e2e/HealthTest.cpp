// Who belongs to the cluster and who is there, as the daemon's status tells, and what newer members say.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "tests/e2e/Daemon.h"
#include "tests/support/Etcd.h"

namespace E2e {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

using Texts = std::vector<std::string>;

class Health : public testing::Test {
 protected:
  // "1 leaf-1 present", in order.
  Texts cluster() const {
    Texts all;
    const nlohmann::json status = daemon_.status();
    for (const auto& member : status.at("cluster")) {
      const auto& name = member.at("name");
      all.push_back(fmt::format("{} {} {}", member.at("member").get<std::string>(),
                                name.is_null() ? "-" : name.get<std::string>(),
                                member.at("state").get<std::string>()));
    }
    return all;
  }

  Daemon daemon_;
};

TEST_F(Health, WhoIsExpected_IsThere_IsLost_OrDoesNotBelongToTheCluster) {
  daemon_
      .stateIs(R"({"expected": {"1": {}, "2": {"name": "leaf-2"}, "3": {}},
      "members": {"1": {"name": "leaf-1", "processors": {}}, "3": {"reachability": {}}, "7": {"name": "stray"}}})")
      .start();
  EXPECT_THAT(cluster(),
              ElementsAre("1 leaf-1 present", "2 leaf-2 expected", "3 - present", "7 stray unexpected"));
  daemon_.stateIs(R"({"expected": {"1": {}, "2": {"name": "leaf-2"}, "3": {}},
      "members": {"2": {"processors": {}}, "3": {"reachability": {}}}})");
  ASSERT_TRUE(Support::waitUntil([&] { return cluster().size() == 3; }));
  EXPECT_THAT(cluster(), ElementsAre("1 leaf-1 lost", "2 leaf-2 present", "3 - present"));
  auto status = daemon_.ctl({"status"});
  EXPECT_EQ(status.status, 3);
  EXPECT_THAT(status.out, HasSubstr("member 1 (leaf-1) is lost since "));
  daemon_.stateIs(R"({"expected": {"2": {}, "3": {}},
      "members": {"2": {"processors": {}}, "3": {"reachability": {}}}})");
  ASSERT_TRUE(Support::waitUntil([&] { return cluster().size() == 2; }));
  EXPECT_EQ(daemon_.ctl({"status"}).status, 0);
}

TEST_F(Health, WhereNobodyIsSaidToBeExpected_WhoIsWiredOrWasSeenIs) {
  daemon_
      .stateIs(R"({"topology": {"1": {"2": {"intf": "Backplane1/1"}}},
      "members": {"1": {"processors": {}}, "5": {"processors": {}}}})")
      .start();
  EXPECT_THAT(cluster(), ElementsAre("1 - present", "2 - expected", "5 - present"));
  daemon_.stateIs(R"({"members": {"1": {"processors": {}}}})");
  ASSERT_TRUE(Support::waitUntil([&] { return cluster().size() == 2; }));
  EXPECT_THAT(cluster(), ElementsAre("1 - present", "5 - lost"));
}

TEST_F(Health, WhatAFileSaidLast_IsStaleWhenItIsGone) {
  daemon_.stateIs(R"({"members": {"1": {"processors": {}}}})").start();
  EXPECT_THAT(cluster(), ElementsAre("1 - present"));
  std::filesystem::remove(daemon_.stateFile());
  EXPECT_TRUE(Support::waitUntil([&] { return cluster() == Texts{"1 - stale"}; }));
}

class HealthOfAStore : public Health {
 protected:
  void puts(const Support::Argv& options = {}) {
    Support::Argv put = {"put", "trel/members/1/name", fmt::format(R"("leaf-{}")", ++puts_)};
    put.insert(put.end(), options.begin(), options.end());
    etcd_.ctl(put);
  }
  std::string lease(const std::string& seconds) {
    std::string granted = etcd_.ctl({"lease", "grant", seconds});
    return granted.substr(6, granted.find(' ', 6) - 6);
  }
  void start(const Support::Argv& options) {
    daemon_.with({"--state", "etcd:" + etcd_.endpoint() + "/trel"}).with(options).start();
  }
  testing::AssertionResult becomes(
      const std::string& member, const std::function<void()>& meanwhile = [] {}) {
    Texts last;
    bool became = Support::waitUntil(
        [&] {
          meanwhile();
          return (last = cluster()) == Texts{member};
        },
        30s);
    return became ? testing::AssertionSuccess() : testing::AssertionFailure() << testing::PrintToString(last);
  }

  Support::EtcdCluster etcd_;
  int puts_ = 0;
};

TEST_F(HealthOfAStore, StoreIsLost_ItsMembersAreHeld) {
  puts();
  start({});
  EXPECT_TRUE(becomes("1 leaf-1 present"));
  etcd_.process(0)->signal(SIGKILL);
  EXPECT_TRUE(becomes("1 leaf-1 held"));
}

TEST_F(HealthOfAStore, StoreIsLostForTooLong_ItsMembersAreStale_AlsoWhenTheirValuesAreWithdrawn) {
  puts();
  start({"--hold", "0", "--after-hold", "clear"});
  EXPECT_TRUE(becomes("1 leaf-1 present"));
  etcd_.process(0)->signal(SIGKILL);
  EXPECT_TRUE(becomes("1 leaf-1 stale"));
  EXPECT_EQ(daemon_.status().at("sources").at(0).at("paths"), 0);
}

TEST_F(HealthOfAStore, LeaseHasEnded_TheMemberIsHeldForTheGrace) {
  std::string ending = lease("600");
  puts({"--lease=" + ending});
  start({"--grace", "60"});
  etcd_.ctl({"lease", "revoke", ending});
  EXPECT_TRUE(becomes("1 leaf-1 held"));
}

TEST_F(HealthOfAStore, LeaseHasEndedAndNobodyIsBack_TheMemberIsLost) {
  std::string ending = lease("600");
  puts({"--lease=" + ending});
  start({"--grace", "0"});
  EXPECT_TRUE(becomes("1 leaf-1 present"));
  etcd_.ctl({"lease", "revoke", ending});
  EXPECT_TRUE(becomes("1 leaf-1 lost"));
}

// Its lease is renewed, and nothing is written.
TEST_F(HealthOfAStore, MemberSaysNothingForTwiceItsLeasesTime_IsSilentUntilItSaysSomething) {
  std::string renewed = lease("2");
  puts({"--lease=" + renewed});
  auto renews = [&] { etcd_.ctl({"lease", "keep-alive", "--once", renewed}); };
  start({});
  renews();
  puts({"--lease=" + renewed});
  EXPECT_TRUE(becomes("1 leaf-2 silent", renews));
  puts({"--lease=" + renewed});
  EXPECT_TRUE(becomes("1 leaf-3 present"));
}

// The state before would be a lie.
TEST_F(Health, StateOfANewerMember_IsServedAsUnrecognized) {
  constexpr const char* kDocument =
      R"({{"members": {{"1": {{"reachability": {{"2": {{"state": {}, "lastChange": 0}}}}}}}}}})";
  daemon_.stateIs(fmt::format(kDocument, R"("reachable")")).start();
  EXPECT_EQ(daemon_.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
  for (const char* state : {R"("quarantined")", "17"}) {
    daemon_.stateIs(fmt::format(kDocument, state));
    EXPECT_TRUE(Support::waitUntil(
        [&] { return daemon_.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 0\n"; }));
    daemon_.stateIs(fmt::format(kDocument, "2"));
    EXPECT_TRUE(Support::waitUntil(
        [&] { return daemon_.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 3\n"; }));
  }
  EXPECT_THAT(daemon_.process().err(),
              HasSubstr("found \"quarantined\", expected \"unknown\", \"initializing\", \"reachable\", "));
}

// The document's links, and what is wrong with each.
TEST_F(Health, EachLinkHasAVerdict_SinceItIsSo) {
  static constexpr const char* kDocument =
      R"({{"interfaces": {{"Backplane1/1": {{"ifIndex": 1}}, "Backplane2/1": {{"ifIndex": {}}}}},
      "topology": {{"1": {{"2": {{"intf": "Backplane1/1"}}}}, "2": {{"1": {{"intf": "Backplane2/1"}}}}}},
      "members": {{"1": {{"reachability": {{"2": {{"state": "{}", "intf": "Backplane1/1", "lastChange": 0}}}}}},
                   "2": {{"reachability": {{"1": {{"state": "{}", "intf": "{}", "lastChange": 0}}}}}}}}}})";
  auto stateIs = [this](int ifIndex, const char* one, const char* other, const char* intf = "Backplane2/1") {
    daemon_.stateIs(fmt::format(kDocument, ifIndex, one, other, intf));
  };
  // "1-2 down, 3 changes", or "ok".
  auto verdict = [this] {
    nlohmann::json status = daemon_.status();
    if (status.at("linkFaults").empty()) return fmt::format("ok {}", status.at("links").at("ok").get<int>());
    const nlohmann::json& fault = status["linkFaults"].at(0);
    EXPECT_EQ(status["links"].at(fault["verdict"].get<std::string>()), 1);
    EXPECT_FALSE(fault["since"].is_null());
    return fmt::format("{}-{} {}, {} changes", fault["low"].get<std::string>(),
                       fault["high"].get<std::string>(), fault["verdict"].get<std::string>(),
                       fault["changes"].get<int>());
  };
  auto becomes = [&verdict](const std::string& expected) {
    Support::waitUntil([&] { return verdict() == expected; });
    EXPECT_EQ(verdict(), expected);
  };
  stateIs(2, "reachable", "reachable");
  daemon_.start();
  becomes("ok 1");
  EXPECT_EQ(daemon_.ctl({"status"}).status, 0);
  stateIs(2, "unreachable", "unreachable");
  becomes("1-2 down, 1 changes");
  auto status = daemon_.ctl({"status"});
  EXPECT_EQ(status.status, 3);
  EXPECT_THAT(status.out, HasSubstr("link 1-2 is down: "));
  EXPECT_THAT(
      daemon_.ctl({"topology"}).out,
      AllOf(HasSubstr("  ! link 1-2: down\n"), HasSubstr("     1   2  Backplane1/1        1  unreachable\n"),
            HasSubstr("     2   1  Backplane2/1        2  unreachable\n")));
  stateIs(2, "reachable", "unreachable");
  becomes("1-2 statesDiffer, 2 changes");
  stateIs(2, "reachable", "reachable", "Backplane2/9");
  becomes("1-2 miswired, 3 changes");
  stateIs(1, "reachable", "reachable");
  becomes("1-2 sharedIndex, 4 changes");
  stateIs(0, "reachable", "reachable");
  becomes("1-2 noIndex, 5 changes");
  stateIs(2, "reachable", "reachable");
  becomes("ok 1");
  daemon_.stateIs(R"({"topology": {"1": {"2": {"intf": "Backplane1/1"}}}})");
  becomes("1-2 oneSided, 7 changes");
  daemon_.stateIs("{}");
  becomes("ok 0");
}

}  // namespace
}  // namespace E2e
