// A daemon that follows an etcd cluster, as a manager and an operator see it.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <chrono>

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

TEST_F(Etcd, ServerHangs_TheDaemonIsReadyServesAndEndsAtOnce) {
  reports(1, 2, "reachable", lease());
  following().start();
  etcd_.process(0)->signal(SIGSTOP);
  EXPECT_EQ(daemon_.ctl({"wait", "--timeout", "1"}).status, 0) << "the store need not be asked for that";
  EXPECT_TRUE(storeIs("held", 30s));
  EXPECT_EQ(shown(), "1.2=3");
  EXPECT_EQ(daemon_.process().stop(SIGTERM, 2s), 0);
  etcd_.process(0)->signal(SIGCONT);
}

TEST_F(Etcd, BadValue_IsShownWithItsKey_TheLastGoodOneStays) {
  reports(1, 2, "reachable");
  following().start();
  reports(1, 2, "");
  EXPECT_TRUE(Support::waitUntil([&] { return !daemon_.status().at("setAside").empty(); }));
  EXPECT_EQ(daemon_.status().at("setAside").at(0).at("key"), "trel/members/1/reachability/2");
  EXPECT_EQ(shown(), "1.2=3");
  EXPECT_THAT(daemon_.ctl({"status"}).out, HasSubstr("trel/members/1/reachability/2"));
}

// A member's figures as one key, and its file systems as another one.
class EtcdFigures : public Etcd {
 protected:
  void puts(const std::string& name, const std::string& value, const Support::Argv& options = {}) {
    Support::Argv put = {"put", "trel/" + name, value};
    put.insert(put.end(), options.begin(), options.end());
    etcd_.ctl(put);
  }
  void figures(int load, const Support::Argv& options = {}) {
    puts("members/1/figures",
         fmt::format(R"({{"bootTime": 1000000000, "clock": 1000003600.5, "users": 2, "processes": 114,
                          "memorySize": 8192, "memory": {{"total": 8192, "free": 4096}},
                          "loads": {{"1": {}, "2": 40}}}})",
                     load),
         options);
  }
  void filesystems() {
    puts("members/1/filesystems", R"({"/": {"allocationUnits": 4096, "size": 1000, "free": 400}})");
  }
  void mappings() {
    const char* mapping = R"({"index": 31, "type": "1.3.6.1.2.1.25.2.1.4", "description": "/"})";
    puts("storageMappings/mounts/%2F", mapping);
    puts("storageMappings/memory/1", R"({"index": 1, "type": "1.3.6.1.2.1.25.2.1.2", "description": "RAM"})");
  }
  std::string hostTables() const {
    return daemon_.manager().walk("sys") + daemon_.manager().walk("proc") + daemon_.manager().walk("stor");
  }
  // Waits until the load of processor 2 is this one, so that all that was written before is served.
  bool loadIs(int load) {
    return Support::waitUntil(
        [&] { return daemon_.manager().walk("proc").ends_with(fmt::format(" {}\n", load)); });
  }
};

TEST_F(EtcdFigures, EitherForm_IsTheSameTables_AndThePackedOneCounts) {
  mappings();
  figures(33);
  filesystems();
  following().start();
  std::string packed = hostTables();
  EXPECT_THAT(packed, HasSubstr("proc."));
  EXPECT_THAT(packed, HasSubstr("stor."));
  puts("members/1/system", R"({"uptime": 3600.5, "currentTimeUtc": 1000003600.5, "users": 2,
                               "processes": 114, "memorySize": 8192})");
  puts("members/1/memory", R"({"total": 8192, "free": 4096})");
  puts("members/1/storage/%2F", R"({"allocationUnits": 4096, "size": 1000, "free": 400})");
  puts("members/1/processors/1", R"({"load": 33})");
  puts("members/1/processors/2", R"({"load": 41})");
  reports(1, 2, "reachable");
  ASSERT_TRUE(becomes("1.2=3")) << "all that was written before is served";
  EXPECT_EQ(hostTables(), packed);
  for (const char* form : {"trel/members/1/figures", "trel/members/1/filesystems"}) etcd_.ctl({"del", form});
  ASSERT_TRUE(loadIs(41)) << "which had no effect before";
  puts("members/1/processors/2", R"({"load": 40})");
  ASSERT_TRUE(loadIs(40));
  EXPECT_EQ(hostTables(), packed);
}

TEST_F(EtcdFigures, NobodyWrites_UptimeAndDateGoOn_WhileTheLeaseLasts) {
  std::string granted = lease();
  figures(33, {"--lease=" + granted});
  following().with({"--grace", "600"}).start();
  auto system = [&] { return daemon_.manager().walk("sys"); };
  std::string first = system();
  int64_t revision = store().at("revision");
  std::string second;
  ASSERT_TRUE(Support::waitUntil([&] { return (second = system()) != first; })) << first;
  EXPECT_TRUE(Support::waitUntil([&] { return system() != second; }));
  EXPECT_EQ(store().at("revision"), revision);
  EXPECT_EQ(daemon_.status().at("members").at(0).at("member"), "1");
}

TEST_F(EtcdFigures, WithoutALease_TheyStandStill) {
  figures(33);
  following().start();
  std::string before = daemon_.manager().walk("sys");
  figures(34, {"--lease=" + lease()});
  ASSERT_TRUE(Support::waitUntil([&] { return daemon_.manager().walk("sys") != before; }));
  figures(35);
  std::string first;
  ASSERT_TRUE(Support::waitUntil([&] { return (first = daemon_.manager().walk("sys")) == before; })) << first;
  // Another member's go on meanwhile.
  puts("members/2/figures", R"({"bootTime": 1, "clock": 1000, "users": 0, "processes": 1, "memorySize": 1})",
       {"--lease=" + lease()});
  std::string last = before;
  for (int change = 0; change < 4; ++change) {
    std::string now;
    ASSERT_TRUE(Support::waitUntil([&] { return (now = daemon_.manager().walk("sys")) != last; })) << last;
    last = now;
  }
  std::istringstream rows(before);
  for (std::string row; std::getline(rows, row);) EXPECT_THAT(last, HasSubstr(row + "\n"));
}

// Its change would be from before the agent's start.
TEST_F(Etcd, ClockOfAMemberIsBehind_LastUpdateIsTheUptimeOfTheChange) {
  constexpr double kHour = 3600;
  constexpr unsigned kError = 5;  // seconds that a call may take on a busy machine
  auto membersUtc = [] {
    std::chrono::duration<double> since = std::chrono::system_clock::now().time_since_epoch();
    return since.count() - kHour;
  };
  following().start();
  uint32_t before = daemon_.manager().upTime();
  auto changedNs = static_cast<uint64_t>(membersUtc() * 1e9);
  uint32_t after = daemon_.manager().upTime();
  etcd_.ctl({"put", "trel/members/1/reachability/2",
             fmt::format(R"({{"state": "reachable", "lastChange": {}}})", changedNs)});
  EXPECT_TRUE(becomes("1.2=3"));
  EXPECT_EQ(daemon_.manager().get({"reach.5.1.2"}), "reach.5.1.2 = Timeticks: (0) 0:00:00.00\n");
  nlohmann::json member;
  EXPECT_TRUE(Support::waitUntil(
      [&] {
        etcd_.ctl(
            {"put", "trel/members/1/system",
             fmt::format(
                 R"({{"uptime": 1, "currentTimeUtc": {}, "users": 0, "processes": 1, "memorySize": 1}})",
                 membersUtc())});
        member = daemon_.status().at("members").at(0);
        return !member.at("clockAhead").is_null();
      },
      30s));
  EXPECT_NEAR(member.at("clockAhead").get<double>(), -kHour, kError);
  EXPECT_GE(member.at("clockError").get<double>(), 1);
  EXPECT_THAT(daemon_.ctl({"status"}).out, HasSubstr("clockAhead"));
  std::string answer;
  EXPECT_TRUE(Support::waitUntil([&] {
    answer = daemon_.manager().get({"reach.5.1.2"});
    return answer.find("(0)") == std::string::npos;
  })) << answer;
  unsigned long ticks = std::stoul(answer.substr(answer.find('(') + 1));
  EXPECT_GE(ticks + kError * 100, before);
  EXPECT_LE(ticks, after + kError * 100);
  EXPECT_TRUE(Support::waitUntil([&] {
    return daemon_.log().find("the clock of member 1 is 360") != std::string::npos;
  })) << daemon_.log();
}

TEST_F(Etcd, Status_HowFollowingGoes) {
  reports(1, 2, "reachable", lease());
  following().start();
  reports(1, 2, "degraded", lease());
  EXPECT_TRUE(becomes("1.2=4"));
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
  std::string text = daemon_.ctl({"status", "--all"}).out;
  for (const char* title : {"\nstores:\n", "\nstore counters:\n", "\nmembers:\n"})
    EXPECT_THAT(text, HasSubstr(title));
}

}  // namespace
}  // namespace E2e
