// Followers behind etcd's own proxy, which lets many share its one watch at the servers.
#include <memory>

#include "tests/kelstore-etcd/EtcdSourceFixture.h"
#include "tests/support/Network.h"
#include "tests/support/Process.h"

namespace Kelstore::Etcd {
namespace {

class Proxy final {
 public:
  explicit Proxy(const Support::EtcdCluster& etcd) : etcd_(etcd) { start(); }
  void start() {
    process_ = std::make_unique<Support::Process>(Support::Argv{
        "etcd", "grpc-proxy", "start", "--endpoints", etcd_.endpointList(), "--listen-addr", endpoint_});
  }
  void kill() { process_.reset(); }
  const std::string& endpoint() const { return endpoint_; }

 private:
  const Support::EtcdCluster& etcd_;
  std::string endpoint_ = "127.0.0.1:" + std::to_string(Support::freeTcpPort());
  std::unique_ptr<Support::Process> process_;
};

// One beside that of the test.
class OtherFollower final : public EtcdSourceTest {
 public:
  using EtcdSourceTest::start;
  using EtcdSourceTest::status;
  using EtcdSourceTest::untilIndex;
  using EtcdSourceTest::untilState;

 private:
  void TestBody() override {}
};

using EtcdSourceProxyTest = EtcdSourceTest;

TEST_F(EtcdSourceProxyTest, FollowersShareAProxy_EachHasEveryChange) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  Proxy proxy(etcd);
  OtherFollower other;
  start(proxy.endpoint());
  ASSERT_TRUE(untilIndex(1));
  put(etcd, "p/interfaces/a", ifIndex(2));
  ASSERT_TRUE(untilIndex(2));
  // The proxy's watch has long begun.
  other.start(proxy.endpoint());
  ASSERT_TRUE(other.untilIndex(2));
  for (uint32_t value = 3; value < 20; ++value) {
    put(etcd, "p/interfaces/a", ifIndex(value));
    EXPECT_TRUE(untilIndex(value));
    EXPECT_TRUE(other.untilIndex(value));
  }
  EXPECT_EQ(other.status().store->otherStore, "");
}

TEST_F(EtcdSourceProxyTest, ProxyIsKilledAndComesBack_RowsAreHeldAndFollowedAgain) {
  Support::EtcdCluster etcd;
  put(etcd, "p/interfaces/a", ifIndex(1));
  Proxy proxy(etcd);
  start(proxy.endpoint());
  ASSERT_TRUE(untilIndex(1));
  ASSERT_TRUE(until([&] { return status().store->state == "watching"; }));
  proxy.kill();
  ASSERT_TRUE(untilState(State::held));
  EXPECT_EQ(index(), 1u);
  put(etcd, "p/interfaces/a", ifIndex(2));
  proxy.start();
  ASSERT_TRUE(untilIndex(2));
  EXPECT_TRUE(untilState(State::current));
}

}  // namespace
}  // namespace Kelstore::Etcd
