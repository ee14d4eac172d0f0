// The program as an operator meets it, publishing into a real etcd.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "etcd/Client.h"
#include "support/Etcd.h"
#include "support/EtcdAccess.h"
#include "support/Network.h"
#include "support/OwnNetwork.h"
#include "support/Process.h"
#include "support/Relay.h"
#include "support/TempDir.h"

namespace Member {
namespace {

using namespace std::chrono_literals;
using Kelstore::Etcd::Client;
using Kelstore::Etcd::KeyValue;
using Support::Process;
using Support::waitUntil;
using testing::Contains;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;

constexpr int kTtlSeconds = 3;
constexpr int kLongTtlSeconds = 30;

class TrelmemberdTest : public testing::Test {
 protected:
  void SetUp() override {
    etcd_ = std::make_unique<Support::EtcdCluster>();
    client_ = std::make_unique<Client>(etcd_->endpoints(), Kelstore::Etcd::Access());
  }
  static std::string loopback(int neighbour = 2, const std::string& interface = "Backplane1/2") {
    return fmt::format(R"({{"member": {}, "interface": "{}", "device": "lo", "address": "127.0.0.1"}})",
                       neighbour, interface);
  }
  std::string config(int member, const std::string& neighbours) {
    return config(member, neighbours, etcd_->endpointList(), kTtlSeconds);
  }
  std::string config(int member, const std::string& neighbours, const std::string& servers, int ttlSeconds) {
    return directory_.write(fmt::format("{}.json", member),
                            fmt::format(R"({{"member": {}, "store": "etcd:{}/trel", "ttl": {},
                                             "figuresInterval": 1, "neighbours": [{}], "access": {}}})",
                                        member, servers, ttlSeconds, neighbours, access_.dump()));
  }
  std::unique_ptr<Process> start(const std::string& config, const Support::Env& env = {}) {
    return std::make_unique<Process>(Support::Argv{TRELMEMBERD, "--config", config}, env);
  }
  // All keys without the prefix; empty, and no failure, when the store does not answer.
  std::map<std::string, KeyValue> keys() {
    std::map<std::string, KeyValue> all;
    auto listing = client_->range({"trel/", "trel0"});
    if (!listing.ok()) return all;
    for (KeyValue& one : listing->keyValues) {
      std::string name = one.key.substr(5);
      all.emplace(name, std::move(one));
    }
    return all;
  }
  std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const auto& [name, value] : keys()) all.push_back(name);
    return all;
  }
  nlohmann::json value(const std::string& name) {
    auto all = keys();
    auto found = all.find(name);
    return found == all.end() ? nlohmann::json() : nlohmann::json::parse(found->second.value);
  }
  bool awaitKey(const std::string& name, Support::Millis deadline = 10s) {
    return waitUntil([&] { return keys().contains(name); }, deadline);
  }
  bool leaseIsGone(int64_t lease) { return absl::IsNotFound(client_->timeToLive(lease).status()); }
  // Those of the keys; 0 among them when one has none.
  std::set<int64_t> leases() {
    std::set<int64_t> all;
    for (const auto& [name, value] : keys()) all.insert(value.lease);
    return all;
  }

  Support::TempDir directory_;
  std::unique_ptr<Support::EtcdCluster> etcd_;
  std::unique_ptr<Client> client_;
  nlohmann::json access_ = nlohmann::json::object();  // that processes are configured with
};

TEST_F(TrelmemberdTest, Publishes_AllOfTheMemberUnderOneLease) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  EXPECT_THAT(names(),
              IsSupersetOf({"interfaces/Backplane1%2F2", "members/1/memory", "members/1/processors/1",
                            "members/1/reachability/2", "members/1/system", "topology/1/2"}));
  EXPECT_EQ(leases().size(), 1u);
  EXPECT_FALSE(leases().contains(0));
  auto time = client_->timeToLive(*leases().begin());
  ASSERT_TRUE(time.ok());
  EXPECT_EQ(time->granted, std::chrono::seconds(kTtlSeconds));
  EXPECT_EQ(value("interfaces/Backplane1%2F2"), nlohmann::json({{"ifIndex", 1}}));
  EXPECT_EQ(value("topology/1/2"), nlohmann::json({{"intf", "Backplane1/2"}}));
  EXPECT_EQ(value("members/1/reachability/2")["intf"], "Backplane1/2");
  EXPECT_EQ(value("members/1/memory")["total"], value("members/1/system")["memorySize"]);
}

TEST_F(TrelmemberdTest, Figures_FollowAndNothingElseIsWritten) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  auto before = keys();
  auto written = [&](const std::string& name) {
    return keys()[name].modRevision != before[name].modRevision;
  };
  EXPECT_TRUE(waitUntil([&] { return written("members/1/system"); }));
  EXPECT_FALSE(written("topology/1/2"));
  EXPECT_FALSE(written("interfaces/Backplane1%2F2"));
}

TEST_F(TrelmemberdTest, RunsForLongerThanItsLease_EverythingStays) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  auto lease = leases();
  size_t count = keys().size();
  EXPECT_FALSE(waitUntil([&] { return keys().size() < count; }, 2000ms * kTtlSeconds)) << process->err();
  EXPECT_EQ(leases(), lease);
}

TEST_F(TrelmemberdTest, Terminated_ItsKeysGoAtOnceAndNoOthers) {
  ASSERT_TRUE(client_->put("trel/members/2/system", "{}").ok());
  for (int signal : {SIGTERM, SIGINT}) {
    auto process = start(config(1, loopback()));
    ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
    int64_t lease = keys()["members/1/system"].lease;
    EXPECT_EQ(process->stop(signal), 0) << process->err();
    EXPECT_THAT(names(), testing::ElementsAre("members/2/system"));
    EXPECT_TRUE(leaseIsGone(lease));
  }
}

TEST_F(TrelmemberdTest, Killed_ItsKeysAreGoneWithTheLease) {
  ASSERT_TRUE(client_->put("trel/members/2/system", "{}").ok());
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  process->signal(SIGKILL);
  EXPECT_EQ(process->wait(), 128 + SIGKILL);
  EXPECT_TRUE(waitUntil([&] { return keys().size() == 1; }, std::chrono::seconds(kTtlSeconds + 1)));
  EXPECT_THAT(names(), testing::ElementsAre("members/2/system"));
}

TEST_F(TrelmemberdTest, KilledAndStartedAgain_TakesOverAndNoKeyIsEverMissing) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  auto before = leases();
  size_t count = keys().size();
  process->signal(SIGKILL);
  process->wait();
  process = start(config(1, loopback()));
  bool missing = false;
  EXPECT_TRUE(waitUntil([&] {
    missing = missing || keys().size() < count;
    auto now = leases();
    return now.size() == 1 && now != before;
  })) << process->err();
  EXPECT_FALSE(missing);
  EXPECT_THAT(process->err(), HasSubstr("takes over the keys of an earlier publisher"));
  int64_t old = *before.begin();
  EXPECT_TRUE(waitUntil([&] { return leaseIsGone(old); }));
  EXPECT_GE(keys().size(), count) << "they went with the old lease";
}

TEST_F(TrelmemberdTest, ConfigurationHasOneNeighbourLess_ItsKeysAreDeleted) {
  std::string other = R"({"member": 3, "interface": "Backplane1/3", "device": "none", "address": "::1"})";
  auto process = start(config(1, loopback() + "," + other));
  ASSERT_TRUE(awaitKey("topology/1/3")) << process->err();
  EXPECT_EQ(value("members/1/reachability/3")["state"], "unreachable");
  process->signal(SIGKILL);
  process->wait();
  process = start(config(1, loopback()));
  EXPECT_TRUE(waitUntil([&] { return !keys().contains("topology/1/3"); }, 2s)) << process->err();
  EXPECT_THAT(names(), testing::Not(Contains("members/1/reachability/3")));
}

TEST_F(TrelmemberdTest, SecondPublisherOfTheMember_TheFirstStandsByUntilThatIsGone) {
  auto first = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << first->err();
  int64_t lease = *leases().begin();
  auto second = start(config(1, loopback()));
  ASSERT_TRUE(waitUntil([&] { return first->err().find("stands by") != std::string::npos; }))
      << first->err() << second->err();
  EXPECT_THAT(first->err(), HasSubstr("member 1 is published by somebody else too"));
  auto now = leases();
  EXPECT_EQ(now.size(), 1u);
  EXPECT_FALSE(now.contains(lease));
  EXPECT_EQ(second->stop(), 0);
  EXPECT_TRUE(awaitKey("members/1/system", std::chrono::seconds(2 * kTtlSeconds))) << first->err();
  EXPECT_THAT(first->err(), HasSubstr("the other publisher of member 1 is gone"));
}

TEST_F(TrelmemberdTest, InterfaceOfAnotherMember_IsLeftAloneUntilItIsGone) {
  auto other = start(config(2, loopback(1)));
  ASSERT_TRUE(awaitKey("members/2/system")) << other->err();
  int64_t theirs = keys()["interfaces/Backplane1%2F2"].lease;
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  EXPECT_EQ(keys()["interfaces/Backplane1%2F2"].lease, theirs);
  EXPECT_THAT(process->err(), HasSubstr("interfaces/\"Backplane1/2\" is published by somebody else"));
  EXPECT_EQ(other->stop(), 0);
  EXPECT_TRUE(awaitKey("interfaces/Backplane1%2F2", std::chrono::seconds(2 * kTtlSeconds + 2)))
      << process->err();
}

TEST_F(TrelmemberdTest, StoreIsAwayForAWhile_GoesOnAndIsBack) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  etcd_->end(0);
  EXPECT_TRUE(
      waitUntil([&] { return process->err().find("the store cannot be used") != std::string::npos; }));
  EXPECT_TRUE(process->running());
  etcd_->start(0);
  EXPECT_TRUE(
      waitUntil([&] { return process->err().find("the store works again") != std::string::npos; }, 20s))
      << process->err();
  EXPECT_TRUE(awaitKey("members/1/system"));
  int64_t revision = keys()["members/1/system"].modRevision;
  EXPECT_TRUE(waitUntil([&] { return keys()["members/1/system"].modRevision > revision; }));
}

TEST_F(TrelmemberdTest, StoreComesBackEmpty_EverythingIsWrittenAnew) {
  auto process = start(config(1, loopback()));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  auto before = names();
  etcd_->restartEmpty();
  EXPECT_TRUE(waitUntil([&] { return names() == before; }, 20s)) << process->err();
  EXPECT_THAT(process->err(), HasSubstr("is gone: everything is written anew"));
}

TEST_F(TrelmemberdTest, StoreIsAwayAtTheEnd_EndsSoonAllTheSame_AndSaysWhatStays) {
  auto process = start(config(1, loopback(), etcd_->endpointList(), kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  etcd_->process(0)->signal(SIGSTOP);
  EXPECT_EQ(process->stop(SIGTERM, 4s), 0) << process->err();
  etcd_->process(0)->signal(SIGCONT);
  EXPECT_THAT(process->err(), HasSubstr("is not given back: "));
}

// The lease is a long one: what is gone was given back.
TEST_F(TrelmemberdTest, FirstServersAreSilent_TheEndBeginsWithTheOneThatAnswers) {
  Support::Relay silent(Support::portOf(etcd_->endpoint()));
  Support::Relay silentToo(Support::portOf(etcd_->endpoint()));
  for (Support::Relay* relay : {&silent, &silentToo}) relay->freeze();
  auto servers = fmt::format("{},{},{}", silent.endpoint(), silentToo.endpoint(), etcd_->endpoint());
  auto process = start(config(1, loopback(), servers, kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  // The silent ones would have it wait for longer.
  EXPECT_EQ(process->stop(SIGTERM, 1100ms), 0) << process->err();
  EXPECT_THAT(names(), testing::IsEmpty()) << process->err();
}

TEST_F(TrelmemberdTest, ServerFallsSilentBeforeTheEnd_AnotherOneTakesTheLease) {
  Support::Relay relay(Support::portOf(etcd_->endpoint()));
  auto process = start(config(1, loopback(), relay.endpoint() + "," + etcd_->endpoint(), kLongTtlSeconds));
  ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
  relay.freeze();
  EXPECT_EQ(process->stop(SIGTERM, 4s), 0) << process->err();
  EXPECT_THAT(names(), testing::IsEmpty()) << process->err();
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
    char bytes[64];
    ssize_t count = ::recv(socket, bytes, sizeof bytes, 0);
    return std::string(bytes, count < 0 ? 0 : static_cast<size_t>(count));
  };
  auto process = start(config(1, loopback()), {"NOTIFY_SOCKET=" + path});
  EXPECT_EQ(told(), "READY=1") << process->err();
  EXPECT_THAT(names(), Contains("members/1/system"));
  EXPECT_EQ(process->stop(), 0);
  EXPECT_EQ(told(), "STOPPING=1");
  ::close(socket);
}

// Servers that ask who it is: of the publisher, and of the test.
class TrelmemberdAccessTest : public TrelmemberdTest {
 protected:
  void SetUp() override {}
  void serversAre(const Support::EtcdOptions& options, const Kelstore::Etcd::Access& access) {
    etcd_ = std::make_unique<Support::EtcdCluster>(options);
    client_ = std::make_unique<Client>(etcd_->endpoints(), access);
  }
  // Publishes, keeps that for longer than the lease, and withdraws it: every kind of call is let in.
  void expectPublishes() {
    auto process = start(config(1, loopback()));
    ASSERT_TRUE(awaitKey("members/1/system")) << process->err();
    auto lease = leases();
    EXPECT_FALSE(waitUntil([&] { return leases() != lease; }, 1500ms * kTtlSeconds)) << process->err();
    EXPECT_EQ(process->stop(), 0);
    EXPECT_THAT(names(), testing::IsEmpty()) << process->err();
    EXPECT_THAT(process->err(), testing::Not(HasSubstr("cannot be used")));
  }
  void expectIsRefused(const std::string& why) {
    auto process = start(config(1, loopback()));
    EXPECT_TRUE(waitUntil([&] { return process->err().find("cannot be used: ") != std::string::npos; }));
    EXPECT_THAT(process->err(), HasSubstr(why));
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(process->stop(), 0) << process->err();
  }
};

TEST_F(TrelmemberdAccessTest, ServerWantsACertificate_PublishesWithOneOfItsCaOnly) {
  Support::Certificates certificates;
  for (const char* ca : {"ca", "stranger"}) certificates.authority(ca);
  for (const char* name : {"server", "test", "member"}) certificates.certificate(name, "ca");
  certificates.certificate("intruder", "stranger");
  serversAre(certificates.serverOptions("server", "ca"),
             {certificates.certFile("ca"), certificates.certFile("test"), certificates.keyFile("test")});
  auto showing = [&](const std::string& name) -> nlohmann::json {
    return {{"ca", certificates.certFile("ca")},
            {"cert", certificates.certFile(name)},
            {"key", certificates.keyFile(name)}};
  };
  access_ = showing("member");
  expectPublishes();
  access_ = showing("intruder");
  expectIsRefused(etcd_->endpoint());
}

TEST_F(TrelmemberdAccessTest, ServerWantsAUser_PublishesWithItsPasswordOnly) {
  serversAre({}, {.credentialsFile = Support::writeLogin(directory_, "test", "root", "rootpw")});
  Support::enableAuthentication(*etcd_);
  access_ = {{"credentials", Support::writeLogin(directory_, "member", "trel", "secret")}};
  expectPublishes();
  access_ = {{"credentials", Support::writeLogin(directory_, "wrong", "trel", "wrong")}};
  expectIsRefused("user \"trel\" of " + directory_.file("wrong") + " was refused");
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
    process_ = start(config(1, R"({"member": 2, "interface": "Backplane1/2", "device": "bp",
                                   "address": "10.1.0.2", "probe": {"intervalMs": 200, "timeoutMs": 200}})"));
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
  int64_t system = keys()["members/1/system"].modRevision;
  EXPECT_TRUE(waitUntil([&] { return keys()["members/1/system"].modRevision > system + 2; }));
  EXPECT_EQ(keys()["members/1/reachability/2"].modRevision, revision);
}

// What does not need a store.
class CommandLineTest : public testing::Test {
 protected:
  Support::Result run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TRELMEMBERD);
    return Support::run(arguments);
  }
  Support::TempDir directory_;
};

TEST_F(CommandLineTest, Check_GoodConfigurationIsSilent) {
  auto brief = run({"--check", TREL_EXAMPLES "/trelmemberd.json"});
  EXPECT_EQ(brief.err + brief.out, "");
  EXPECT_EQ(brief.status, 0);
  auto result = run({"--config", TREL_EXAMPLES "/trelmemberd.json", "--check"});
  EXPECT_EQ(result.err + result.out, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(CommandLineTest, Check_ListsAllErrorsAndWarnings) {
  std::string path =
      directory_.write("c", R"({"member": 300, "store": "etcd:h/p", "x": 1, "access": {"cert": "/none"}})");
  auto result = run({"--check", path});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err,
              HasSubstr("trelmemberd: " + path + ": member: found 300, expected an integer from 0 to 255\n"));
  EXPECT_THAT(result.err, HasSubstr("trelmemberd: " + path + ": store: found"));
  EXPECT_THAT(result.err, HasSubstr("trelmemberd: " + path + ": access: "));
  EXPECT_THAT(result.err, HasSubstr("trelmemberd: " + path + ": x: unknown member, ignored\n"));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 4) << result.err;
}

TEST_F(CommandLineTest, Check_WarningsAloneAreNoFailure) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p", "x": 1})");
  auto result = run({"--check", path});
  EXPECT_EQ(result.err, "trelmemberd: " + path + ": x: unknown member, ignored\n");
  EXPECT_EQ(result.status, 0);
}

TEST_F(CommandLineTest, UnusableConfiguration_EndsWithItsErrors) {
  std::string path = directory_.write("c", R"({"member": 3})");
  auto result = run({"--config", path});
  EXPECT_EQ(result.err, "trelmemberd: " + path +
                            ": store: found nothing, expected etcd:HOST:PORT[,HOST:PORT...]/PREFIX\n");
  EXPECT_EQ(result.status, 2);
}

TEST_F(CommandLineTest, StoreThatIsNoEtcd_IsAnError) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "file:/x"})");
  EXPECT_THAT(run({"--check", path}).err, HasSubstr("store: found \"file:/x\", expected etcd:HOST:PORT"));
}

TEST_F(CommandLineTest, UnusableArguments_OneLine) {
  for (auto arguments : {std::vector<std::string>{}, {"--config"}, {"--nonsense"}, {"--check"}}) {
    auto result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, StartsWith("trelmemberd: "));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST_F(CommandLineTest, Mappings_AreADocumentWithTheRootInIt) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p"})");
  auto result = run({"--config", path, "--mappings"});
  EXPECT_EQ(result.status, 0) << result.err;
  auto mappings = nlohmann::json::parse(result.out)["storageMappings"];
  EXPECT_EQ(mappings["memory"]["1"]["description"], "Physical memory");
  EXPECT_EQ(mappings["mounts"]["/"]["description"], "/");
  EXPECT_THAT(run({"--check", "--mappings", path}).err, HasSubstr("excludes"));
}

TEST_F(CommandLineTest, Version_AndHelp) {
  EXPECT_THAT(run({"--version"}).out, StartsWith("trelmemberd "));
  EXPECT_THAT(run({"--help"}).out, HasSubstr("--check"));
  EXPECT_EQ(run({"--help"}).status, 0);
}

}  // namespace
}  // namespace Member
