// The leader of the store stalls for longer than a lease lasts, while members publish, and a manager walks
// the tables of a daemon that follows them.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "tests/etcd-faults/Following.h"
#include "tests/etcd-faults/StoreState.h"
#include "tests/etcd-faults/Walker.h"
#include "tests/support/Etcd.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace Faults {
namespace {

using namespace std::chrono_literals;
using Support::waitUntil;

constexpr int kPublishers = 3;
constexpr auto kTtl = 3s;

class StalledLeaderTest : public testing::Test {
 protected:
  StalledLeaderTest() {
    for (int member = 1; member <= kPublishers; ++member) {
      std::string config = directory_.write(
          fmt::format("{}.json", member),
          fmt::format(R"({{"member": {}, "store": "etcd:{}/{}", "ttl": {}, "figuresInterval": 1,
                           "neighbours": []}})",
                      member, cluster_.endpointList(), kPrefix, kTtl.count()));
      publishers_.push_back(
          std::make_unique<Support::Process>(Support::Argv{TRELMEMBERD, "--config", config}));
    }
  }
  size_t membersSeen() const { return follower_.status().at("members").size(); }
  // The newest revision that one of the members has written.
  int64_t revision() { return follower_.store().at("revision"); }

  Support::TempDir directory_;
  Support::EtcdCluster cluster_{{.nodes = 3}};
  std::vector<std::unique_ptr<Support::Process>> publishers_;
  Following follower_{cluster_.endpointList(), {}};
};

TEST_F(StalledLeaderTest, ForTwiceTheTtl_NoRowIsMissing_AndAllPublishAgain) {
  ASSERT_TRUE(waitUntil([&] { return membersSeen() == kPublishers; }, 20s));
  std::set<Wire::Oid> names;
  // A member's processors may come a moment after the member.
  ASSERT_TRUE(waitUntil(
      [&] {
        auto before = std::exchange(names, namesOf(follower_.served()));
        return !names.empty() && names == before;
      },
      20s));
  Walker walker(follower_.port(), names);
  size_t leader = cluster_.leader();
  cluster_.process(leader)->signal(SIGSTOP);
  const auto stopped = std::chrono::steady_clock::now();
  EXPECT_TRUE(waitUntil([&] { return std::chrono::steady_clock::now() - stopped >= 2 * kTtl; }, 30s));
  EXPECT_EQ(walker.complaints(), "");
  cluster_.process(leader)->signal(SIGCONT);
  cluster_.awaitHealthy(leader);
  // Everybody publishes again.
  int64_t back = revision();
  EXPECT_TRUE(waitUntil([&] { return revision() > back + 2 * kPublishers; }, 30s));
  EXPECT_EQ(walker.complaints(), "");
  EXPECT_EQ(membersSeen(), kPublishers);
}

}  // namespace
}  // namespace Faults
