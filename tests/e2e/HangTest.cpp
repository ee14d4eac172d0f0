// File systems that do not answer, as a network file system whose server is gone: the daemon answers, is told
// what to do, and ends, all the same. Nothing of it looks anything up in a file system on the thread that
// does so.
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"
#include "tests/support/Etcd.h"
#include "tests/support/HangingMount.h"
#include "tests/support/PathCalls.h"

namespace E2e {
namespace {

using namespace std::chrono_literals;
using Support::HangingMount;
using Support::PathCalls;
using Support::waitUntil;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

constexpr const char* kAccess = "rocommunity public 127.0.0.1\n";

class Hang : public testing::Test {
 protected:
  static void SetUpTestSuite() { notAllowed() = Support::enterOwnMounts(); }
  void SetUp() override {
    if (!notAllowed().empty()) GTEST_SKIP() << "not allowed here: " << notAllowed();
    std::filesystem::create_directory(place_);
  }
  static std::string& notAllowed() {
    static std::string why;
    return why;
  }

  bool answers() {
    Manager manager(daemon_.address(), {"-v2c", "-c", "public", "-t", "2", "-r", "0"});
    return waitUntil([&] { return manager.get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 3\n"; });
  }
  void ends(int status = 0) { EXPECT_EQ(daemon_.process().stop(), status); }

  Daemon daemon_;
  std::string place_ = daemon_.dir().file("place");
};

TEST_F(Hang, StateFile_AgentAnswersAndSaysWhatItWaitsFor) {
  HangingMount hanging(place_);
  daemon_.with({"--state", "file:" + daemon_.dir().write("other.json", documentOf(kReports)), "--state",
                "file:" + place_ + "/state.json"});
  daemon_.launch();
  EXPECT_TRUE(waitUntil([&] { return daemon_.answersTrelctl(); }));
  EXPECT_GT(daemon_.manager().upTime(), 0u);
  EXPECT_TRUE(waitUntil([&] {
    return daemon_.ctl({"wait", "--timeout", "0.2"}).err.find("state.json is still loading") !=
           std::string::npos;
  }));
  EXPECT_TRUE(answers()) << "what other sources say";
  EXPECT_THAT(daemon_.process().err(), HasSubstr(place_ + "/state.json: not read within 3 s"));
  ends();
}

TEST_F(Hang, CredentialsOfAStore_OtherSourcesAreServedAndTheLogSaysWhatIsMissing) {
  HangingMount hanging(place_);
  daemon_.with({"--state", "file:" + daemon_.dir().write("other.json", documentOf(kReports)), "--state",
                "etcd:127.0.0.1:1/trel", "--etcd-credentials", place_ + "/credentials.json"});
  daemon_.launch();
  EXPECT_TRUE(answers());
  EXPECT_TRUE(waitUntil([&] {
    return daemon_.process().err().find("nothing read within 5 s") != std::string::npos;
  })) << daemon_.process().err();
  ends();
}

TEST_F(Hang, StateFileThatWasRead_IsServedOn_AndFollowedAgainAfterwards) {
  std::string file = place_ + "/state.json";
  daemon_.dir().write("place/state.json", documentOf(kReports));
  daemon_.with({"--state", "file:" + file}).start();
  {
    HangingMount hanging(place_);
    EXPECT_TRUE(answers());
    EXPECT_TRUE(daemon_.answersTrelctl());
  }
  daemon_.dir().write("place/state.json", documentOf({{{1, 2}, {"degraded"}}}));
  EXPECT_TRUE(
      waitUntil([&] { return daemon_.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 4\n"; }));
  ends();
}

TEST_F(Hang, ConfThatIsReadAgain_WhatWasInForceIsServed) {
  std::string conf = daemon_.dir().write("place/trel.conf", kAccess);
  daemon_.stateIs(documentOf(kReports)).with({"--conf", conf}).start();
  std::optional<HangingMount> hanging(place_);
  daemon_.process().signal(SIGHUP);
  daemon_.process().signal(SIGHUP);
  EXPECT_TRUE(answers());
  EXPECT_TRUE(daemon_.answersTrelctl());
  EXPECT_TRUE(waitUntil([&] {
    return daemon_.process().err().find(
               "not reloaded yet, still waiting for the configuration or a file that it names") !=
           std::string::npos;
  }));
  hanging.reset();
  EXPECT_TRUE(waitUntil([&] { return daemon_.process().err().find("reloaded") != std::string::npos; }));
  hanging.emplace(place_);
  daemon_.process().signal(SIGHUP);
  EXPECT_TRUE(answers());
  ends();
}

// Nobody else could tell that what a publisher says of a file system is old.
TEST_F(Hang, FileSystemOfAPublisher_IsUnreadAtAnyMember_UntilItIsUnmounted) {
  Support::EtcdCluster etcd;
  std::string config = daemon_.dir().write(
      "publisher.json",
      fmt::format(R"({{"member": 7, "store": "etcd:{}/trel", "figuresInterval": 1}})", etcd.endpoint()));
  std::optional<HangingMount> hanging(place_);
  Support::Process publisher({TRELMEMBERD, "--config", config});
  daemon_.with({"--state", "etcd:" + etcd.endpoint() + "/trel"}).start();
  auto unread = [&] {
    const nlohmann::json status = daemon_.status();
    for (const auto& one : status.at("unread")) {
      if (one.at("collector") == "mount " + place_) return one;
    }
    return nlohmann::json();
  };
  ASSERT_TRUE(waitUntil([&] { return !unread().is_null(); }, 20s)) << publisher.err();
  nlohmann::json shown = unread();
  EXPECT_EQ(shown.at("member"), "7");
  EXPECT_EQ(shown.at("state"), "hangs");
  EXPECT_EQ(shown.at("error"), "no answer for 3 s");
  EXPECT_THAT(daemon_.ctl({"status"}).out, HasSubstr("mount " + place_ + "  hangs"));
  EXPECT_TRUE(waitUntil([&] {
    return daemon_.process().err().find("member 7: mount /") != std::string::npos;
  })) << daemon_.process().err();
  hanging.reset();
  EXPECT_TRUE(waitUntil([&] { return unread().is_null(); }, 20s)) << daemon_.status().dump();
  EXPECT_EQ(publisher.stop(), 0) << publisher.err();
  ends();
}

// The socket cannot even be taken away.
TEST_F(Hang, StateDirectoryAndSocket_AnswersAndEnds) {
  daemon_.stateIs(documentOf(kReports)).start();
  HangingMount hanging(daemon_.dir().path());
  EXPECT_TRUE(answers());
  ends();
}

TEST_F(Hang, ConfAtTheStart_TheDaemonCanBeEnded) {
  daemon_.with({"--conf", place_ + "/trel.conf"});
  HangingMount hanging(place_);
  daemon_.launch();
  // It has the directory's lock by the time that it reads the file.
  ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(daemon_.dir().file("persistent/lock")); }));
  daemon_.process().signal(SIGHUP);
  ends(128 + SIGTERM);
}

TEST(Loop, LooksNothingUpInAFileSystem) {
  Daemon daemon;
  std::string users = "createUser operator SHA-256 \"authentication pass\"\nrouser operator auth\n";
  std::string conf = daemon.dir().write("trel.conf", kAccess + users);
  daemon.stateIs(documentOf(kReports)).with({"--conf", conf, "--state", "local", "--interval", "1"}).start();
  std::optional<PathCalls> calls;
  try {
    calls.emplace(daemon.process().pid());
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << error.what();
  }
  EXPECT_THAT(daemon.manager().walk(), HasSubstr("reach.4.1.2 = INTEGER: 3\n"));
  EXPECT_THAT(Manager(daemon.address(), {"-v3", "-u", "operator", "-l", "authNoPriv", "-a", "SHA-256", "-A",
                                         "authentication pass"})
                  .bulkWalk(),
              HasSubstr("reach.4.1.2 = INTEGER: 3\n"));
  EXPECT_TRUE(daemon.answersTrelctl());
  EXPECT_EQ(daemon.ctl({"tables"}).status, 0);
  daemon.stateIs(documentOf({{{1, 2}, {"degraded"}}}));
  EXPECT_TRUE(
      waitUntil([&] { return daemon.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 4\n"; }));
  daemon.dir().replace("trel.conf",
                       kAccess + users +
                           "createUser another SHA-256 \"pass phrase\" AES\ntrap2sink localhost\n"
                           "com2sec6 six localhost other\nauthtrapenable 1\n");
  daemon.process().signal(SIGHUP);
  EXPECT_TRUE(waitUntil([&] { return daemon.process().err().find(": reloaded: ") != std::string::npos; }));
  EXPECT_THAT(Manager(daemon.address(), {"-v2c", "-c", "nobody", "-t", "1", "-r", "0"}).walk(),
              HasSubstr("Timeout"));
  // Several rounds of this machine's figures.
  double before = daemon.manager().upTime();
  EXPECT_TRUE(waitUntil([&] { return daemon.manager().upTime() > before + 250; }));
  daemon.process().signal(SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return !daemon.process().running(); }));
  EXPECT_THAT(calls->end(), IsEmpty());
  EXPECT_GT(calls->all(), 1000u);
}

// That this would be seen, whatever call it is. The child makes each of them, again and again.
constexpr const char* kNowhere = "/nowhere/at/all";

void lookUp() {
  struct stat about {};
  std::array<char, 8> bytes{};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kNowhere);
  auto* socketAddress = reinterpret_cast<sockaddr*>(&address);
  iovec part{bytes.data(), bytes.size()};
  msghdr message{};
  message.msg_name = &address;
  message.msg_namelen = sizeof address;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  connect(fd, socketAddress, sizeof address);
  bind(fd, socketAddress, sizeof address);
  sendto(fd, bytes.data(), bytes.size(), 0, socketAddress, sizeof address);
  sendmsg(fd, &message, 0);
  close(fd);
  syscall(SYS_open, kNowhere, O_RDONLY);
  syscall(SYS_openat, AT_FDCWD, kNowhere, O_RDONLY);
  syscall(SYS_openat2, AT_FDCWD, kNowhere, nullptr, 0);
  syscall(SYS_stat, kNowhere, &about);
  syscall(SYS_newfstatat, AT_FDCWD, kNowhere, &about, 0);
  syscall(SYS_statx, AT_FDCWD, kNowhere, 0, 0, nullptr);
  syscall(SYS_symlink, "x", kNowhere);
  syscall(SYS_symlinkat, "x", AT_FDCWD, kNowhere);
  syscall(SYS_link, "x", kNowhere);
  syscall(SYS_linkat, AT_FDCWD, "x", AT_FDCWD, kNowhere, 0);
  syscall(SYS_rename, kNowhere, "x");
  syscall(SYS_renameat, AT_FDCWD, kNowhere, AT_FDCWD, "x");
  syscall(SYS_renameat2, AT_FDCWD, kNowhere, AT_FDCWD, "x", 0);
  syscall(SYS_utimensat, AT_FDCWD, kNowhere, nullptr, 0);
  syscall(SYS_futimesat, AT_FDCWD, kNowhere, nullptr);
  syscall(SYS_getxattr, kNowhere, "user.x", bytes.data(), bytes.size());
  syscall(SYS_lgetxattr, kNowhere, "user.x", bytes.data(), bytes.size());
  syscall(SYS_lsetxattr, kNowhere, "user.x", bytes.data(), bytes.size(), 0);
  syscall(SYS_llistxattr, kNowhere, bytes.data(), bytes.size());
  syscall(SYS_lremovexattr, kNowhere, "user.x");
}

TEST(Loop, LookUpsOfAProcess_AreSeen) {
  std::array<int, 2> begin{};
  std::array<int, 2> done{};
  ASSERT_EQ(pipe2(begin.data(), O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(done.data(), O_CLOEXEC | O_NONBLOCK), 0);
  pid_t test = getpid();
  pid_t child = fork();
  char byte = 0;
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != test || read(begin[0], &byte, 1) != 1) _exit(1);
    lookUp();
    if (write(done[1], &byte, 1) == 1) pause();
    _exit(1);
  }
  std::vector<std::string> expected;
  for (const char* call :
       {"connect",   "bind",     "sendto",     "sendmsg",   "open",       "openat",
        "openat2",   "stat",     "newfstatat", "statx",     "symlink",    "symlinkat",
        "link",      "linkat",   "rename",     "renameat",  "renameat2",  "utimensat",
        "futimesat", "getxattr", "lgetxattr",  "lsetxattr", "llistxattr", "lremovexattr"}) {
    expected.push_back(fmt::format("{} {}", call, kNowhere));
  }
  std::string notAllowed;
  try {
    PathCalls calls(child);
    EXPECT_EQ(write(begin[1], &byte, 1), 1);
    EXPECT_TRUE(waitUntil([&] { return read(done[0], &byte, 1) == 1; }));
    EXPECT_THAT(calls.end(), IsSupersetOf(expected));
  } catch (const std::runtime_error& error) {
    notAllowed = error.what();
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  for (int fd : {begin[0], begin[1], done[0], done[1]}) close(fd);
  if (!notAllowed.empty()) GTEST_SKIP() << notAllowed;
}

}  // namespace
}  // namespace E2e
