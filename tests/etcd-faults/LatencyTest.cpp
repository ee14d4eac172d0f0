// How long a manager waits for an answer: while the store is there and idle, while it is out of reach, and
// while a hundred thousand keys are loaded. What the daemon does for its store takes nothing from what it
// does for managers.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
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
using nlohmann::json;
using Support::Millis;
using Support::waitUntil;
using Micros = std::chrono::microseconds;

// GETs of one instance, one after the other, until it is stopped.
class Prober {
 public:
  Prober(uint16_t port, const Wire::Oid& name) : exchange_(port) {
    request_.community = Wire::kReader;
    request_.pdu = {Wire::PduType::get, 1, 0, 0, {{name, {}}}};
    thread_ = std::thread([this] { run(); });
  }
  ~Prober() { stop(); }

  size_t answers() const { return count_; }
  void stop() {
    ends_ = true;
    if (thread_.joinable()) thread_.join();
    std::sort(took_.begin(), took_.end());
  }
  // Of the time that an answer took, once it is stopped. Requires: there are answers.
  Micros percentile(size_t percent) const { return took_[(took_.size() - 1) * percent / 100]; }
  size_t unanswered() const { return unanswered_; }

 private:
  void run() {
    while (!ends_) {
      ++request_.pdu.requestId;
      auto start = std::chrono::steady_clock::now();
      bool answered = exchange_.ask(request_).has_value();
      took_.push_back(std::chrono::duration_cast<Micros>(std::chrono::steady_clock::now() - start));
      unanswered_ += answered ? 0 : 1;
      ++count_;
      std::this_thread::sleep_for(1ms);
    }
  }

  Wire::Exchange exchange_;
  Wire::Message request_;
  std::vector<Micros> took_;
  size_t unanswered_ = 0;
  std::atomic<size_t> count_ = 0;
  std::atomic<bool> ends_ = false;
  std::thread thread_;
};

class EtcdLatencyTest : public testing::Test {
 protected:
  EtcdLatencyTest()
      : writer(cluster.endpoints(), {}, 1),
        relay(Support::portOf(cluster.endpoint())),
        follower(relay.endpoint(), {"--audit", "3600"}),
        name(follower.expected(writer.lasting()).begin()->first) {}

  // Judged against the same machine at the same time, more or less: it may be busy with other things.
  void expectUsual(const Prober& now, const char* when) {
    Prober usual(follower.port(), name);
    ASSERT_TRUE(waitUntil([&] { return usual.answers() >= 300; }, 60s));
    usual.stop();
    auto show = [](const char* what, const Prober& prober) {
      fmt::print("  {}: {} answers, p50 {} us, p90 {} us, p99 {} us\n", what, prober.answers(),
                 prober.percentile(50).count(), prober.percentile(90).count(), prober.percentile(99).count());
    };
    show("idle", usual);
    show(when, now);
    EXPECT_EQ(now.unanswered(), 0u);
    // A task's slice and the chunk of changes taken at once are milliseconds; a stall is not.
    EXPECT_LT(now.percentile(50), usual.percentile(50) * 3 + 5ms);
    EXPECT_LT(now.percentile(99), usual.percentile(99) * 3 + 50ms);
  }

  Support::EtcdCluster cluster;
  Writer writer;
  Support::Relay relay;
  Following follower;
  Wire::Oid name;
};

TEST_F(EtcdLatencyTest, StoreIsOutOfReach) {
  relay.cut();
  ASSERT_TRUE(waitUntil([&] { return follower.state() == "held"; }, 20s));
  Prober prober(follower.port(), name);
  EXPECT_TRUE(waitUntil([&] { return prober.answers() >= 500; }, 30s));
  // From refusals to silence, so that attempts are under way and do not end.
  relay.freeze();
  EXPECT_TRUE(waitUntil([&] { return prober.answers() >= 1500; }, 30s));
  prober.stop();
  relay.heal();
  EXPECT_TRUE(waitUntil([&] { return follower.state() == "watching"; }, 30s));
  expectUsual(prober, "out of reach");
}

TEST_F(EtcdLatencyTest, HundredThousandKeysAreLoaded) {
  Support::TempDir directory;
  std::string file = directory.write("many.json", Support::hundredThousandProcessors(100).dump());
  std::string store = fmt::format("etcd:{}/{}", cluster.endpoint(), kPrefix);
  auto paths = [&] { return follower.daemon().status().at("sources").at(0).at("paths").get<int64_t>(); };
  {
    Prober prober(follower.port(), name);
    Support::Result import = Support::run({TRELCTL, "import", file, "--store", store}, {}, 120s);
    EXPECT_EQ(import.status, 0) << import.err;
    EXPECT_TRUE(waitUntil([&] { return paths() > 100'000; }, 60s)) << follower.daemon().status().dump(1);
    follower.daemon().waitUntilReady();
    prober.stop();
    expectUsual(prober, "100,000 keys by watch");
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
    expectUsual(prober, "100,000 keys listed");
    EXPECT_EQ(follower.daemon().status().at("sources").at(0).at("state"), "current");
  }
}

}  // namespace
}  // namespace Faults
