// Directories, sockets and locks that another user, or another daemon, has prepared.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/e2e/Daemon.h"
#include "tests/support/Network.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr uid_t kStranger = 4321;
const Support::Argv kAsStranger = {"setpriv", "--reuid=4321", "--regid=4321", "--clear-groups"};

std::string listen() { return fmt::format("udp:127.0.0.1:{}", Support::freeUdpPort()); }

Support::Argv joined(Support::Argv first, const Support::Argv& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

mode_t modeOf(const std::string& path) {
  struct stat found {};
  return lstat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

// Refused with status 2 and one line.
void expectRefusal(const Support::Result& result, const std::string& line) {
  EXPECT_EQ(result.status, 2) << result.err;
  EXPECT_EQ(result.err, "trelsnmpd: " + line + "\n");
}

class Directories : public testing::Test {
 protected:
  void needsRoot() const {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  }
  // A copy that the stranger can run, also where the build's directory is nobody else's.
  std::string reachable(const std::string& program) const {
    namespace fs = std::filesystem;
    fs::path build = fs::path(program).parent_path().parent_path();
    fs::permissions(reachable_.path(), fs::perms(0755));
    for (const char* part : {"bin", "lib"}) fs::create_directory(reachable_.path() / part);
    for (const auto& entry : fs::directory_iterator(build / "lib")) {
      std::string name = entry.path().filename();
      if (name.find(".so") == std::string::npos) continue;
      fs::copy(entry.path(), reachable_.path() / "lib" / name, fs::copy_options::skip_existing);
    }
    fs::copy(program, reachable_.path() / "bin", fs::copy_options::skip_existing);
    return reachable_.path() / "bin" / fs::path(program).filename();
  }
  void makeStrangers(const std::string& path, mode_t mode) const {
    std::filesystem::create_directories(path);
    ASSERT_EQ(chown(path.c_str(), kStranger, kStranger), 0);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  // With the state in that directory.
  Support::Result start(const std::string& state) {
    return Support::run({TRELSNMPD, "--listen", listen(), "--control", dir_.file("control")},
                        {"STATE_DIRECTORY=" + state});
  }

  Support::TempDir dir_;
  Support::TempDir reachable_;
  std::string state_ = dir_.file("state");
};

TEST_F(Directories, UserWithoutHome_NothingInTmpIsUsed) {
  Support::Argv as = geteuid() == 0 ? kAsStranger : Support::Argv{};
  std::string daemon = reachable(TRELSNMPD);
  Support::Argv bare = joined(as, {"env", "-i", daemon, "--listen", listen()});
  expectRefusal(Support::run(bare),
                "found no state directory, expected $STATE_DIRECTORY, $XDG_STATE_HOME or $HOME");
  Support::Argv noRuntime = joined(as, {"env", "-i", "HOME=/nonexistent", daemon, "--listen", listen()});
  expectRefusal(Support::run(noRuntime),
                "found no runtime directory, expected $RUNTIME_DIRECTORY or $XDG_RUNTIME_DIR");
  Support::Result tool = Support::run(joined(as, {"env", "-i", reachable(TRELCTL), "status"}));
  EXPECT_EQ(tool.status, 2);
  EXPECT_EQ(
      tool.err,
      "trelctl: --control: found no runtime directory, expected $RUNTIME_DIRECTORY or $XDG_RUNTIME_DIR\n");
  Support::Result help = Support::run(joined(as, {"env", "-i", daemon, "--help"}));
  EXPECT_EQ(help.status, 0);
}

// His state would give him access, and have his code run.
TEST_F(Directories, StateDirectoryThatAStrangerPrepared_IsRefused) {
  needsRoot();
  if (IsSkipped()) return;
  makeStrangers(state_, 0755);
  dir_.write("state/trelsnmpd.conf", "rwcommunity mine\n");
  expectRefusal(start(state_),
                "state directory " + state_ +
                    ": found a directory of the user 4321, expected one of the user 0 or of root");
}

TEST_F(Directories, StateDirectoryThatOthersMayWriteInto_OrALinkThatTheyMayHaveMade_IsRefused) {
  std::filesystem::create_directory(state_);
  ASSERT_EQ(chmod(state_.c_str(), 0777), 0);
  expectRefusal(start(state_),
                "state directory " + state_ +
                    ": found mode 0777, expected a directory that no other user may write into");
  std::filesystem::create_directory_symlink(dir_.path(), state_ + "/link");
  expectRefusal(start(state_ + "/link"),
                "state directory " + state_ +
                    "/link: found a symbolic link \"link\" that another user may have made, expected a "
                    "directory");
}

TEST_F(Directories, ThatAreMade_AreTheDaemonsAloneWhateverTheUmask) {
  std::string control = dir_.file("run/control");
  Support::Process daemon(
      {"sh", "-c", "umask 0; exec \"$@\"", "sh", TRELSNMPD, "--listen", listen(), "--control", control},
      {"STATE_DIRECTORY=" + state_});
  ASSERT_TRUE(Support::waitUntil([&] {
    return !Support::run({TRELCTL, "--control", control, "status"}).out.empty();
  })) << daemon.err();
  EXPECT_EQ(modeOf(state_), 0700u);
  EXPECT_EQ(modeOf(dir_.file("run")), 0750u);
  EXPECT_EQ(modeOf(control), 0660u);
}

TEST_F(Directories, TwoDaemonsWithOneStateDirectory_SecondEndsWithOneLine_FirstGoesOn) {
  Daemon daemon;
  daemon.start();
  std::string state = daemon.dir().file("persistent");
  expectRefusal(start(state), "state directory " + state + ": another daemon uses it");
  EXPECT_EQ(daemon.ctl({"wait", "--timeout", "5"}).status, 0);
  daemon.process().stop(SIGKILL);
  daemon.start();
}

// A daemon that cannot find out whether another one lives used to take its socket away.
TEST_F(Directories, SecondDaemonWithFewDescriptors_LeavesTheSocketOfTheFirst) {
  Daemon daemon;
  daemon.start();
  for (int descriptors = 4; descriptors <= 40; descriptors += 2) {
    Support::Result second = Support::run({"prlimit", fmt::format("--nofile={0}:{0}", descriptors), TRELSNMPD,
                                           "--listen", listen(), "--control", daemon.controlPath()},
                                          {"STATE_DIRECTORY=" + state_});
    EXPECT_NE(second.status, 0);
    EXPECT_THAT(second.err, testing::Not(HasSubstr("terminate called"))) << descriptors;
    ASSERT_TRUE(daemon.answersTrelctl()) << "after one with " << descriptors << " descriptors";
  }
}

// With a few more than it takes to start it may have none for a client, nor for the files that it reads.
TEST_F(Directories, FewDescriptors_StartsAndSaysWhatItLacks_OrEndsWithOneLine) {
  bool serves = false;
  for (int descriptors = 3; descriptors <= 64 && !serves; ++descriptors) {
    Support::Process daemon({"prlimit", fmt::format("--nofile={0}:{0}", descriptors), TRELSNMPD, "--listen",
                             listen(), "--control", dir_.file("control")},
                            {"STATE_DIRECTORY=" + state_});
    bool lacks = false;
    ASSERT_TRUE(Support::waitUntil([&] {
      serves = !Support::run({TRELCTL, "--control", dir_.file("control"), "status"}).out.empty();
      lacks = daemon.err().find(": Too many open files") != std::string::npos;
      return serves || lacks || !daemon.running();
    })) << descriptors
        << ": " << daemon.err();
    bool stopped = serves || lacks;
    int status = stopped ? daemon.stop().value_or(-1) : daemon.wait().value_or(-1);
    // One that is still starting is ended by the signal.
    if (status == 0 || (stopped && status == 128 + SIGTERM)) continue;
    // Without any, it cannot even be loaded.
    EXPECT_TRUE(status == 2 || status == 127) << descriptors << ": " << status;
    EXPECT_THAT(daemon.err(), testing::ContainsRegex("(^|\n)[^\n]*: [^\n]+\n$"));
  }
  EXPECT_TRUE(serves);
}

// The stranger's daemon could tell root's trelctl whatever it likes.
TEST_F(Directories, SocketOfAStranger_TrelctlDoesNotBelieveIt) {
  needsRoot();
  if (IsSkipped()) return;
  Daemon daemon;
  makeStrangers(daemon.dir().path(), 0755);
  daemon.runBy(joined(kAsStranger, {"sh", "-c", R"(shift; exec "$0" "$@")", reachable(TRELSNMPD)}));
  daemon.launch();
  Support::Argv status = {reachable(TRELCTL), "--control", daemon.controlPath(), "status"};
  ASSERT_TRUE(Support::waitUntil([&] { return !Support::run(joined(kAsStranger, status)).out.empty(); }))
      << daemon.process().err();
  Support::Result result = daemon.ctl({"status"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, StartsWith("trelctl: " + daemon.controlPath() +
                                     ": found a daemon of the user 4321, expected one of "));
}

TEST_F(Directories, SocketThatIsNotForThisUser_TrelctlSaysInWhichGroupToBe) {
  needsRoot();
  if (IsSkipped()) return;
  Daemon daemon;
  daemon.start();
  Support::Result result =
      Support::run(joined(kAsStranger, {reachable(TRELCTL), "--control", daemon.controlPath(), "status"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "trelctl: no daemon at " + daemon.controlPath() +
                            ": Permission denied: be root, or in the group trel\n");
}

// As a service manager gives a runtime directory to the service's user.
TEST_F(Directories, SocketInADirectoryThatRootGaveToAUser_TrelctlTalksToHim) {
  needsRoot();
  if (IsSkipped()) return;
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  makeStrangers(dir_.file("run"), 0750);
  makeStrangers(state_, 0700);
  std::string control = dir_.file("run/control");
  Support::Process service(
      joined(kAsStranger, {reachable(TRELSNMPD), "--listen", listen(), "--control", control}),
      {"STATE_DIRECTORY=" + state_});
  Support::Argv status = {TRELCTL, "--control", control, "status"};
  EXPECT_TRUE(Support::waitUntil([&] { return !Support::run(status).out.empty(); })) << service.err();
}

}  // namespace
}  // namespace E2e
