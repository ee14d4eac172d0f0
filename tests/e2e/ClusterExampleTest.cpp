// The example cluster as its users meet it: made by its script, asked over SNMP at each of its switches, and
// broken in every way that the script offers.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <set>
#include <sstream>

#include "tests/e2e/Manager.h"
#include "tests/support/Process.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr, testing::IsEmpty;

constexpr int kTtlSeconds = 4;
constexpr int kSwitches = 3;

// Instances and what they show.
using Answers = std::map<std::string, std::string>;

class ClusterExample : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    Support::Result probe = Support::run({"ip", "netns", "add", name() + "-probe"});
    if (probe.status != 0) {
      skipped_ = "no network namespace can be made here: " + probe.err;
      return;
    }
    Support::run({"ip", "netns", "delete", name() + "-probe"});
    up_ = std::make_unique<Support::Process>(script({"--ttl", std::to_string(kTtlSeconds), "up"}));
    bool made = Support::waitUntil(
        [] { return up_->out().find("Up until Ctrl-C") != std::string::npos || !up_->running(); }, 120s);
    if (!made || !up_->running()) broken_ = up_->out() + up_->err();
  }
  static void TearDownTestSuite() {
    if (!up_) return;
    EXPECT_EQ(up_->stop(SIGTERM, 30s), 0) << up_->err();
    up_.reset();
    managers_.clear();
    std::string left = Support::run({"ip", "netns", "list"}).out;
    EXPECT_EQ(left.find(name() + "-"), std::string::npos) << left;
    Support::run(script({"clean"}));
  }
  void SetUp() override {
    if (!skipped_.empty()) GTEST_SKIP() << skipped_;
    ASSERT_EQ(broken_, "");
    cluster({"heal"});
    ASSERT_TRUE(allServe(kWhole, 30s)) << walked();
  }
  // What went wrong is in the logs, which go with the cluster.
  void TearDown() override {
    if (HasFailure())
      ADD_FAILURE() << Support::run({"sh", "-c", "tail -n 20 /run/" + name() + "-cluster/*/*.log"}).out;
  }

  static std::string name() { return fmt::format("test{}", getpid()); }
  static Support::Argv script(const Support::Argv& arguments) {
    Support::Argv argv = {CLUSTER_EXAMPLE, "--name", name(), "--build", TREL_BUILD};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }
  static std::string cluster(const Support::Argv& arguments) {
    Support::Result result = Support::run(script(arguments));
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }
  // Asks switch `at`, from where all of them can be asked.
  static const Manager& manager(int at) {
    std::unique_ptr<Manager>& manager = managers_[at];
    if (!manager) {
      manager = std::make_unique<Manager>(fmt::format("192.0.2.1{}", at));
      manager->runBy({"ip", "netns", "exec", name() + "-lab"});
    }
    return *manager;
  }
  static Answers walk(int at) {
    Answers answers;
    std::istringstream lines(manager(at).bulkWalk());
    for (std::string line; std::getline(lines, line);) {
      size_t equals = line.find(" = ");
      if (equals != std::string::npos && line.find("= No ") == std::string::npos)
        answers[line.substr(0, equals)] = line.substr(equals + 3);
    }
    return answers;
  }
  // "1-2=reachable": what member 1 says of member 2, for each pair, as switch `at` serves it.
  static std::set<std::string> states(const Answers& answers) {
    std::set<std::string> all;
    for (const auto& [instance, value] : answers) {
      int from = 0;
      int to = 0;
      if (sscanf(instance.c_str(), "reach.4.%d.%d", &from, &to) == 2)
        all.insert(fmt::format("{}-{}={}", from, to, stateName(value.substr(value.rfind(' ') + 1))));
    }
    return all;
  }
  static std::string stateName(const std::string& number) {
    static const std::map<std::string, std::string> kNames = {{"1", "unknown"},     {"2", "initializing"},
                                                              {"3", "reachable"},   {"4", "degraded"},
                                                              {"5", "unreachable"}, {"6", "disabled"}};
    auto at = kNames.find(number);
    return at == kNames.end() ? number : at->second;
  }
  // Whose host resources there are.
  static std::set<int> hosts(const Answers& answers) {
    std::set<int> all;
    for (const auto& [instance, value] : answers) {
      int member = 0;
      if (sscanf(instance.c_str(), "sys.%*d.%d", &member) == 1) all.insert(member);
    }
    return all;
  }
  // Which links have an interface index.
  static std::set<std::string> links(const Answers& answers) {
    std::set<std::string> all;
    for (const auto& [instance, value] : answers) {
      if (!instance.starts_with("baif.2.")) continue;
      auto remote = answers.find("baif.3." + instance.substr(7));
      if (remote == answers.end()) continue;
      all.insert(value.substr(value.rfind(' ') + 1) + "-" +
                 remote->second.substr(remote->second.rfind(' ') + 1));
    }
    return all;
  }

  // What does not depend on who is asked, nor on the moment: not the members' uptime and date, and not when a
  // state changed on this agent's clock.
  static Answers lasting(Answers answers) {
    std::erase_if(answers, [](const auto& answer) {
      const std::string& instance = answer.first;
      return instance.starts_with("sys.2.") || instance.starts_with("sys.3.") ||
             instance.starts_with("reach.5.");
    });
    return answers;
  }
  // Which instances two answers do not have alike.
  static std::vector<std::string> differing(const Answers& one, const Answers& other) {
    Answers all = one;
    all.insert(other.begin(), other.end());
    std::vector<std::string> names;
    for (const auto& [instance, value] : all) {
      auto first = one.find(instance);
      auto second = other.find(instance);
      if (first == one.end() || second == other.end() || first->second != second->second)
        names.push_back(instance);
    }
    return names;
  }

  struct Expected {
    std::set<std::string> states;
    std::set<int> hosts;
    std::set<std::string> links;
  };
  static bool serves(int at, const Expected& expected) {
    Answers answers = walk(at);
    return states(answers) == expected.states && hosts(answers) == expected.hosts &&
           links(answers) == expected.links;
  }
  static bool allServe(const Expected& expected, Support::Millis deadline,
                       const std::set<int>& at = {1, 2, 3}) {
    return Support::waitUntil(
        [&] { return std::all_of(at.begin(), at.end(), [&](int one) { return serves(one, expected); }); },
        deadline);
  }
  static std::string walked() {
    std::string all;
    for (int at = 1; at <= kSwitches; ++at) all += fmt::format("-- at {}\n{}", at, manager(at).bulkWalk());
    return all;
  }

  static const Expected kWhole;
  static std::unique_ptr<Support::Process> up_;
  static std::map<int, std::unique_ptr<Manager>> managers_;
  static std::string skipped_;
  static std::string broken_;
};

const ClusterExample::Expected ClusterExample::kWhole = {
    {"1-2=reachable", "1-3=reachable", "2-1=reachable", "2-3=reachable", "3-1=reachable", "3-2=reachable"},
    {1, 2, 3},
    {"1-2", "1-3", "2-1", "2-3", "3-1", "3-2"}};
std::unique_ptr<Support::Process> ClusterExample::up_;
std::map<int, std::unique_ptr<Manager>> ClusterExample::managers_;
std::string ClusterExample::skipped_;
std::string ClusterExample::broken_;

TEST_F(ClusterExample, Whole_EachSwitchServesTheSame) {
  std::string shown = cluster({"show", "3"});
  for (const char* table : {"BaIf", "Reachability", "HrSystem", "Processor", "Storage"}) {
    EXPECT_NE(shown.find(fmt::format("veldaTrel{}Table", table)), std::string::npos) << shown;
  }
  EXPECT_EQ(shown.find("(empty"), std::string::npos) << shown;

  // Figures change every few seconds, now and then between two walks.
  std::vector<std::string> differ;
  EXPECT_TRUE(Support::waitUntil(
      [&] {
        Answers first = lasting(walk(1));
        differ = differing(first, lasting(walk(2)));
        for (std::string& name : differing(first, lasting(walk(3)))) differ.push_back(std::move(name));
        return differ.empty() && !first.empty();
      },
      30s))
      << testing::PrintToString(differ) << "\n"
      << walked();
}

TEST_F(ClusterExample, CableIsCut_EachSwitchShowsIt_AndThatItIsMended) {
  Expected cut = kWhole;
  cut.states = {"1-2=unreachable", "1-3=reachable", "2-1=unreachable",
                "2-3=reachable",   "3-1=reachable", "3-2=reachable"};
  cluster({"down", "1-2"});
  EXPECT_TRUE(allServe(cut, 15s)) << walked();
  cluster({"heal"});
  EXPECT_TRUE(allServe(kWhole, 15s)) << walked();
}

TEST_F(ClusterExample, SwitchIsKilled_ItsRowsGoWithItsLease_OthersStay_AndItComesBack) {
  Expected without = kWhole;
  without.states = {"1-2=reachable", "1-3=unreachable", "2-1=reachable", "2-3=unreachable"};
  without.hosts = {1, 2};
  without.links = {"1-2", "1-3", "2-1", "2-3"};
  cluster({"kill", "3"});
  // Until its rows are gone, and for as many walks again, nothing of the others is ever missing.
  std::set<std::string> missing;
  auto isGone = [&] {
    bool gone = true;
    for (int at : {1, 2}) {
      Answers answers = walk(at);
      gone = gone && !hosts(answers).contains(3);
      for (const std::string& link : without.links) {
        if (!links(answers).contains(link)) missing.insert(fmt::format("link {} at {}", link, at));
      }
      for (int host : without.hosts) {
        if (!hosts(answers).contains(host)) missing.insert(fmt::format("host {} at {}", host, at));
      }
      std::set<std::string> pairs;
      for (const std::string& state : states(answers)) pairs.insert(state.substr(0, 3));
      for (const std::string& state : without.states) {
        if (!pairs.contains(state.substr(0, 3)))
          missing.insert(fmt::format("{} at {}", state.substr(0, 3), at));
      }
    }
    return gone;
  };
  int walks = 0;
  EXPECT_TRUE(Support::waitUntil([&] { return ++walks, isGone(); }, 30s)) << walked();
  for (; walks > 0; --walks) EXPECT_TRUE(isGone());
  EXPECT_THAT(missing, IsEmpty());
  EXPECT_TRUE(allServe(without, 15s, {1, 2})) << walked();
  cluster({"heal"});
  EXPECT_TRUE(allServe(kWhole, 30s)) << walked();
}

TEST_F(ClusterExample, StoreAsksForCertificates_AMemberWritesItsOwnValuesOnly) {
  std::string tls = "/run/" + name() + "-cluster/tls/";
  // What trelctl says of a value that `user` writes; without a user it has no certificate.
  auto put = [&](const std::string& user, const std::string& path) {
    Support::Argv argv{"ip",      "netns",     "exec",           name() + "-lab", TRELCTL,
                       "put",     path,        R"({"load": 7})", "--store",       "etcd:192.0.2.1:2379/trel",
                       "--force", "--etcd-ca", tls + "ca.pem"};
    if (!user.empty()) {
      for (const std::string& more :
           {std::string("--etcd-cert"), tls + user + ".pem", std::string("--etcd-key"), tls + user + ".key"})
        argv.push_back(more);
    }
    Support::Result result = Support::run(argv);
    return result.status == 0 ? "done" : result.err;
  };
  EXPECT_EQ(put("trel-member-2", "members/2/processors/9"), "done");
  for (const char* user : {"trel-member-1", "trel-agent"})
    EXPECT_THAT(put(user, "members/2/processors/9"), HasSubstr("permission denied")) << user;
  EXPECT_THAT(put("", "members/2/processors/9"), HasSubstr("192.0.2.1:2379"));
  struct stat key {};
  ASSERT_EQ(stat((tls + "ca.key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777U, 0600U);
}

TEST_F(ClusterExample, WrongArguments_AreToldInOneLine) {
  for (const Support::Argv& wrong : {Support::Argv{"down", "1-4"},
                                     {"down", "12"},
                                     {"down", "1-1"},
                                     {"kill", "0"},
                                     {"kill"},
                                     {"show", "x"},
                                     {"sideways"}}) {
    Support::Result result = Support::run(script(wrong));
    EXPECT_EQ(result.status, 1) << wrong.front();
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_TRUE(allServe(kWhole, 15s));
}

}  // namespace
}  // namespace E2e
