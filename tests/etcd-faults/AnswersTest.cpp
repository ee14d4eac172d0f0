// A manager is answered whatever goes on with the store: while it is out of reach, and while a hundred
// thousand keys are loaded. How long it waits is measured in bench/.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/etcd-faults/Following.h"
#include "tests/etcd-faults/StoreState.h"
#include "tests/etcd-faults/Writer.h"
#include "tests/support/Etcd.h"
#include "tests/support/LargeState.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"
#include "tests/wire/Model.h"

namespace Faults {
namespace {

using namespace std::chrono_literals;
using Support::waitUntil;

// GETs of one instance, one after the other, until it is stopped.
class Prober {
 public:
  Prober(uint16_t port, const Wire::Oid& name) : exchange_(port) {
    request_.community = Wire::kReader;
    request_.pdu = {Wire::PduType::get, 1, 0, 0, {{name, {}}}};
    thread_ = std::thread([this] { run(); });
  }
  ~Prober() { stop(); }

  size_t answers() const { return answers_; }
  void stop() {
    ends_ = true;
    if (thread_.joinable()) thread_.join();
  }
  size_t unanswered() const { return unanswered_; }

 private:
  void run() {
    do {
      ++request_.pdu.requestId;
      ++(exchange_.ask(request_) ? answers_ : unanswered_);
    } while (!waitUntil([this] { return ends_.load(); }, 1ms));
  }

  Wire::Exchange exchange_;
  Wire::Message request_;
  std::atomic<size_t> answers_ = 0;
  std::atomic<size_t> unanswered_ = 0;
  std::atomic<bool> ends_ = false;
  std::thread thread_;
};

class EtcdAnswersTest : public testing::Test {
 protected:
  EtcdAnswersTest()
      : writer(cluster.endpoints(), {}, 1),
        relay(Support::portOf(cluster.endpoint())),
        follower(relay.endpoint(), {"--resync", "3600"}),
        name(follower.expected(writer.lasting()).begin()->first) {}

  Support::EtcdCluster cluster;
  Writer writer;
  Support::Relay relay;
  Following follower;
  Wire::Oid name;
};

TEST_F(EtcdAnswersTest, StoreIsOutOfReach) {
  relay.cut();
  ASSERT_TRUE(waitUntil([&] { return follower.state() == "held"; }, 20s));
  Prober prober(follower.port(), name);
  EXPECT_TRUE(waitUntil([&] { return prober.answers() >= 100; }, 30s));
  // From refusals to silence, so that attempts are under way and do not end.
  relay.freeze();
  EXPECT_TRUE(waitUntil([&] { return prober.answers() >= 300; }, 30s));
  prober.stop();
  EXPECT_EQ(prober.unanswered(), 0u);
  relay.heal();
  EXPECT_TRUE(waitUntil([&] { return follower.state() == "watching"; }, 30s));
}

TEST_F(EtcdAnswersTest, HundredThousandKeysAreLoaded) {
  Support::TempDir directory;
  std::string file = directory.write("many.json", Support::hundredThousandProcessors(100).dump());
  std::string store = fmt::format("etcd:{}/{}", cluster.endpoint(), kPrefix);
  auto paths = [&] { return follower.daemon().status().at("sources").at(0).at("paths").get<int64_t>(); };
  {
    Prober prober(follower.port(), name);
    Support::Result import = Support::run({TRELCTL, "import", file, "--force", "--store", store}, {}, 120s);
    EXPECT_EQ(import.status, 0) << import.err;
    EXPECT_TRUE(waitUntil([&] { return paths() > 100'000; }, 60s)) << follower.daemon().status().dump(1);
    follower.daemon().waitUntilReady();
    prober.stop();
    EXPECT_GT(prober.answers(), 0u);
    EXPECT_EQ(prober.unanswered(), 0u);
  }
  {
    // And once more, as one listing.
    relay.cut();
    ASSERT_TRUE(waitUntil([&] { return follower.state() == "held"; }, 20s));
    cluster.ctl({"del", "--prefix", fmt::format("{}/members/150/", kPrefix)});
    cluster.ctl({"put", fmt::format("{}/sysname", kPrefix), "\"a\""});
    std::string text = cluster.ctl({"get", "x", "--write-out", "fields"});
    size_t at = text.find("\"Revision\" : ") + 13;
    cluster.ctl({"compact", text.substr(at, text.find('\n', at) - at)});
    Prober prober(follower.port(), name);
    relay.heal();
    EXPECT_TRUE(waitUntil(
        [&] { return follower.counters().at("relists") >= 1 && follower.state() == "watching"; }, 60s));
    EXPECT_TRUE(waitUntil([&] { return paths() < 100'000; }, 60s));
    follower.daemon().waitUntilReady();
    prober.stop();
    EXPECT_GT(prober.answers(), 0u);
    EXPECT_EQ(prober.unanswered(), 0u);
    EXPECT_EQ(follower.daemon().status().at("sources").at(0).at("state"), "current");
  }
}

}  // namespace
}  // namespace Faults
