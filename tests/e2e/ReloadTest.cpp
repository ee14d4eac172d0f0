// Files that are read again while the daemon runs, with SIGHUP.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kNotReloaded = "Daemon/0 not reloaded, what was in force stays";

class Reload : public testing::Test {
 protected:
  Reload() : conf_(daemon_.dir().file("trel.conf")) {
    daemon_.stateIs(documentOf(kReports)).with({"--conf", conf_});
  }

  void confIs(const std::string& lines) { daemon_.dir().replace("trel.conf", lines); }
  // The line that says how it went.
  std::string reloads() {
    auto told = [this] { return linesOf(daemon_.process().err(), ": reloaded: ", " not reloaded, "); };
    size_t before = told().size();
    daemon_.process().signal(SIGHUP);
    if (!Support::waitUntil([&] { return told().size() > before; })) return daemon_.process().err();
    return told().back();
  }
  Manager as(const std::string& community, const std::string& seconds = "10") const {
    return Manager(daemon_.address(), {"-v2c", "-c", community, "-t", seconds, "-r", "0"});
  }
  bool isServed(const std::string& community) const { return as(community).get({"reach.4.1.2"}) == kRow; }
  // Nobody answers it, which takes that long to be seen.
  bool isIgnored(const std::string& community) const {
    return as(community, "1").get({"reach.4.1.2"}).starts_with("Timeout");
  }
  Manager user(const std::string& name, const std::string& pass) const {
    return Manager(daemon_.address(),
                   {"-v3", "-u", name, "-l", "authNoPriv", "-a", "SHA-256", "-A", pass, "-t", "1"});
  }

  static std::vector<std::string> linesOf(const std::string& log, const std::string& one,
                                          const std::string& other) {
    std::vector<std::string> found;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
      if (line.find(one) != std::string::npos || line.find(other) != std::string::npos) {
        found.push_back(line.substr(line.find(' ') + 1));
      }
    }
    return found;
  }

  Daemon daemon_;
  std::string conf_;
};

TEST_F(Reload, CommunitiesAndViews_AreThoseOfTheFile) {
  confIs("rocommunity one 127.0.0.1\n");
  daemon_.start();
  EXPECT_TRUE(isServed("one"));
  confIs(
      "view system included .1.3.6.1.2.1.1\nrocommunity two 127.0.0.1\nrocommunity one 127.0.0.1 -V system\n"
      "sysContact them\n");
  EXPECT_EQ(reloads(), "Daemon/1 " + conf_ + ": reloaded: 4 lines");
  EXPECT_TRUE(isServed("two"));
  EXPECT_THAT(as("one").get({"reach.4.1.2"}), HasSubstr("No Such"));
  EXPECT_THAT(as("two").get({kSysContact}), HasSubstr("them"));
  confIs("rocommunity two 127.0.0.1\n");
  EXPECT_EQ(reloads(), "Daemon/1 " + conf_ + ": reloaded: 1 lines; it takes a restart for syscontact");
  EXPECT_TRUE(isIgnored("one"));
  EXPECT_TRUE(isServed("two"));
}

TEST_F(Reload, Users_ComeChangeAndGo) {
  constexpr const char* kStays = "createUser stays SHA-256 \"first pass\"\nrouser stays auth\n";
  confIs(std::string(kStays) + "createUser other SHA-256 \"first pass\"\nrouser other auth\n");
  daemon_.start();
  EXPECT_EQ(user("stays", "first pass").get({"reach.4.1.2"}), kRow);
  EXPECT_EQ(user("other", "first pass").get({"reach.4.1.2"}), kRow);
  confIs(std::string(kStays) + "rouser other auth\ncreateUser other SHA-256 \"second pass\"\n");
  EXPECT_THAT(reloads(), HasSubstr(": reloaded: 4 lines"));
  EXPECT_EQ(user("stays", "first pass").get({"reach.4.1.2"}), kRow);
  EXPECT_EQ(user("other", "second pass").get({"reach.4.1.2"}), kRow);
  EXPECT_THAT(user("other", "first pass").get({"reach.4.1.2"}), HasSubstr("Authentication failure"));
  confIs(std::string(kStays) + "rouser other auth\n");
  EXPECT_THAT(reloads(), HasSubstr(": reloaded: 3 lines"));
  EXPECT_EQ(user("stays", "first pass").get({"reach.4.1.2"}), kRow);
  EXPECT_THAT(user("other", "second pass").get({"reach.4.1.2"}), HasSubstr("Unknown user name"));
  // Neither is it there after a restart.
  EXPECT_EQ(daemon_.process().stop(), 0);
  EXPECT_THAT(Support::readFile(daemon_.dir().file("persistent/trelsnmpd.conf")), Not(HasSubstr("usmUser")));
}

TEST_F(Reload, BadFile_LeavesWhatWasInForce_AndAllThatIsWrongIsTold) {
  constexpr const char* kGood =
      "rocommunity one 127.0.0.1\ncreateUser operator SHA-256 \"first pass\"\nrouser operator auth\n";
  confIs(kGood);
  daemon_.start();
  // The first is found by reading, the others by trying.
  for (const char* mistake : {"perl 1;", "view v sideways .1", "createUser another SHA-256 short"}) {
    confIs(fmt::format(
        "rocommunity two 127.0.0.1\nsysContact them\ncreateUser operator SHA-256 \"second pass\"\n"
        "{}\n",
        mistake));
    EXPECT_EQ(reloads(), kNotReloaded);
    EXPECT_THAT(daemon_.process().err(), HasSubstr("Daemon/0 " + conf_ + ":4: "));
    EXPECT_TRUE(isServed("one"));
    EXPECT_TRUE(isIgnored("two"));
    EXPECT_THAT(as("one").get({kSysContact}), Not(HasSubstr("them")));
    EXPECT_EQ(user("operator", "first pass").get({"reach.4.1.2"}), kRow);
  }
  confIs("rocommunity two 127.0.0.1\n\n\n\nperl 1;\nrocomunity two\n");
  EXPECT_EQ(reloads(), kNotReloaded);
  for (const char* line : {":5: ", ":6: "})
    EXPECT_THAT(daemon_.process().err(), HasSubstr("Daemon/0 " + conf_ + line));
  std::filesystem::remove(conf_);
  EXPECT_EQ(reloads(), kNotReloaded);
  EXPECT_THAT(daemon_.process().err(), HasSubstr(conf_ + ": No such file or directory\n"));
  EXPECT_TRUE(isServed("one"));
}

TEST_F(Reload, EngineId_IsNamedAsOneThatStays) {
  confIs("rocommunity one 127.0.0.1\nengineID first\n");
  daemon_.start();
  confIs("rocommunity one 127.0.0.1\nengineID second\n");
  EXPECT_THAT(reloads(), HasSubstr("; it takes a restart for engineID"));
}

TEST_F(Reload, AgainAndAgainUnderAWalk_NoRowIsMissing) {
  confIs("rocommunity one 127.0.0.1\n");
  Reports mesh = fullMesh(12);
  daemon_.stateIs(documentOf(mesh));
  daemon_.start();
  std::string whole = as("one").walk();
  for (int i = 0; i < 10; ++i) {
    daemon_.process().signal(SIGHUP);
    EXPECT_EQ(as("one").bulkWalk(), whole);
    EXPECT_THAT(reloads(), HasSubstr(": reloaded: 1 lines"));
  }
  EXPECT_EQ(as("one").walk(), whole);
}

// Whoever asks for it does not know whether the daemon has begun to end.
TEST_F(Reload, AskedForAgainAndAgainWhileItEnds_EndsWith0) {
  confIs("rocommunity one 127.0.0.1\n");
  daemon_.start();
  EXPECT_TRUE(daemon_.process().holds(SIGHUP));
  daemon_.process().signal(SIGTERM);
  EXPECT_TRUE(Support::waitUntil([this] {
    for (int i = 0; i < 1000; ++i) daemon_.process().signal(SIGHUP);
    return !daemon_.process().running();
  }));
  EXPECT_EQ(daemon_.process().wait(), 0);
}

TEST(ReloadSettings, WhatCanBeApplied_Is_TheRestIsNamed_RowsStay) {
  Daemon daemon;
  std::string conf = daemon.dir().write("second.conf", "rocommunity second 127.0.0.1\n");
  std::string file = daemon.dir().write("trel.json", R"({"hold": 9})");
  daemon.stateIs(documentOf(kReports)).with({"--config", file}).start();
  std::string rows = daemon.manager().walk();
  auto said = [&](const std::string& text) {
    daemon.process().signal(SIGHUP);
    return Support::waitUntil([&] { return daemon.process().err().find(text) != std::string::npos; });
  };
  daemon.dir().replace(
      "trel.json",
      fmt::format(
          R"({{"hold": 8, "trel-mode": "on", "conf": "{}", "trace": ["TrelSnmpReachabilityTableSm/7"]}})",
          conf));
  EXPECT_TRUE(said("Daemon/1 " + conf + ": reloaded: 1 lines; it takes a restart for hold\n"))
      << daemon.process().err();
  Manager second(daemon.address(), {"-v2c", "-c", "second", "-t", "10", "-r", "0"});
  EXPECT_EQ(second.walk(), rows);
  // Now it traces.
  daemon.stateIs("{}");
  EXPECT_TRUE(Support::waitUntil([&] {
    return daemon.process().err().find(" TrelSnmpReachabilityTableSm/7 ") != std::string::npos;
  })) << daemon.process().err();
  daemon.stateIs(documentOf(kReports));
  EXPECT_TRUE(Support::waitUntil([&] { return second.get({"reach.4.1.2"}) == kRow; }));

  daemon.dir().replace("trel.json", "{\n\"holt\": 8}");
  EXPECT_TRUE(said("Daemon/0 " + file + ":2: holt: found an unknown key, expected \"hold\": correct it\n"))
      << daemon.process().err();
  EXPECT_EQ(second.get({"reach.4.1.2"}), kRow);
}

TEST(ReloadWithoutConf, TheBuiltInAccessStays_AndItGoesOn) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  daemon.process().signal(SIGHUP);
  EXPECT_TRUE(Support::waitUntil([&] {
    return daemon.process().err().find("Daemon/1 built-in access: reloaded: 5 lines\n") != std::string::npos;
  })) << daemon.process().err();
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), kRow);
}

}  // namespace
}  // namespace E2e
