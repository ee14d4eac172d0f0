// One member writes more than it has any use for: the daemons of the others take no harm, and serve everybody
// else.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "kelstore/etcd/Client.h"
#include "tests/etcd-faults/Following.h"
#include "tests/etcd-faults/StoreState.h"
#include "tests/support/Etcd.h"

namespace Faults {
namespace {

using namespace std::chrono_literals;
using Kelstore::Etcd::Client;
using Kelstore::Etcd::Op;
using Support::waitUntil;
using testing::Contains;
using testing::HasSubstr;

// The most that the daemon ever had of main memory.
size_t peakMegabytes(E2e::Daemon& daemon) {
  std::ifstream status(fmt::format("/proc/{}/status", daemon.process().pid()));
  for (std::string word; status >> word;) {
    size_t kibibytes = 0;
    if (word == "VmHWM:" && status >> kibibytes) return kibibytes / 1024;
  }
  return 0;
}

class EtcdLimitsTest : public testing::Test {
 protected:
  EtcdLimitsTest() { put("members/2/processors/1", R"({"load": 22})"); }

  void put(const std::string& path, const std::string& value) {
    auto done = client_.put(std::string(kPrefix) + "/" + path, value);
    ASSERT_TRUE(done.ok()) << done.status();
  }
  void write(const std::vector<Op>& ops) {
    auto done = client_.txn(ops);
    ASSERT_TRUE(done.ok()) << done.status();
  }
  // Processors of member 7, from this index on.
  void writeProcessors(int from, int count) {
    std::vector<Op> ops;
    for (int i = from; i < from + count; ++i) {
      ops.push_back({Op::What::put, fmt::format("{}/members/7/processors/{}", kPrefix, i), R"({"load": 7})"});
    }
    write(ops);
  }
  // Processors of the member, as they are served.
  static size_t rows(Following& follower, int member) {
    E2e::Manager manager(follower.daemon().address(), {"-v2c", "-c", Wire::kReader});
    std::istringstream walked(manager.bulkWalk("proc.3"));
    size_t count = 0;
    for (std::string line; std::getline(walked, line);) {
      bool isRow = line.find(" = INTEGER: ") != std::string::npos;
      if (isRow && line.starts_with(fmt::format("proc.3.{}.", member))) ++count;
    }
    return count;
  }
  static nlohmann::json source(Following& follower) { return follower.daemon().status().at("sources").at(0); }
  // What is shown of what was set aside.
  static std::vector<std::string> shown(Following& follower) {
    std::vector<std::string> all;
    nlohmann::json status = follower.daemon().status();
    for (const auto& one : status.at("setAside")) {
      all.push_back(
          fmt::format("{}: {}", one.at("key").get<std::string>(), one.at("error").get<std::string>()));
    }
    return all;
  }
  // As a daemon has it that follows a store in which there is next to nothing.
  size_t usualMegabytes() {
    Following follower(etcd_.endpoint(), {});
    return peakMegabytes(follower.daemon());
  }

  Support::EtcdCluster etcd_;
  Client client_{etcd_.endpoints(), {}};
};

// Each of them was kept, as long as it was there.
TEST_F(EtcdLimitsTest, ThreeHundredValuesOfAMegabyte_AreSetAside_AndTakeNoMemory) {
  size_t usual = usualMegabytes();
  std::string megabyte = "{" + std::string(1 << 20, ' ') + "}";
  for (int i = 0; i < 150; ++i) put(fmt::format("members/7/storage/{}", i), megabyte);
  Following follower(etcd_.endpoint(), {"--resync", "3"});
  for (int i = 150; i < 300; ++i) put(fmt::format("members/7/storage/{}", i), megabyte);
  ASSERT_TRUE(waitUntil([&] { return source(follower).at("setAside") == 300; }, 60s)) << source(follower);
  int64_t resyncs = follower.counters().at("resyncs");
  ASSERT_TRUE(waitUntil([&] { return follower.counters().at("resyncs") > resyncs + 1; }, 60s));
  EXPECT_EQ(source(follower).at("setAside"), 300);
  EXPECT_EQ(source(follower).at("state"), "partial");
  EXPECT_THAT(shown(follower),
              Contains(HasSubstr("members/7/storage/0: found a value of 1048578 bytes, expected "
                                 "at most 4096")));
  EXPECT_EQ(rows(follower, 2), 1u);
  EXPECT_LT(peakMegabytes(follower.daemon()), usual + 250) << "of 300 MB of values";
}

TEST_F(EtcdLimitsTest, ThirtyThousandProcessorsOfOneMember_SoManyAreServedAndNoMore_OthersAreUntouched) {
  for (int i = 1; i <= 20'000; i += 100) writeProcessors(i, 100);
  Following follower(etcd_.endpoint(), {"--resync", "3"});
  for (int i = 20'001; i <= 30'000; i += 100) writeProcessors(i, 100);
  put("members/9/processors/1", R"({"load": 9})");
  ASSERT_TRUE(waitUntil([&] { return rows(follower, 9) == 1; }, 60s));
  EXPECT_EQ(rows(follower, 7), 4096u);
  EXPECT_EQ(rows(follower, 2), 1u);
  EXPECT_TRUE(waitUntil([&] { return source(follower).at("setAside") == 30'000 - 4096; }, 60s))
      << source(follower);
  EXPECT_EQ(follower.counters().at("refused"), 30'000 - 4096);
  EXPECT_THAT(shown(follower),
              Contains(HasSubstr("members/7/processors: 25904 left out, as there are more than "
                                 "4096; one is trel/members/7/processors/")));

  // Where there is room again, those that were left out are taken.
  auto gone = client_.del(
      {std::string(kPrefix) + "/members/7/processors/1", std::string(kPrefix) + "/members/7/processors/2"});
  ASSERT_TRUE(gone.ok());
  ASSERT_GT(gone->keys, 4096);
  ASSERT_LT(gone->keys, 30'000 - 4096);
  EXPECT_TRUE(waitUntil(
      [&] {
        return source(follower).at("setAside") == 30'000 - 4096 - gone->keys && rows(follower, 7) == 4096;
      },
      60s))
      << source(follower);
}

TEST_F(EtcdLimitsTest, KeysThatAreNotOfTheState_TakeNoMemory) {
  Following follower(etcd_.endpoint(), {"--resync", "3600"});
  size_t before = peakMegabytes(follower.daemon());
  std::string rest(900, 'x');
  for (int i = 0; i < 20'000; i += 100) {
    std::vector<Op> ops;
    for (int j = i; j < i + 100; ++j) {
      ops.push_back({Op::What::put, fmt::format("{}/members/7/mood/{}{}", kPrefix, j, rest), "good"});
    }
    write(ops);
  }
  put("members/9/processors/1", R"({"load": 9})");
  ASSERT_TRUE(waitUntil([&] { return rows(follower, 9) == 1; }, 60s));
  EXPECT_EQ(source(follower).at("setAside"), 0);
  EXPECT_EQ(source(follower).at("state"), "current");
  EXPECT_LT(peakMegabytes(follower.daemon()), before + 15) << "it was 18 MB of keys";
}

// So many members with 4000 processors each.
std::string document(int members) {
  std::string text;
  for (int member = 1; member <= members; ++member) {
    text += fmt::format("{}\"{}\": {{\"processors\": {{", member == 1 ? "" : ", ", member);
    for (int i = 1; i <= 4000; ++i) text += fmt::format("{}\"{}\": {{\"load\": 1}}", i == 1 ? "" : ", ", i);
    text += "}}";
  }
  return "{\"members\": {" + text + "}}";
}

TEST(StateFileLimitsTest, AStateFileTakesFifteenTimesItsSize) {
  auto peak = [](const std::string& state) {
    E2e::Daemon daemon;
    daemon.stateIs(state).start();
    return peakMegabytes(daemon);
  };
  std::string large = document(64);
  size_t takes = peak(large) - peak(document(0));
  size_t allowed = 18 * large.size() >> 20;
  EXPECT_LT(takes, allowed) << large.size() << " bytes";
}

TEST(StateFileLimitsTest, NoMemoryForAStateFile_WhatWasServedStays_AndTheDaemonLives) {
  E2e::Daemon daemon;
  daemon.runBy({"prlimit", "--as=300000000"})
      .stateIs(R"({"members": {"1": {"processors": {"1": {"load": 11}}}}})")
      .start();
  daemon.dir().replace(E2e::Daemon::kStateName, document(64));
  ASSERT_TRUE(waitUntil([&] { return !daemon.sourceError().empty(); }, 60s)) << daemon.log();
  EXPECT_THAT(daemon.sourceError(), HasSubstr("state.json: out of memory, what was read before stays"));
  EXPECT_THAT(daemon.manager().walk("proc.3"), HasSubstr("proc.3.1.1"));
  EXPECT_EQ(daemon.status().at("sources").at(0).at("state"), "stale");
  daemon.dir().replace(E2e::Daemon::kStateName, document(1));
  ASSERT_TRUE(waitUntil([&] { return daemon.sourceError().empty(); }, 60s)) << daemon.log();
  EXPECT_TRUE(
      waitUntil([&] { return daemon.manager().walk("proc.3").find("proc.3.1.4000") != std::string::npos; }));
  EXPECT_EQ(daemon.process().stop(), 0);
}

}  // namespace
}  // namespace Faults
