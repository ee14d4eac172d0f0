// SIGHUP: the configuration is read again, and nothing is lost by it; the log is opened anew.
#include <gmock/gmock.h>

#include <optional>

#include "tests/programs/TrelmemberdFixture.h"
#include "tests/support/EtcdAccess.h"
#include "tests/support/HangingMount.h"
#include "tests/support/PathCalls.h"
#include "tests/support/SystemLogger.h"

namespace Member {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kThird =
    R"({"member": 3, "interface": "Backplane1/3", "device": "none", "address": "::1"})";

class TrelmemberdReloadTest : public TrelmemberdTest {
 protected:
  void SetUp() override {
    TrelmemberdTest::SetUp();
    file_ = config(1, loopback());
    process_ = start(file_);
    ASSERT_TRUE(awaitKey("members/1/reachability/2")) << process_->err();
    // The one on the loopback device may still come to be reachable.
    ASSERT_TRUE(waitUntil([&] {
      std::string state = value("members/1/reachability/2")["state"];
      return state == "reachable" || state == "unknown";
    })) << process_->err();
  }
  // With a lease that does not run out while the machine is busy.
  std::string config(int member, const std::string& neighbours) {
    return TrelmemberdTest::config(member, neighbours, kLongTtlSeconds);
  }
  void reload() { process_->signal(SIGHUP); }
  bool reloaded(const std::string& counts) {
    return awaitLine(*process_, file_ + ": reloaded: of the neighbours " + counts);
  }

  std::string file_;
  std::unique_ptr<Process> process_;
};

TEST_F(TrelmemberdReloadTest, NeighbourIsAddedAndGoesAgain_LeaseAndOtherRowsStay) {
  auto before = keys();
  config(1, loopback() + "," + kThird);
  reload();
  ASSERT_TRUE(awaitKey("topology/1/3")) << process_->err();
  EXPECT_TRUE(reloaded("1 are as before, 0 changed, 1 new, 0 gone\n")) << process_->err();
  EXPECT_EQ(value("members/1/reachability/3")["state"], "unreachable");
  config(1, loopback());
  reload();
  ASSERT_TRUE(waitUntil([&] { return !keys().contains("topology/1/3"); })) << process_->err();
  EXPECT_TRUE(reloaded("1 are as before, 0 changed, 0 new, 1 gone\n")) << process_->err();
  EXPECT_THAT(names(), Not(Contains("members/1/reachability/3")));

  auto after = keys();
  EXPECT_EQ(after["members/1/figures"].lease, before["members/1/figures"].lease);
  for (const char* name : {"members/1/reachability/2", "topology/1/2", "interfaces/Backplane1%2F2"}) {
    EXPECT_EQ(after[name].modRevision, before[name].modRevision) << name;
  }
  EXPECT_TRUE(process_->running());
}

TEST_F(TrelmemberdReloadTest, InterfaceOfANeighbourIsAnother_ItsKeyGoesAndTheNewOneComes) {
  config(1, loopback(2, "Backplane1/9"));
  reload();
  ASSERT_TRUE(awaitKey("interfaces/Backplane1%2F9")) << process_->err();
  EXPECT_TRUE(waitUntil([&] { return !keys().contains("interfaces/Backplane1%2F2"); })) << process_->err();
  EXPECT_EQ(value("topology/1/2"), nlohmann::json({{"intf", "Backplane1/9"}}));
}

TEST_F(TrelmemberdReloadTest, ProbeIsConfiguredAnew_TheStateIsNotLost) {
  auto before = value("members/1/reachability/2");
  config(1, R"({"member": 2, "interface": "Backplane1/2", "device": "lo", "address": "127.0.0.1",
                "ifIndex": 77, "probe": {"intervalMs": 1000}})");
  reload();
  ASSERT_TRUE(waitUntil([&] { return value("interfaces/Backplane1%2F2")["ifIndex"] == 77; }))
      << process_->err();
  EXPECT_TRUE(reloaded("0 are as before, 1 changed, 0 new, 0 gone\n")) << process_->err();
  EXPECT_EQ(value("members/1/reachability/2"), before);
}

TEST_F(TrelmemberdReloadTest, BadConfiguration_IsNamed_AndTheOldOneStaysInForce) {
  directory_.write("1.json", R"({"member": 1, "ttl": "long"})");
  reload();
  ASSERT_TRUE(awaitLine(*process_, file_ + ": not reloaded, the configuration stays as it was"))
      << process_->err();
  EXPECT_THAT(process_->err(),
              HasSubstr(file_ + ":1: ttl: found \"long\", expected an integer from 2 to 3600"));
  EXPECT_THAT(process_->err(), HasSubstr(file_ + ":1: store: found nothing"));
  int64_t revision = keys()["members/1/figures"].modRevision;
  EXPECT_TRUE(waitUntil([&] { return keys()["members/1/figures"].modRevision > revision; }));
  EXPECT_THAT(names(), Contains("topology/1/2"));
  config(1, loopback());
  reload();
  EXPECT_TRUE(reloaded("1 are as before, 0 changed, 0 new, 0 gone\n")) << process_->err();
}

TEST_F(TrelmemberdReloadTest, WhatCountsFromTheStart_IsNamed_AndTheRestCounts) {
  auto before = leases();
  holdSeconds_ = 200;
  TrelmemberdTest::config(1, loopback() + "," + kThird, etcd_->endpointList() + ",127.0.0.1:1", kTtlSeconds);
  reload();
  EXPECT_TRUE(
      reloaded("1 are as before, 0 changed, 1 new, 0 gone; it takes a restart for store, ttl, hold\n"))
      << process_->err();
  EXPECT_TRUE(awaitKey("topology/1/3"));
  EXPECT_EQ(leases(), before);
  reload();
  EXPECT_TRUE(
      reloaded("2 are as before, 0 changed, 0 new, 0 gone; it takes a restart for store, ttl, hold\n"))
      << process_->err();
}

TEST_F(TrelmemberdReloadTest, TraceLevelOfTheFile_Counts_LeaseAndRowsStay) {
  auto before = keys();
  EXPECT_THAT(process_->err(), Not(HasSubstr(" Member/3 ")));
  auto file = nlohmann::json::parse(Support::readFile(file_));
  file["trace"] = {"Member/3"};
  directory_.write("1.json", file.dump());
  reload();
  EXPECT_TRUE(awaitLine(*process_, " Member/3 ")) << process_->err();
  auto after = keys();
  EXPECT_EQ(after["members/1/figures"].lease, before["members/1/figures"].lease);
  EXPECT_EQ(after["topology/1/2"].modRevision, before["topology/1/2"].modRevision);
}

TEST_F(TrelmemberdReloadTest, AnotherMember_NothingOfItCounts) {
  std::string other = config(2, loopback(3));
  std::filesystem::rename(other, file_);
  reload();
  ASSERT_TRUE(awaitLine(*process_, file_ + ":1: member: found 2, expected 1, which this process publishes"))
      << process_->err();
  EXPECT_TRUE(awaitLine(*process_, "not reloaded"));
  EXPECT_THAT(names(), Contains("topology/1/2"));
  EXPECT_THAT(names(), Not(Contains("topology/1/3")));
}

// From its start to its end.
TEST_F(TrelmemberdReloadTest, AskedForAtAnyTime_DoesNotEndTheProcess) {
  EXPECT_TRUE(process_->holds(SIGHUP));
}

// A file system that does not answer holds up whoever looks something up in it.
TEST_F(TrelmemberdReloadTest, LoopLooksNothingUpInAFileSystem) {
  std::optional<Support::PathCalls> calls;
  try {
    calls.emplace(process_->pid());
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << error.what();
  }
  config(1, loopback() + "," + kThird);
  reload();
  ASSERT_TRUE(awaitKey("topology/1/3", 30s)) << process_->err();
  for (int round = 0; round < 3; ++round) {
    int64_t before = keys()["members/1/figures"].modRevision;
    ASSERT_TRUE(waitUntil([&] { return keys()["members/1/figures"].modRevision > before; }, 30s))
        << process_->err();
  }
  process_->signal(SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return !process_->running(); }, 30s)) << process_->err();
  // The kernel's word on the clock's speed, for which gRPC asks once, comes from no file system that may
  // hang.
  EXPECT_THAT(calls->end(), testing::Each(testing::StartsWith("openat /sys/devices/system/cpu/")));
  EXPECT_GT(calls->all(), 100u);
}

// A daemon that is connected with the logger before would write to it on and on.
class TrelmemberdLogTest : public TrelmemberdTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(To, TrelmemberdLogTest, testing::Values("syslog", "journal"),
                         [](const auto& to) { return std::string(to.param); });

TEST_P(TrelmemberdLogTest, LoggerStartsAnew_LinesAfterSighupGoToIt) {
  if (std::string why = Support::SystemLogger::notAllowed(); !why.empty()) GTEST_SKIP() << why;
  Support::SystemLogger logger(directory_.file("namespace"), GetParam());
  Support::Argv command = logger.runner();
  std::string file = config(1, loopback(), kLongTtlSeconds);
  command.insert(command.end(), {TRELMEMBERD, "--config", file, "--log", GetParam()});
  Process process(command);
  ASSERT_TRUE(awaitKey("members/1/figures")) << process.err();
  auto reloads = [&] {
    process.signal(SIGHUP);
    std::string lines;
    return waitUntil([&] { return (lines += logger.received()).find(": reloaded: ") != std::string::npos; });
  };
  ASSERT_TRUE(reloads());
  logger.startAnew();
  EXPECT_TRUE(reloads());
  EXPECT_EQ(process.stop(), 0);
}

// Of member 1's figures; 0 when there are none.
int64_t figuresRevision(Client& client) {
  auto listing = client.get("trel/members/1/figures");
  return !listing.ok() || listing->records.empty() ? 0 : listing->records.front().modRevision;
}

// Its directory's file system answers nothing.
TEST(TrelmemberdHangingFileTest, ReloadHangs_PublishingGoesOn_AndTheEndIsNotHeldUp) {
  if (std::string why = Support::enterOwnMounts(); !why.empty()) GTEST_SKIP() << why;
  Support::EtcdCluster etcd;
  Client client(etcd.endpoints(), {});
  Support::TempDir directory;
  std::string file = directory.write(
      "1.json", fmt::format(R"({{"member": 1, "store": "etcd:{}/trel", "ttl": 60, "figuresInterval": 1,
                                            "deadbands": {{"longest": 1}}}})",
                            etcd.endpoint()));
  Process process({TRELMEMBERD, "--config", file});
  auto revision = [&client] { return figuresRevision(client); };
  ASSERT_TRUE(waitUntil([&] { return revision() != 0; })) << process.err();
  Support::HangingMount hangs(directory.path());
  process.signal(SIGHUP);
  int64_t before = revision();
  EXPECT_TRUE(waitUntil([&] { return revision() > before; })) << process.err();
  EXPECT_TRUE(waitUntil([&] {
    return process.err().find(file + ": not reloaded yet, still waiting for it") != std::string::npos;
  })) << process.err();
  EXPECT_EQ(process.stop(), 0) << process.err();
  EXPECT_EQ(revision(), 0) << "the lease was given back";
  EXPECT_THAT(process.err(), Not(HasSubstr(": reloaded: ")));
}

// The connection is there, but giving back the lease takes one of its own, and the files with it.
TEST(TrelmemberdHangingFileTest, CertificateAndKeyHang_PublishingGoesOn_AndTheEndIsNotHeldUp) {
  if (std::string why = Support::enterOwnMounts(); !why.empty()) GTEST_SKIP() << why;
  Support::Certificates certificates;
  certificates.authority("ca");
  for (const char* name : {"server", "member"}) certificates.certificate(name, "ca");
  Support::EtcdCluster etcd(certificates.serverOptions("server", "ca"));
  Support::TempDir directory;
  std::filesystem::create_directory(directory.file("hangs"));
  Client client(etcd.endpoints(), {certificates.certFile("ca"), certificates.certFile("member"),
                                   certificates.keyFile("member")});
  std::string cert = directory.file("hangs/cert");
  std::string key = directory.file("hangs/key");
  std::filesystem::copy(certificates.certFile("member"), cert);
  std::filesystem::copy(certificates.keyFile("member"), key);
  nlohmann::json config = {{"member", 1},
                           {"store", fmt::format("etcd:{}/trel", etcd.endpoint())},
                           {"ttl", 60},
                           {"figuresInterval", 1},
                           {"deadbands", {{"longest", 1}}},
                           {"access", {{"ca", certificates.certFile("ca")}, {"cert", cert}, {"key", key}}}};
  std::string file = directory.write("1.json", config.dump());
  Process process({TRELMEMBERD, "--config", file});
  auto revision = [&client] { return figuresRevision(client); };
  ASSERT_TRUE(waitUntil([&] { return revision() != 0; })) << process.err();
  Support::HangingMount hangs(directory.file("hangs"));
  process.signal(SIGHUP);
  int64_t before = revision();
  EXPECT_TRUE(waitUntil([&] { return revision() > before; })) << process.err();
  EXPECT_TRUE(waitUntil([&] {
    return process.err().find(file + ": not reloaded yet, still waiting for it or a file that it names") !=
           std::string::npos;
  })) << process.err();
  EXPECT_EQ(process.stop(), 0) << process.err();
  EXPECT_THAT(process.err(), HasSubstr(" is not given back: no answer for 2 s\n"));
}

}  // namespace
}  // namespace Member
