// The program as an operator meets it, publishing into a real etcd: what it says, and its life.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/programs/TrelmemberdFixture.h"
#include "tests/support/OwnNetwork.h"

namespace Member {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;

TEST_F(TrelmemberdTest, Publishes_AllOfTheMemberUnderOneLease) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  EXPECT_THAT(names(), IsSupersetOf({"interfaces/Backplane1%2F2", "members/1/figures",
                                     "members/1/reachability/2", "topology/1/2"}));
  EXPECT_EQ(leases().size(), 1u);
  EXPECT_FALSE(leases().contains(0));
  auto time = client_->timeToLive(*leases().begin());
  ASSERT_TRUE(time.ok());
  EXPECT_EQ(time->granted, std::chrono::seconds(kTtlSeconds));
  EXPECT_EQ(value("interfaces/Backplane1%2F2"), nlohmann::json({{"ifIndex", 1002}, {"machineIfIndex", 1}}));
  EXPECT_TRUE(
      awaitLine(*process, "interface Backplane1/2: published with ifIndex 1002; this machine has lo as 1"));
  EXPECT_EQ(value("topology/1/2"), nlohmann::json({{"intf", "Backplane1/2"}}));
  EXPECT_EQ(value("members/1/reachability/2")["intf"], "Backplane1/2");
  EXPECT_EQ(value("members/1/figures")["memory"]["total"], value("members/1/figures")["memorySize"]);
  EXPECT_TRUE(value("members/1/figures")["loads"].contains("1"));
  EXPECT_THAT(names(), testing::Not(Contains("members/1/system"))) << "the figures are one key";
}

TEST_F(TrelmemberdTest, Figures_FollowAndNothingElseIsWritten) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  auto before = keys();
  auto written = [&](const std::string& name) {
    return keys()[name].modRevision != before[name].modRevision;
  };
  EXPECT_TRUE(waitUntil([&] { return written("members/1/figures"); }));
  EXPECT_FALSE(written("topology/1/2"));
  EXPECT_FALSE(written("interfaces/Backplane1%2F2"));
}

TEST_F(TrelmemberdTest, RunsForLongerThanItsLease_EverythingStays) {
  auto process = start(config(1, loopback(), 3));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  auto lease = leases();
  size_t count = keys().size();
  EXPECT_TRUE(awaitWrites(8)) << process->err();
  EXPECT_EQ(keys().size(), count);
  EXPECT_EQ(leases(), lease);
}

TEST_F(TrelmemberdTest, Terminated_ItsKeysGoAtOnceAndNoOthers) {
  ASSERT_TRUE(client_->put("trel/members/2/system", "{}").ok());
  for (int signal : {SIGTERM, SIGINT}) {
    auto process = start(config(1, loopback(), kLongTtlSeconds));
    ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
    int64_t lease = keys()["members/1/figures"].lease;
    EXPECT_EQ(process->stop(signal), 0) << process->err();
    EXPECT_THAT(names(), testing::ElementsAre("members/2/system"));
    EXPECT_TRUE(leaseIsGone(lease));
  }
}

TEST_F(TrelmemberdTest, Killed_ItsKeysAreGoneWithTheLease) {
  ASSERT_TRUE(client_->put("trel/members/2/system", "{}").ok());
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  process->signal(SIGKILL);
  EXPECT_EQ(process->wait(), 128 + SIGKILL);
  EXPECT_TRUE(waitUntil([&] { return keys().size() == 1; }));
  EXPECT_THAT(names(), testing::ElementsAre("members/2/system"));
}

TEST_F(TrelmemberdTest, KilledAndStartedAgain_TakesOverAndNoKeyIsEverMissing) {
  std::string file = config(1, loopback(), kLongTtlSeconds);
  auto process = start(file);
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  auto before = leases();
  size_t count = keys().size();
  process->signal(SIGKILL);
  process->wait();
  process = start(file);
  bool missing = false;
  EXPECT_TRUE(waitUntil([&] {
    missing = missing || keys().size() < count;
    auto now = leases();
    return now.size() == 1 && now != before;
  })) << process->err();
  EXPECT_FALSE(missing);
  EXPECT_TRUE(awaitLine(*process, "takes over the keys of an earlier publisher"));
  ASSERT_TRUE(client_->revoke(*before.begin()).ok());
  EXPECT_GE(keys().size(), count) << "they went with the old lease";
}

TEST_F(TrelmemberdTest, ConfigurationHasOneNeighbourLess_ItsKeysAreDeleted) {
  std::string other = R"({"member": 3, "interface": "Backplane1/3", "device": "none", "address": "::1"})";
  auto process = start(config(1, loopback() + "," + other, kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("topology/1/3")) << process->err();
  EXPECT_EQ(value("members/1/reachability/3")["state"], "unreachable");
  process->signal(SIGKILL);
  process->wait();
  process = start(config(1, loopback(), kLongTtlSeconds));
  EXPECT_TRUE(waitUntil([&] { return !keys().contains("topology/1/3"); })) << process->err();
  EXPECT_THAT(names(), testing::Not(Contains("members/1/reachability/3")));
}

TEST_F(TrelmemberdTest, SecondPublisherOfTheMember_TheFirstStandsByUntilThatIsGone) {
  auto first = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << first->err();
  int64_t lease = *leases().begin();
  auto second = start(config(1, loopback()));
  ASSERT_TRUE(awaitLine(*first, "on standby")) << second->err();
  EXPECT_TRUE(awaitLine(*first, "member 1 is published by somebody else too"));
  EXPECT_TRUE(waitUntil([&] {
    auto now = leases();
    return now.size() == 1 && !now.contains(lease);
  })) << "the first gives its lease back";
  EXPECT_EQ(second->stop(), 0);
  EXPECT_TRUE(awaitKey("members/1/figures")) << first->err();
  EXPECT_TRUE(awaitLine(*first, "the other publisher of member 1 is gone"));
}

TEST_F(TrelmemberdTest, AsleepWhileASuccessorStarted_StandsByWhenItWakesUp) {
  auto first = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << first->err();
  first->signal(SIGSTOP);
  ASSERT_TRUE(waitUntil([&] { return keys().empty(); }, 20s));
  auto second = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << second->err();
  first->signal(SIGCONT);
  EXPECT_TRUE(awaitLine(*first, "on standby")) << second->err();
  EXPECT_TRUE(awaitWrites(3));
  EXPECT_EQ(second->err().find("on standby"), std::string::npos) << second->err();
}

// As a leader does that stalled, to all leases. A lease that is lost otherwise is noticed no later.
TEST_F(TrelmemberdTest, LeaseIsRevokedUnderIt_EverythingIsBackSoon) {
  auto process = start(config(1, loopback(), kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  auto before = names();
  ASSERT_TRUE(client_->revoke(*leases().begin()).ok());
  EXPECT_TRUE(waitUntil([&] { return names() == before; })) << process->err();
  EXPECT_TRUE(awaitLine(*process, "is gone: everything is written anew"));
}

TEST_F(TrelmemberdTest, InterfaceOfAnotherMember_IsLeftAloneUntilItIsGone) {
  auto other = start(config(2, loopback(1)));
  ASSERT_TRUE(awaitKey("members/2/figures")) << other->err();
  int64_t theirs = keys()["interfaces/Backplane1%2F2"].lease;
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/figures")) << process->err();
  EXPECT_EQ(keys()["interfaces/Backplane1%2F2"].lease, theirs);
  EXPECT_TRUE(awaitLine(*process, "interfaces/\"Backplane1/2\" is published by somebody else"));
  EXPECT_EQ(other->stop(), 0);
  EXPECT_TRUE(awaitKey("interfaces/Backplane1%2F2")) << process->err();
}

TEST_F(TrelmemberdTest, Ready_IsToldOnceEverythingIsPublished) {
  std::string path = directory_.file("notify");
  int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  timeval patience{10, 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  auto told = [&] {
    char bytes[256];
    ssize_t count = ::recv(socket, bytes, sizeof bytes, 0);
    return std::string(bytes, count < 0 ? 0 : static_cast<size_t>(count));
  };
  auto process = start(config(1, loopback()), {"NOTIFY_SOCKET=" + path});
  EXPECT_EQ(told(), "STATUS=waiting for this machine's figures") << process->err();
  EXPECT_EQ(told(), "STATUS=asking the store for a lease") << process->err();
  EXPECT_THAT(told(), StartsWith("STATUS=publishing member 1, under lease "));
  EXPECT_EQ(told(), "READY=1") << process->err();
  EXPECT_THAT(names(), Contains("members/1/figures"));
  EXPECT_EQ(process->stop(), 0);
  EXPECT_EQ(told(), "STATUS=ending");
  EXPECT_EQ(told(), "STOPPING=1");
  ::close(socket);
}

// Two switches with a cable between them; each has a publisher, all of them one store. The publisher of the
// second switch is left out: the kernel answers echoes without it.
class CableTest : public TrelmemberdTest {
 protected:
  void SetUp() override {
    if (std::string why = Support::enterOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
    TrelmemberdTest::SetUp();
    other_ = std::make_unique<Support::OtherNetwork>();
    Support::ip("link add name bp type veth peer name far");
    other_->take("far");
    Support::ip("addr add 10.1.0.1/24 dev bp");
    Support::ip("link set bp up");
    other_->ip("addr add 10.1.0.2/24 dev far");
    other_->ip("link set far up");
    std::string path = config(1, R"({"member": 2, "interface": "Backplane1/2", "device": "bp",
                                     "address": "10.1.0.2", "probe": {"intervalMs": 200, "timeoutMs": 200}})");
    process_ =
        std::make_unique<Process>(Support::Argv{TRELMEMBERD, "--config", path, "--if-index-base", "0"});
    ASSERT_TRUE(awaitState("reachable")) << process_->err();
  }
  void TearDown() override {
    process_.reset();
    other_.reset();
  }
  bool awaitState(const std::string& state, Support::Millis deadline = 10s) {
    return waitUntil(
        [&] {
          auto now = value("members/1/reachability/2");
          return now.is_object() && now["state"] == state;
        },
        deadline);
  }

  std::unique_ptr<Support::OtherNetwork> other_;
  std::unique_ptr<Process> process_;
};

TEST_F(CableTest, CutAtTheFarEnd_IsPublishedSoonAndMendedSoon) {
  auto before = value("members/1/reachability/2")["lastChange"].get<uint64_t>();
  other_->ip("link set far down");
  EXPECT_TRUE(awaitState("unreachable", 2s)) << process_->err();
  EXPECT_GT(value("members/1/reachability/2")["lastChange"].get<uint64_t>(), before);
  other_->ip("link set far up");
  EXPECT_TRUE(awaitState("reachable")) << process_->err();
}

TEST_F(CableTest, SwitchedOffHere_Disabled) {
  Support::ip("link set bp down");
  EXPECT_TRUE(awaitState("disabled", 2s)) << process_->err();
}

TEST_F(CableTest, NeighbourDoesNotAnswer_UnreachableThoughThereIsCarrier) {
  other_->ip("addr flush dev far");
  EXPECT_TRUE(awaitState("unreachable")) << process_->err();
  other_->ip("addr add 10.1.0.2/24 dev far");
  EXPECT_TRUE(awaitState("reachable")) << process_->err();
}

TEST_F(CableTest, DeviceVanishesAndAnotherAppears_ItsIndexFollows) {
  auto before = value("interfaces/Backplane1%2F2")["ifIndex"].get<uint32_t>();
  Support::ip("link delete bp");
  EXPECT_TRUE(waitUntil([&] { return !keys().contains("interfaces/Backplane1%2F2"); })) << process_->err();
  EXPECT_TRUE(awaitState("unreachable"));
  Support::ip("link add name bp type veth peer name far");
  EXPECT_TRUE(awaitKey("interfaces/Backplane1%2F2"));
  EXPECT_NE(value("interfaces/Backplane1%2F2")["ifIndex"].get<uint32_t>(), before);
}

TEST_F(CableTest, StateThatStays_IsNotWrittenAgain) {
  int64_t revision = keys()["members/1/reachability/2"].modRevision;
  int64_t system = keys()["members/1/figures"].modRevision;
  EXPECT_TRUE(waitUntil([&] { return keys()["members/1/figures"].modRevision > system + 2; }));
  EXPECT_EQ(keys()["members/1/reachability/2"].modRevision, revision);
}

// What the store sees while the publisher of a reachable neighbour is replaced.
class RestartTest : public CableTest {
 protected:
  // Starts another one, after `end`, and returns all changes from before the end until it has published for a
  // while, as etcdctl shows them.
  std::string changesOver(const std::function<void()>& end) {
    EXPECT_TRUE(awaitWrites(3)) << "loads take two measurements";
    before_ = value("members/1/reachability/2");
    lease_ = keys()["members/1/figures"].lease;
    Process watch({"etcdctl", "--endpoints=" + etcd_->endpointList(), "watch", "--prefix", "trel/members/1/",
                   "-w", "simple"},
                  {"ETCDCTL_API=3"});
    EXPECT_TRUE(waitUntil([&] { return !watch.out().empty(); }, 20s)) << watch.err();
    end();
    process_ = start(config(1, R"({"member": 2, "interface": "Backplane1/2", "device": "bp",
                                   "address": "10.1.0.2", "probe": {"intervalMs": 200, "timeoutMs": 200}})"));
    EXPECT_TRUE(waitUntil([&] { return keys()["members/1/figures"].lease != lease_; }, 20s))
        << process_->err();
    EXPECT_TRUE(awaitWrites(3));
    EXPECT_EQ(value("members/1/reachability/2"), before_) << process_->err();
    return watch.out();
  }

  nlohmann::json before_;
  int64_t lease_ = 0;
};

TEST_F(RestartTest, KilledAndStartedAgain_TheReportOnTheNeighbourDoesNotChange_NorDoesALoad) {
  std::string changes = changesOver([&] {
    process_->signal(SIGKILL);
    process_->wait();
  });
  EXPECT_THAT(changes, HasSubstr("reachability/2"));
  EXPECT_THAT(changes, testing::Not(HasSubstr("initializing")));
  EXPECT_THAT(changes, testing::Not(HasSubstr(":-1")));
  EXPECT_THAT(changes, testing::Not(HasSubstr("DELETE")));
}

TEST_F(RestartTest, RestartedWithHandover_NoRowGoes) {
  process_->stop();
  handover_ = true;
  process_ = start(config(1, R"({"member": 2, "interface": "Backplane1/2", "device": "bp",
                                 "address": "10.1.0.2", "probe": {"intervalMs": 200, "timeoutMs": 200}})"));
  ASSERT_TRUE(awaitState("reachable")) << process_->err();
  std::string changes = changesOver([&] {
    EXPECT_EQ(process_->stop(), 0);
    EXPECT_THAT(process_->err(), HasSubstr("is left to a successor"));
  });
  EXPECT_THAT(changes, testing::Not(HasSubstr("initializing")));
  EXPECT_THAT(changes, testing::Not(HasSubstr(":-1")));
  EXPECT_THAT(changes, testing::Not(HasSubstr("DELETE")));
}

}  // namespace
}  // namespace Member
