// What files may tell the daemon, and what nobody may set: files that would run code, open ports or let
// others write.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"
#include "tests/support/Network.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kSysName = "1.3.6.1.2.1.1.5.0";
constexpr const char* kSysLocation = "1.3.6.1.2.1.1.6.0";

class Conf : public testing::Test {
 protected:
  // Of a daemon that is given these lines and is not to start.
  Support::Result refused(const std::string& lines) {
    std::string conf = dir_.write("trel.conf", lines);
    Support::Result result =
        runDaemon({"--listen", fmt::format("udp:127.0.0.1:{}", Support::freeUdpPort()), "--conf", conf});
    EXPECT_EQ(result.status, 2) << lines;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_THAT(result.err, StartsWith("trelsnmpd: " + conf + ":")) << lines;
    return result;
  }
  // Lines in Perl that leave a trace when they are run.
  std::string perl() const { return fmt::format("open(F, '>', '{}'); close(F);", ran_); }
  bool anythingRan() const { return std::filesystem::exists(ran_); }

  Support::TempDir dir_;
  const std::string ran_ = dir_.file("ran");
};

TEST_F(Conf, LinesThatRunCode_RunNothing_AndAreNamed) {
  std::string script = dir_.write("init.pl", perl());
  EXPECT_THAT(refused("rocommunity public\nperlInitFile " + script + "\nperl 1;\n").err,
              HasSubstr(":2: perlInitFile: not taken"));
  EXPECT_THAT(refused("perl " + perl() + "\n").err, HasSubstr(":1: perl: "));
  EXPECT_THAT(refused("\"PERL\" " + perl() + "\n").err, HasSubstr(":1: PERL: "));
  EXPECT_THAT(refused("p\\erl " + perl() + "\n").err, HasSubstr(":1: perl: "));
  EXPECT_THAT(refused("disablePerl false\n").err, HasSubstr(":1: disablePerl: "));
  EXPECT_THAT(refused("[trelsnmpd] perl " + perl() + "\n").err, HasSubstr(":1: [trelsnmpd]: "));
  std::string included = dir_.write("more.conf", "perl " + perl() + "\n");
  EXPECT_THAT(refused("includeFile " + included + "\n").err, HasSubstr(":1: includeFile: "));
  EXPECT_THAT(refused("includeDir " + dir_.path().string() + "\n").err, HasSubstr(":1: includeDir: "));
  EXPECT_THAT(refused("extend trace /bin/touch " + ran_ + "\n").err, HasSubstr(":1: extend: "));
  EXPECT_THAT(refused("pass .1.3.6.1.4.1.1 /bin/touch\n").err, HasSubstr(":1: pass: "));
  EXPECT_FALSE(anythingRan());
}

TEST_F(Conf, LinesThatReachBeyondTheAgent_AreNamed) {
  EXPECT_THAT(refused("master agentx\n").err, HasSubstr(":1: master: this daemon is no master agent"));
  EXPECT_THAT(refused("agentAddress udp:0.0.0.0:1161\n").err, HasSubstr("expected as --listen"));
  EXPECT_THAT(refused("agentuser nobody\n").err, HasSubstr(":1: agentuser: "));
  EXPECT_THAT(refused("[snmp] persistentDir /tmp\n").err, HasSubstr(":1: [snmp]: "));
  EXPECT_THAT(refused("rwcommunity secret\n").err, HasSubstr("nothing is writable, expected rocommunity"));
}

// What net-snmp has against a line is found out by trying it.
TEST_F(Conf, LineThatNetSnmpCannotUse_IsNamed) {
  EXPECT_THAT(refused("rocommunity public\nview v sideways .1\n").err,
              HasSubstr(":2: view: TYPE must be included/excluded?\n"));
  EXPECT_THAT(refused("createUser operator SHA-256 short\n").err, HasSubstr(":1: createUser: "));
  EXPECT_THAT(refused("createUser operator ROT-13 \"pass phrase\"\n").err, HasSubstr(":1: createUser: "));
  EXPECT_THAT(refused("rocommunity public 10.0.0.1/8\n").err, HasSubstr("source/mask mismatch"));
}

// Files at all the places where net-snmp would look for some.
TEST_F(Conf, FilesInTheStateDirectory_AreReadOnlyAsFarAsTheDaemonWritesThem) {
  Daemon daemon;
  std::filesystem::create_directories(daemon.dir().path() / "persistent" / "conf.d");
  std::string lines = "rocommunity intruder\nperl " + perl() + "\n";
  for (const char* name :
       {"snmp.conf", "agentx.conf", "snmpd.conf", "trelsnmpd.local.conf", "trelsnmpd.0.conf",
        "snmp.local.conf", "conf.d/trelsnmpd.conf", "conf.d/snmp.conf"}) {
    daemon.dir().write(std::string("persistent/") + name, lines);
  }
  daemon.runBy({"env", "SNMPCONFPATH=" + daemon.dir().file("persistent"),
                "SNMP_PERSISTENT_FILE=" + daemon.dir().file("persistent/snmpd.conf")});
  daemon.stateIs(documentOf(kReports)).start();
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), kRow);
  EXPECT_THAT(
      Manager(daemon.address(), {"-v2c", "-c", "intruder", "-t", "1", "-r", "0"}).get({"reach.4.1.2"}),
      StartsWith("Timeout"));
  EXPECT_FALSE(anythingRan());
}

TEST_F(Conf, StateFileThatSaysMore_IsRefused) {
  Daemon daemon;
  std::filesystem::create_directory(daemon.dir().path() / "persistent");
  std::string file = daemon.dir().write("persistent/trelsnmpd.conf",
                                        "engineBoots 3\nrocommunity intruder\nperl " + perl() + "\n");
  Support::Process& process = daemon.stateIs("{}").launch();
  EXPECT_EQ(process.wait(), 2);
  EXPECT_EQ(process.err(),
            "trelsnmpd: " + file + ":2: rocommunity: not taken, trelsnmpd(8) lists the words that are\n");
  EXPECT_FALSE(anythingRan());
}

// What could be set, to a value that would be taken.
struct Settable {
  const char* name;
  std::string oid;
  char type;
  const char* value;
};

std::string nameOf(const testing::TestParamInfo<Settable>& settable) { return settable.param.name; }

// The one with such a status column, of a row that is not there: "intruder" and what goes before it.
std::string rowToCreate(const std::string& column, const std::string& before) {
  return "1.3.6.1.6.3." + column + "." + before + ".8.105.110.116.114.117.100.101.114";
}

class Writable : public testing::TestWithParam<Settable> {};
INSTANTIATE_TEST_SUITE_P(System, Writable,
                         testing::Values(Settable{"sysContact", kSysContact, 's', "intruder"},
                                         Settable{"sysName", kSysName, 's', "intruder"},
                                         Settable{"sysLocation", kSysLocation, 's', "intruder"}),
                         nameOf);
// Of net-snmp's own modules, which are not served, and are not to be writable when they ever are.
// createAndWait(5): a user, and the group of one, of whom nothing else is known yet.
INSTANTIATE_TEST_SUITE_P(
    Snmp, Writable,
    testing::Values(Settable{"snmpSetSerialNo", "1.3.6.1.6.3.1.1.6.1.0", 'i', "1"},
                    Settable{"usmUserStatus", rowToCreate("15.1.2.2.1.13", "6.128.0.31.136.4.97"), 'i', "5"},
                    Settable{"vacmSecurityToGroupStatus", rowToCreate("16.1.2.1.5", "2"), 'i', "5"}),
    nameOf);

// net-snmp would take the value, and keep it over a restart.
TEST_P(Writable, SetByWhoMayWriteEverything_IsNotWritable_AndNothingIsKept) {
  const auto& [name, oid, type, value] = GetParam();
  Daemon daemon;
  std::string conf = daemon.dir().write("trel.conf", writingAccess("secret"));
  daemon.stateIs(documentOf(kReports)).with({"--conf", conf}).start();
  Manager writer(daemon.address(), {"-v2c", "-c", "secret"});
  std::string before = writer.get({oid});
  EXPECT_THAT(writer.set(oid, type, value), HasSubstr("Reason: notWritable"));
  EXPECT_EQ(writer.get({oid}), before);
  EXPECT_EQ(daemon.process().stop(), 0);
  EXPECT_THAT(Support::readFile(daemon.dir().file("persistent/trelsnmpd.conf")), Not(HasSubstr("intruder")));
}

// What an earlier release may have kept.
TEST_F(Conf, SystemGroupSetEarlier_IsForgotten) {
  Daemon daemon;
  std::filesystem::create_directory(daemon.dir().path() / "persistent");
  daemon.dir().write("persistent/trelsnmpd.conf", "engineBoots 3\npsyscontact intruder\n");
  daemon.stateIs(documentOf(kReports)).start();
  EXPECT_THAT(daemon.manager().get({kSysContact}), Not(HasSubstr("intruder")));
}

}  // namespace
}  // namespace E2e
