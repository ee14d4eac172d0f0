// Daemons that root started, and that run as another user.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "tests/e2e/Daemon.h"
#include "tests/support/Network.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// A user that every system has, with the group of the same number.
constexpr uid_t kDaemon = 1;
constexpr const char* kName = "daemon";

// What each thread of the process may do: one line for all that agree.
std::set<std::string> rights(pid_t process) {
  std::set<std::string> all;
  for (const auto& thread : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process))) {
    std::ifstream status(thread.path() / "status");
    std::string text;
    for (std::string line; std::getline(status, line);) {
      for (const char* field :
           {"Uid:", "Gid:", "Groups:", "CapInh:", "CapPrm:", "CapEff:", "CapAmb:", "NoNewPrivs:"}) {
        if (!line.starts_with(field)) continue;
        std::replace(line.begin(), line.end(), '\t', ' ');
        while (line.ends_with(' ')) line.pop_back();
        text += line + "; ";
      }
    }
    all.insert(text);
  }
  return all;
}

std::string expected(uint64_t capabilities) {
  return fmt::format(
      "Uid: 1 1 1 1; Gid: 1 1 1 1; Groups: 1; CapInh: {0:016x}; CapPrm: {1:016x}; CapEff: {1:016x}; "
      "CapAmb: {0:016x}; NoNewPrivs: 1; ",
      0, capabilities);
}

class OtherUser : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    std::filesystem::permissions(dir_.path(), std::filesystem::perms(0755));
  }
  uid_t ownerOf(const std::string& name) const {
    struct stat found {};
    return lstat(dir_.file(name).c_str(), &found) == 0 ? found.st_uid : static_cast<uid_t>(-1);
  }

  Support::TempDir dir_;
};

TEST_F(OtherUser, BindsAPortOfRoots_ThenNoThreadHasMoreRightsThanTheUser) {
  std::string control = dir_.file("run/control");
  // Root's groups are not to be kept either. A network of its own has port 161 free.
  Support::Process daemon(
      {"setpriv", "--groups=4321", "unshare", "--net", TRELSNMPD, "--user", kName, "--listen",
       "udp:0.0.0.0:161", "--control", control, "--state", "local", "--state", "etcd:127.0.0.1:1/trel"},
      {"STATE_DIRECTORY=" + dir_.file("state")});
  ASSERT_TRUE(Support::waitUntil([&] {
    return Support::run({TRELCTL, "--control", control, "wait", "--timeout", "1"}).status == 0;
  })) << daemon.err();
  EXPECT_THAT(rights(daemon.pid()), ElementsAre(expected(0)));
  EXPECT_GT(
      std::distance(std::filesystem::directory_iterator(fmt::format("/proc/{}/task", daemon.pid())), {}), 3)
      << "as there are threads of gRPC and of the log";
  for (const char* its : {"state", "state/lock", "state/trelsnmpd.conf", "run", "run/control"}) {
    EXPECT_EQ(ownerOf(its), kDaemon) << its;
  }
  // It looks into /proc and at file systems as that user.
  std::string status = Support::run({TRELCTL, "--control", control, "status", "--all"}).out;
  EXPECT_THAT(status, HasSubstr("mount /"));
  EXPECT_THAT(status, testing::Not(HasSubstr("ermission denied")));
  daemon.signal(SIGHUP);
  EXPECT_TRUE(Support::waitUntil([&] {
    return daemon.err().find("built-in access: reloaded: ") != std::string::npos;
  })) << daemon.err();
  EXPECT_EQ(daemon.stop(), 0) << daemon.err();
}

TEST_F(OtherUser, PublisherSendsEchoes_AndMayDoNothingElse) {
  std::string config = dir_.write("publisher.json", R"({"member": 1, "store": "etcd:127.0.0.1:1/trel",
      "neighbours": [{"member": 2, "interface": "Backplane1/1", "device": "lo", "address": "127.0.0.1"}]})");
  Support::Process publisher({TRELMEMBERD, "--config", config, "--user", kName});
  ASSERT_TRUE(Support::waitUntil([&] {
    return publisher.err().find("member 2 is reachable on lo") != std::string::npos;
  })) << publisher.err();
  EXPECT_THAT(rights(publisher.pid()), ElementsAre(expected(uint64_t{1} << CAP_NET_RAW)));
  EXPECT_EQ(publisher.stop(), 0) << publisher.err();
}

// As a unit's user does, and as it reads everything again at a reload.
TEST_F(OtherUser, ReadsItsFiles_AndNoneOfRoots) {
  std::string config =
      dir_.write("c.json", R"({"state": ["local"], "etcd-credentials": ")" + dir_.file("login") + "\"}");
  std::string login = dir_.write("login", R"({"user": "u", "password": "p"})");
  using std::filesystem::perms;
  std::filesystem::permissions(login, perms::owner_read);
  Support::Argv check{TRELSNMPD, "--config", config, "--user", kName, "--check"};
  std::string denied = fmt::format("{}:1: etcd-credentials: {}: Permission denied\n", config, login);
  Support::Result checked = Support::run(check, {"STATE_DIRECTORY=" + dir_.file("state")});
  EXPECT_EQ(checked.status, 1);
  EXPECT_THAT(checked.err, testing::StartsWith(denied));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("state")));
  check.pop_back();
  Support::Result started = Support::run(check, {"STATE_DIRECTORY=" + dir_.file("state")});
  EXPECT_EQ(started.status, 2);
  EXPECT_EQ(started.err, "trelsnmpd: " + denied);
  ASSERT_EQ(chown(login.c_str(), kDaemon, kDaemon), 0);
  check.emplace_back("--check");
  checked = Support::run(check, {"STATE_DIRECTORY=" + dir_.file("state")});
  EXPECT_EQ(checked.status, 0) << checked.err;
}

TEST_F(OtherUser, ThatDoesNotExist_IsOneOfAllFaultsOfACheck) {
  std::string config = dir_.write("c.json", R"({"member": 256, "user": "nobody-here"})");
  for (const char* program : {TRELSNMPD, TRELMEMBERD}) {
    Support::Result checked = Support::run({program, "--config", config, "--check"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_THAT(checked.err, HasSubstr(config + ":1: member: found 256"));
    EXPECT_THAT(checked.err,
                HasSubstr(config + ":1: user: found \"nobody-here\", expected a user of this machine\n"));
  }
}

TEST_F(OtherUser, ThatDoesNotExistOrIsRoot_OrWithoutRoot_EndsWithOneLine) {
  auto said = [](const Support::Argv& argv) {
    Support::Result result = Support::run(argv);
    EXPECT_EQ(result.status, 2);
    return result.err;
  };
  EXPECT_EQ(runDaemon({"--user", "nobody-here"}).err,
            "trelsnmpd: --user: found \"nobody-here\", expected a user of this machine\n");
  std::string config =
      dir_.write("c.json", R"({"member": 1, "store": "etcd:127.0.0.1:1/trel", "neighbours": []})");
  EXPECT_EQ(said({TRELMEMBERD, "--config", config, "--user", "root"}),
            "trelmemberd: --user: found \"root\", expected a user other than root\n");
  EXPECT_EQ(said({"unshare", "--user", TRELMEMBERD, "--config", config, "--user", kName}),
            "trelmemberd: --user: found the user 65534, expected root, who may be others\n");
}

}  // namespace
}  // namespace E2e
