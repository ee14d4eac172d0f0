// File systems that do not answer, as a network file system whose server is gone: the daemon answers, is told
// what to do, and ends, all the same. Nothing of it looks anything up in a file system on the thread that
// does so.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"
#include "tests/support/HangingMount.h"
#include "tests/support/PathCalls.h"

namespace E2e {
namespace {

using Support::HangingMount;
using Support::PathCalls;
using Support::waitUntil;
using testing::HasSubstr;
using testing::IsEmpty;

const Reports kReports = {{{1, 2}, {"reachable", 1002}}, {{2, 1}, {"degraded"}}};
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
  daemon_.with({"--state", "embedded", "--state", "file:" + place_ + "/state.json"});
  daemon_.launch();
  EXPECT_TRUE(waitUntil([&] { return daemon_.ctl({"status"}).status == 0; }));
  EXPECT_GT(daemon_.manager().upTime(), 0u);
  EXPECT_TRUE(waitUntil([&] {
    return daemon_.ctl({"wait", "--timeout", "0.2"}).err.find("state.json is still loading") !=
           std::string::npos;
  }));
  ends();
}

TEST_F(Hang, StateFileThatWasRead_IsServedOn_AndFollowedAgainAfterwards) {
  std::string file = place_ + "/state.json";
  daemon_.dir().write("place/state.json", documentOf(kReports));
  daemon_.with({"--state", "file:" + file}).start();
  {
    HangingMount hanging(place_);
    EXPECT_TRUE(answers());
    EXPECT_EQ(daemon_.ctl({"status"}).status, 0);
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
  EXPECT_EQ(daemon_.ctl({"status"}).status, 0);
  EXPECT_TRUE(waitUntil([&] {
    return daemon_.process().err().find(
               "--conf " + conf + ": not reloaded yet, still waiting for the file") != std::string::npos;
  }));
  hanging.reset();
  EXPECT_TRUE(waitUntil([&] { return daemon_.process().err().find("reloaded") != std::string::npos; }));
  hanging.emplace(place_);
  daemon_.process().signal(SIGHUP);
  EXPECT_TRUE(answers());
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
  EXPECT_EQ(daemon.ctl({"status"}).status, 0);
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

// That this would be seen.
TEST(Loop, LookUpsOfAProcess_AreSeen) {
  Support::Process process({"sh", "-c", "while :; do test -e /nowhere/at/all; done"});
  std::vector<std::string> seen;
  try {
    EXPECT_TRUE(waitUntil([&] {
      // It may be starting still, and look for its libraries.
      PathCalls calls(process.pid());
      seen = calls.end();
      return std::any_of(seen.begin(), seen.end(),
                         [](const std::string& call) { return call.ends_with(" /nowhere/at/all"); });
    })) << testing::PrintToString(seen);
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << error.what();
  }
}

}  // namespace
}  // namespace E2e
