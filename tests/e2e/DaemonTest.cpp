// The daemon as a process: how it starts, refuses to start, ends, and is talked to through its control
// socket.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"
#include "tests/support/Network.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string freeAddress() { return fmt::format("udp:127.0.0.1:{}", Support::freeUdpPort()); }

class Signal : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Polite, Signal, testing::Values(SIGTERM, SIGINT),
                         [](const auto& signal) { return sigabbrev_np(signal.param); });

TEST_P(Signal, RunningDaemon_EndsWith0AndTakesItsSocketAway) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  EXPECT_EQ(daemon.process().stop(GetParam()), 0);
  EXPECT_FALSE(std::filesystem::exists(daemon.controlPath()));
  EXPECT_THAT(daemon.errors(), IsEmpty());
  EXPECT_EQ(daemon.process().out(), "");
}

TEST_P(Signal, DaemonThatIsStillStarting_EndsWith0) {
  Daemon daemon;
  daemon.stateIs(documentOf(fullMesh(100)));
  daemon.launch();
  ASSERT_TRUE(Support::waitUntil([&] { return daemon.answersTrelctl(); }));
  EXPECT_EQ(daemon.process().stop(GetParam()), 0);
}

TEST(Start, WithoutAnyState_ServesTheExampleCluster) {
  Daemon daemon;
  daemon.start();
  EXPECT_THAT(daemon.manager().walk("reach.4"),
              StartsWith("reach.4.1.2 = INTEGER: 3\nreach.4.1.3 = INTEGER: 4\n"));
  EXPECT_EQ(daemon.status().at("sources").at(0).at("name"), "embedded");
}

TEST(Start, SeveralAddresses_AllAreServed) {
  Daemon daemon;
  std::string second = freeAddress();
  std::string third = fmt::format("udp:localhost:{}", Support::freeUdpPort());
  daemon.stateIs(documentOf(kReports)).with({"--listen", second, "--listen", third}).start();
  for (const std::string& address : {daemon.address(), second, third}) {
    EXPECT_EQ(Manager(address).get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n") << address;
  }
}

TEST(Start, TraceLevels_WhatTheyAskForIsLogged) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports))
      .with({"--trace", "veldaTrelMIB/2,TrelSnmpReachabilityTableSm/7"})
      .start();
  ASSERT_EQ(daemon.manager().get({"reach.4.2.1"}), "reach.4.2.1 = INTEGER: 4\n");
  EXPECT_THAT(
      daemon.log(),
      AllOf(
          HasSubstr(" TrelSnmpReachabilityTableSm/7 into( trelMib.trelReachabilityTable[ key ] ): inserting "
                    "k1=(firstId=2, secondId=1), value="),
          HasSubstr(" veldaTrelMIB/2 veldaTrelReachabilityTable_handler: request GET for column "
                    "veldaTrelReachabilityState, key (firstId=2, secondId=1)\n")));
}

// net-snmp would put a Unix socket in its place.
TEST(Start, FileInsteadOfAnAddress_IsRefused_AndStays) {
  Support::TempDir dir;
  std::string file = dir.write("trel.conf", "rocommunity public\n");
  for (const std::string& address : {file, "unix:" + file, "127.0.0.1:1161," + file}) {
    Support::Result result = runDaemon({"--listen", address});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("--listen: found \"" + address.substr(0, 10)));
  }
  EXPECT_EQ(Support::readFile(file), "rocommunity public\n");
}

TEST(Start, NotATrelSwitch_EndsWithAnAssertion) {
  Support::Result result = runDaemon({"--listen", freeAddress(), "--trel-mode", "off"});
  EXPECT_EQ(result.status, 128 + SIGABRT);
  EXPECT_THAT(result.err,
              HasSubstr("Trel::trelMode() && \"TrelSnmp::Agent can not be run in non-trel mode\""));
}

// Arguments that cannot be used, and a part of the line that says so.
struct Unusable {
  const char* name;
  Support::Argv arguments;
  const char* text;
  friend std::ostream& operator<<(std::ostream& out, const Unusable& it) { return out << it.name; }
};

class BadArguments : public testing::TestWithParam<Unusable> {};
INSTANTIATE_TEST_SUITE_P(
    All, BadArguments,
    testing::Values(
        Unusable{"UnknownOption", {"--frobnicate"}, "--frobnicate"},
        Unusable{"Positional", {"state.json"}, "state.json"},
        Unusable{"MissingValue", {"--listen"}, "--listen"},
        Unusable{"BadAddress", {"--listen", "carrier-pigeon:7"}, "carrier-pigeon:7"},
        Unusable{"PortTooBig", {"--listen", "udp:127.0.0.1:70000"}, "udp:127.0.0.1:70000"},
        Unusable{"ForeignAddress", {"--listen", "udp:192.0.2.1:1161"}, "udp:192.0.2.1:1161"},
        Unusable{"UnknownSource", {"--state", "carrier:pigeon"}, "carrier:pigeon"},
        Unusable{"EmptyFileName", {"--state", "file:"}, "file:"},
        Unusable{"MemberTooBig", {"--member", "256"}, "--member"},
        Unusable{"MemberNegative", {"--member", "-1"}, "--member"},
        Unusable{"MemberNoNumber", {"--member", "one"}, "--member"},
        Unusable{"TraceWithoutLevel", {"--trace", "veldaTrelMIB"}, "veldaTrelMIB"},
        Unusable{"TraceLevelTooBig", {"--trace", "veldaTrelMIB/99"}, "veldaTrelMIB/99"},
        Unusable{"NoSuchLog", {"--log", "paper"}, "--log"},
        Unusable{"NoSuchMode", {"--trel-mode", "maybe"}, "--trel-mode"},
        Unusable{"NoSuchConf", {"--conf", "/nonexistent/trel.conf"}, "/nonexistent/trel.conf"},
        Unusable{"NoSuchToggles", {"--toggles", "/nonexistent/TrelCore.json"}, "/nonexistent/TrelCore.json"},
        Unusable{"NoSuchControlDirectory",
                 {"--control", "/nonexistent/deep/control"},
                 "/nonexistent/deep/control"},
        Unusable{"ControlIsADirectory", {"--control", "/"}, "--control /"},
        Unusable{"ListenAndAgentx", {"--listen", "udp:127.0.0.1:0", "--agentx", "unix:/x"}, "--agentx"}),
    [](const auto& unusable) { return unusable.param.name; });

TEST_P(BadArguments, EndsWith2AndOneLine) {
  Support::Result result = runDaemon(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, AllOf(StartsWith("trelsnmpd: "), HasSubstr(GetParam().text)));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

TEST(Start, BrokenConf_EndsWith2AndOneLineWithItsNumber) {
  Support::TempDir dir;
  std::string conf = dir.write("trel.conf", "rocommunity public 127.0.0.1\nrocommunity\n");
  Support::Result result = runDaemon({"--listen", freeAddress(), "--conf", conf});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, AllOf(StartsWith("trelsnmpd: " + conf + ":2: "), HasSubstr("")));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

TEST(Start, PortInUse_SecondEndsWith2_FirstGoesOn) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  Support::Result second = runDaemon({"--listen", daemon.address()});
  EXPECT_EQ(second.status, 2);
  EXPECT_THAT(second.err, StartsWith("trelsnmpd: --listen " + daemon.address() + ": "));
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
}

TEST(Start, ControlPathInUse_SecondEndsWith2_FirstGoesOn) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  Support::Result second = runDaemon({"--listen", freeAddress(), "--control", daemon.controlPath()});
  EXPECT_EQ(second.status, 2);
  EXPECT_EQ(second.err, "trelsnmpd: --control " + daemon.controlPath() + ": another daemon uses it\n");
  EXPECT_EQ(daemon.ctl({"wait", "--timeout", "5"}).status, 0);
}

TEST(Start, TwoDaemonsOnOneMachine_NeitherIsInTheOthersWay) {
  Daemon first;
  Daemon second;
  first.stateIs(documentOf(kReports)).start();
  second.stateIs(documentOf(kReports)).start();
  EXPECT_THAT(first.errors(), IsEmpty());
  EXPECT_THAT(second.errors(), IsEmpty());
}

TEST(Start, SocketLeftByAKilledDaemon_IsTakenOver) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  daemon.process().stop(SIGKILL);
  ASSERT_TRUE(std::filesystem::exists(daemon.controlPath()));
  daemon.start();
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
}

TEST(Start, FileAtTheControlPath_IsLeftAlone) {
  Support::TempDir dir;
  std::string precious = dir.write("precious", "data");
  Support::Result result = runDaemon({"--listen", freeAddress(), "--control", precious});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr(precious));
  EXPECT_EQ(Support::readFile(precious), "data");
}

TEST(Access, ReadWriteCommunity_SetIsStillNotWritable) {
  Daemon daemon;
  std::string conf = daemon.dir().write("trel.conf", writingAccess("secret"));
  daemon.stateIs(documentOf(kReports)).with({"--conf", conf}).start();
  Manager writer(daemon.address(), {"-v2c", "-c", "secret"});
  for (const char* name : {"reach.3.1.2", "reach.4.1.2", "reach.1.1.2", "reach.4.9.9", "baif.2.1"}) {
    EXPECT_THAT(writer.set(name, 1), HasSubstr("Reason: notWritable")) << name;
  }
  EXPECT_EQ(writer.get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
}

TEST(Access, ConfWithoutPublic_PublicGetsNoAnswer) {
  Daemon daemon;
  std::string conf = daemon.dir().write("trel.conf", "rocommunity secret 127.0.0.1\n");
  daemon.stateIs(documentOf(kReports)).with({"--conf", conf}).start();
  EXPECT_THAT(daemon.manager().get({"reach.4.1.2"}), StartsWith("Timeout"));
}

TEST(ControlSocket, Permissions_OwnerAndGroupOnly) {
  Daemon daemon;
  daemon.stateIs("{}").start();
  struct stat file {};
  ASSERT_EQ(lstat(daemon.controlPath().c_str(), &file), 0);
  EXPECT_TRUE(S_ISSOCK(file.st_mode));
  EXPECT_EQ(file.st_mode & 07777, 0660u);
}

TEST(ControlSocket, WaitBeforeTheDaemonIsThere_ReturnsOnceItServes) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports));
  Support::Process wait({TRELCTL, "--control", daemon.controlPath(), "wait", "--timeout", "20"});
  daemon.launch();
  EXPECT_EQ(wait.wait(), 0) << wait.err();
  EXPECT_THAT(daemon.manager().walk("reach.4"),
              StartsWith("reach.4.1.2 = INTEGER: 3\nreach.4.2.1 = INTEGER: 4\n"));
}

TEST(ControlSocket, NoDaemon_WaitFailsAtItsTimeoutWithOneLine) {
  Support::TempDir dir;
  for (const char* command : {"status", "tables"}) {
    Support::Result result = Support::run({TRELCTL, "--control", dir.file("none"), command});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(StartsWith("trelctl: "), HasSubstr(dir.file("none"))));
  }
  Support::Result result = Support::run({TRELCTL, "--control", dir.file("none"), "wait", "--timeout", "0.2"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, StartsWith("trelctl: not ready after 0.2 s: "));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

TEST(ControlSocket, UnusableArguments_TrelctlEndsWith2) {
  for (const Support::Argv& arguments :
       std::vector<Support::Argv>{{}, {"frobnicate"}, {"wait", "--timeout", "soon"}}) {
    Support::Argv argv = {TRELCTL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    Support::Result result = Support::run(argv);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

// Each end's interface is known.
const Reports kAllIsWell = {{{1, 2}, {"reachable", 1002}}, {{2, 1}, {"degraded", 2001}}};

TEST(ControlSocket, Status_NamesSourcesPipelinesTasksAndTables) {
  Daemon daemon;
  daemon.stateIs(documentOf(kAllIsWell)).with({"--member", "7"}).start();
  nlohmann::json status = daemon.status();
  EXPECT_EQ(status.at("member"), 7);
  EXPECT_EQ(status.at("ready"), true);
  EXPECT_EQ(status.at("sources").at(0).at("name"), "file:" + daemon.stateFile());
  EXPECT_EQ(status.at("sources").at(0).at("state"), "current");
  EXPECT_EQ(status.at("tables").at(1).at("name"), "veldaTrelReachabilityTable");
  EXPECT_EQ(status.at("tables").at(1).at("rows"), 2);
  EXPECT_EQ(status.at("verdict"), "ok");
  Support::Result text = daemon.ctl({"status", "--all"});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.out, AllOf(StartsWith("ok\n"), HasSubstr("TrelSnmpReachabilityTableSm"),
                              HasSubstr("veldaTrelReachabilityTable")));
}

TEST(ControlSocket, Status_WithoutValues_SaysItServesNothing_AndEndsWith4) {
  Daemon daemon;
  daemon.stateIs("{}").start();
  Support::Result text = daemon.ctl({"status"});
  EXPECT_EQ(text.status, 4);
  EXPECT_THAT(text.out,
              StartsWith("not serving:\n  - source file:" + daemon.stateFile() + " has no values\n"));
}

TEST(ControlSocket, TablesWatched_ChangesFollowAsTheyHappen) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  Support::Process watching({TRELCTL, "--control", daemon.controlPath(), "tables", "reach", "--watch"});
  ASSERT_TRUE(Support::waitUntil([&] { return watching.out().find("reachable") != std::string::npos; }));
  daemon.stateIs(documentOf({{{1, 2}, {"degraded", 1002}}}));
  ASSERT_TRUE(Support::waitUntil([&] { return watching.out().find(" 2.1: gone\n") != std::string::npos; }))
      << watching.out();
  EXPECT_THAT(watching.out(), HasSubstr("Z veldaTrelReachabilityTable 1.2: state reachable -> degraded"));
}

TEST(ControlSocket, Topology_OfWhatIsServedAndWhatTheSourcesSay) {
  Daemon daemon;
  daemon.start();
  EXPECT_THAT(daemon.ctl({"topology"}).out,
              AllOf(StartsWith("3 members, 6 ends of links, 1 faults\n  ! link 2-3: down\n"),
                    HasSubstr("     2   3  Backplane2/2     2002  unreachable\n")));
  EXPECT_THAT(daemon.ctl({"topology", "--format", "svg"}).out,
              AllOf(StartsWith("<svg "), HasSubstr(">2002</text>")));
  EXPECT_EQ(daemon.ctl({"topology", "--format", "png"}).status, 2);
}

TEST(ControlSocket, Explain_WhereARowComesFrom_OrWhyThereIsNone) {
  Daemon daemon;
  daemon.start();
  Support::Result result = daemon.ctl({"explain", "veldaTrelReachabilityState.2.3"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, AllOf(StartsWith("veldaTrelReachabilityState.2.3 = 5  (.1.3.6.1.4.1."),
                                HasSubstr("members/2/reachability/3 = {"), HasSubstr("    source embedded\n"),
                                HasSubstr("interfaces/Backplane2%2F2 = {\"ifIndex\":2002}")));
  result = daemon.ctl({"explain", "baif.4"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr("no interface has the index 4\n"));
  EXPECT_EQ(daemon.ctl({"explain", "sysUpTime.0"}).status, 2);
}

TEST(ControlSocket, Doctor_LooksAtTheProcessThatAnswers) {
  Daemon daemon;
  daemon.stateIs(documentOf(kAllIsWell)).start();
  // Machines differ in their clocks and MIB modules.
  Support::Result result = daemon.ctl({"doctor", "--config", daemon.dir().path(), "--json"});
  auto findings = nlohmann::json::parse(result.out).at("findings");
  std::map<std::string, nlohmann::json> byWhat;
  for (const auto& finding : findings) byWhat.emplace(finding.at("what"), finding);
  for (const char* what : {"daemon", "serving", "port", "directory"})
    EXPECT_EQ(byWhat[what].at("result"), "OK") << byWhat[what];
  if (getuid() == 0) {
    EXPECT_EQ(byWhat["rights"].at("text"), "trelsnmpd runs as root");
    EXPECT_EQ(result.status, 3);
  }
}

// It said that none is configured.
TEST(ControlSocket, Doctor_AsksTheStoreThatTheDaemonFollows) {
  Daemon daemon;
  std::string store = fmt::format("etcd:127.0.0.1:{}/trel", Support::freeTcpPort());
  daemon.with({"--state", store}).launch();
  ASSERT_TRUE(Support::waitUntil([&] { return daemon.answersTrelctl(); })) << daemon.process().err();
  Support::Result result = daemon.ctl({"doctor", "--config", daemon.dir().path()});
  EXPECT_THAT(result.out, HasSubstr("WARN  store          " + store + " is what the daemon follows;"));
}

TEST(ControlSocket, Inspect_ObjectsOfTheRunningDaemon) {
  Daemon daemon;
  daemon.start();
  EXPECT_THAT(daemon.ctl({"inspect"}).out,
              AllOf(StartsWith("objects:\n"), HasSubstr("\n  TrelSnmpIfTableSm\n")));
  EXPECT_THAT(
      daemon.ctl({"inspect", "hostResources/3"}).out,
      AllOf(StartsWith("HostResources::HostResources\n"), testing::ContainsRegex("\n  processorTable +2\n")));
  auto objects = nlohmann::json::parse(daemon.ctl({"inspect", "--json"}).out).at("entities");
  for (const std::string object : objects) EXPECT_EQ(daemon.ctl({"inspect", object}).status, 0) << object;
  EXPECT_THAT(daemon.ctl({"inspect", "hostResources/4"}).err, HasSubstr("trelctl inspect lists them"));
}

TEST(ControlSocket, Call_WhatReadsIsCalled_NothingElseIs) {
  Daemon daemon;
  daemon.start();
  EXPECT_THAT(daemon.ctl({"call", "ifMib", "ifIndexes"}).out, HasSubstr("\n1002 Backplane1/2\n"));
  auto called = daemon.ctl({"call", "TrelSnmpIfTableSm", "conflicts"});
  EXPECT_EQ(called.out, "") << "the example has none";
  EXPECT_EQ(called.status, 0);
  auto before = daemon.ctl({"tables"}).out;
  auto refused = daemon.ctl({"call", "TrelSnmpIfTableSm", "doDeleteAll"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err,
              HasSubstr("operation \"doDeleteAll\" may change the object; expected an operation"));
  EXPECT_THAT(daemon.ctl({"tables", "if"}).out, HasSubstr("1002"));
}

TEST(ControlSocket, TablesThatHelpNames_AreThoseThatAreServed) {
  Daemon daemon;
  daemon.start();
  std::istringstream help(daemon.ctl({"tables", "--help"}).out);
  std::string line;
  while (std::getline(help, line) && !line.starts_with("Tables: ")) {
  }
  std::istringstream names(line.substr(line.find(' ') + 1));
  std::vector<std::string> shown;
  for (std::string name; names >> name;) shown.push_back("veldaTrel" + name + "Table");
  std::vector<std::string> served;
  auto tables = nlohmann::ordered_json::parse(daemon.ctl({"tables", "--json"}).out);
  for (const auto& [name, rows] : tables.items()) served.push_back(name);
  EXPECT_EQ(shown, served);
}

TEST(ControlSocket, Support_WhatTheDaemonSaysIsInTheArchive) {
  Daemon daemon;
  daemon.start();
  Support::TempDir directory;
  std::string archive = directory.file("a.tar");
  auto written = daemon.ctl({"support", archive, "--config", directory.path()});
  EXPECT_EQ(written.status, 0) << written.err;
  auto file = [&](const char* name) { return Support::run({"tar", "-xOf", archive, name}).out; };
  EXPECT_TRUE(nlohmann::json::parse(file("trel-support/status.json")).at("ready"));
  EXPECT_EQ(nlohmann::json::parse(file("trel-support/tables.json")).at("veldaTrelBaIfTable").size(), 6u);
  EXPECT_FALSE(nlohmann::json::parse(file("trel-support/traces.json")).at("handles").empty());
  EXPECT_THAT(file("trel-support/doctor.txt"), HasSubstr("daemon"));
  EXPECT_EQ(daemon.ctl({"support", archive}).status, 2) << "it is there already";
}

TEST(ControlSocket, Trace_SetsALevelOfTheRunningDaemon) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  EXPECT_THAT(daemon.ctl({"trace"}).out, testing::ContainsRegex("\n  veldaTrelMIB +1\n"));
  EXPECT_EQ(daemon.ctl({"trace", "veldaTrelMIB", "9"}).status, 0);
  daemon.manager().walk("reach.4");
  EXPECT_TRUE(Support::waitUntil([&] { return daemon.log().find("veldaTrelMIB/2 ") != std::string::npos; }));
  EXPECT_THAT(daemon.ctl({"trace", "veldaTrelMib", "9"}).err, HasSubstr("such as \"veldaTrelMIB\""));
  for (const Support::Argv& wrong :
       std::vector<Support::Argv>{{"trace", "veldaTrelMIB"}, {"trace", "x", "10"}})
    EXPECT_EQ(daemon.ctl(wrong).status, 2);
}

TEST(ControlSocket, Tables_AllFiveInOneObject) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  auto tables = nlohmann::ordered_json::parse(daemon.ctl({"tables", "--json"}).out);
  std::vector<std::string> names;
  for (const auto& [name, rows] : tables.items()) names.push_back(name);
  EXPECT_THAT(names, testing::ElementsAre("veldaTrelBaIfTable", "veldaTrelReachabilityTable",
                                          "veldaTrelHrSystemTable", "veldaTrelProcessorTable",
                                          "veldaTrelStorageTable"));
  EXPECT_EQ(tables["veldaTrelReachabilityTable"].dump(),
            R"([{"srcId":1,"destId":2,"baIfIndex":1002,"state":3,"stateName":"reachable","lastUpdate":0},)"
            R"({"srcId":2,"destId":1,"baIfIndex":0,"state":4,"stateName":"degraded","lastUpdate":0}])");
}

// A client that does not keep to the protocol.
int connectedTo(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return fd;
}

TEST(ControlSocket, Garbage_IsAnsweredWithAnErrorAndNothingElseSuffers) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  int fd = connectedTo(daemon.controlPath());
  const std::string garbage = "\x01\xff garbage\n{\"op\":\"explode\"}\n[]\n";
  ASSERT_EQ(write(fd, garbage.data(), garbage.size()), static_cast<ssize_t>(garbage.size()));
  std::string answer;
  char buffer[4096];
  while (std::count(answer.begin(), answer.end(), '\n') < 3) {
    ssize_t count = read(fd, buffer, sizeof buffer);
    ASSERT_GT(count, 0) << answer;
    answer.append(buffer, static_cast<size_t>(count));
  }
  close(fd);
  EXPECT_THAT(answer, AllOf(testing::Not(HasSubstr("\"ok\":true")), HasSubstr("explode")));
  EXPECT_EQ(daemon.ctl({"wait", "--timeout", "5"}).status, 0);
}

TEST(ControlSocket, ManySilentClients_DoNotKeepOthersOut) {
  Daemon daemon;
  daemon.stateIs(documentOf(kReports)).start();
  std::vector<int> silent;
  for (int i = 0; i < 100; ++i) silent.push_back(connectedTo(daemon.controlPath()));
  EXPECT_EQ(daemon.ctl({"wait", "--timeout", "5"}).status, 0);
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
  for (int fd : silent) close(fd);
}

}  // namespace
}  // namespace E2e
