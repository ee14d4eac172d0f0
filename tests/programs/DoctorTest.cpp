// What trelctl doctor finds, and what it says is to be done.
#include "programs/trelctl/Doctor.h"

#include <gmock/gmock.h>

#include "tests/support/TempDir.h"

namespace TrelCtl {
namespace {

using testing::HasSubstr;
using testing::Not;

// A machine on which all is well.
Facts healthyMachine() {
  Facts facts;
  facts.socket = "/run/trelsnmpd/trelsnmpd.sock";
  facts.status = Json::parse(R"({"daemon":"trelsnmpd","version":"0.1.0","mode":"standalone",
      "address":"udp:10.0.0.1:161","connected":true,"sources":[],"collectors":[],"stores":[{"source":"s","otherStore":null}],
      "members":[],"unread":[],"pipelines":[],"conflicts":[]})");
  facts.user = 993;
  facts.capabilities = 0x400;
  facts.directories = {{"/run/trelsnmpd", 993, 0755}, {"/var/lib/trelsnmpd", 993, 0700}};
  facts.store = "etcd:h:1/trel";
  facts.tls = true;
  facts.credentials = true;
  facts.keys = 12;
  facts.mibs = "/usr/share/trel/mibs";
  return facts;
}

std::string findings(const Facts& facts) { return findingsText(findingsOf(facts)); }

TEST(DoctorTest, AllIsWell_ALineForEach) {
  EXPECT_EQ(findings(healthyMachine()),
            "OK    daemon         trelsnmpd 0.1.0 answers at /run/trelsnmpd/trelsnmpd.sock\n"
            "OK    serving        what all sources say is served\n"
            "OK    port           answers at udp:10.0.0.1:161\n"
            "OK    rights         trelsnmpd runs as user 993 with one capability\n"
            "OK    directory      /run/trelsnmpd is its own\n"
            "OK    directory      /var/lib/trelsnmpd is its own\n"
            "OK    configuration  can be read\n"
            "OK    store          etcd:h:1/trel answers, with 12 keys\n"
            "OK    clock          is synchronised\n"
            "OK    mibs           are in /usr/share/trel/mibs\n");
  EXPECT_EQ(verdictOf(findingsOf(healthyMachine())), Verdict::ok);
}

TEST(DoctorTest, NoDaemon_Fails_TheRestIsLookedAtAllTheSame) {
  Facts facts = healthyMachine();
  facts.status.reset();
  facts.user.reset();
  facts.capabilities.reset();
  facts.daemonError = "no daemon at /x";
  EXPECT_THAT(findings(facts),
              testing::StartsWith("FAIL  daemon         no daemon at /x\n"
                                  "                     -> systemctl status trelsnmpd says "));
  EXPECT_THAT(findings(facts), HasSubstr("OK    store "));
  EXPECT_THAT(findings(facts), Not(HasSubstr("rights")));
  EXPECT_EQ(verdictOf(findingsOf(facts)), Verdict::notServing);
}

TEST(DoctorTest, ReasonsOfTheVerdict_AreFindings) {
  Facts facts = healthyMachine();
  (*facts.status)["conflicts"].push_back({{"pipeline", "p"}, {"conflict", "index 7 twice"}});
  EXPECT_THAT(findings(facts), HasSubstr("WARN  serving        index 7 twice\n"));
  EXPECT_EQ(verdictOf(findingsOf(facts)), Verdict::degraded);
}

TEST(DoctorTest, Subagent_WithAndWithoutItsMaster) {
  Facts facts = healthyMachine();
  (*facts.status)["mode"] = "agentx";
  (*facts.status)["address"] = "unix:/m";
  EXPECT_THAT(findings(facts), HasSubstr("OK    agentx         connected to the master agent at unix:/m\n"));
  (*facts.status)["connected"] = false;
  facts.master = "chose unix:/n, where a master's socket is";
  EXPECT_THAT(findings(facts),
              HasSubstr("FAIL  agentx         no master agent at unix:/m; --agentx auto chose unix:/n, "
                        "where a master's socket is\n"));
}

TEST(DoctorTest, ViewsOfTheMaster_AreLookedAt) {
  Facts facts = healthyMachine();
  EXPECT_THAT(findings(facts), Not(HasSubstr("views")));
  (*facts.status)["mode"] = "agentx";
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  views          snmpd's configuration lets nobody read anything\n"));
  facts.views = {.anybody = true, .without = {}, .unread = ""};
  EXPECT_THAT(findings(facts), HasSubstr("OK    views          those of snmpd include the tables\n"));
  facts.views.without = {"systemonly"};
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  views          snmpd's view systemonly does not include the tables\n"
                        "                     -> put \"view systemonly included .1.3.6.1.4.1."));
  facts.views.unread = "/c: Permission denied";
  EXPECT_THAT(findings(facts), HasSubstr("WARN  views          /c: Permission denied\n"));
}

TEST(DoctorTest, ServersOfTheStore_TheirVersions) {
  Facts facts = healthyMachine();
  facts.servers = {
      {"a:1", "3.5.9", ""}, {"b:1", "3.10.0", ""}, {"c:1", "3.3.25", ""}, {"d:1", "", "d:1: refused"}};
  EXPECT_THAT(findings(facts),
              HasSubstr("OK    etcd           a:1 runs 3.5.9\n"
                        "OK    etcd           b:1 runs 3.10.0\n"
                        "WARN  etcd           c:1 runs 3.3.25, which is too old\n"
                        "                     -> update it to etcd 3.4 or later\n"
                        "WARN  etcd           d:1: refused\n"
                        "                     -> see that etcd runs there; the other servers do meanwhile\n"
                        "WARN  etcd           the servers run different versions: 3.10.0, 3.3.25, 3.5.9\n"));
  facts.servers = {{"a:1", "3.5.9", ""}, {"b:1", "3.5.9", ""}};
  EXPECT_EQ(verdictOf(findingsOf(facts)), Verdict::ok);
}

TEST(DoctorTest, StoreOfTheDaemonAlone_ItsAccessIsNotKnown) {
  Facts facts = healthyMachine();
  facts.accessUnknown = true;
  EXPECT_THAT(findings(facts), HasSubstr("OK    store          etcd:h:1/trel answers, with 12 keys\n"));
  facts.storeError = "h:1: permission denied";
  EXPECT_THAT(
      findings(facts),
      HasSubstr("WARN  store          etcd:h:1/trel is what the daemon follows; without its certificate "
                "and password: h:1: permission denied\n"
                "                     -> set state, etcd-ca and the others in trelsnmpd.json"));
}

TEST(DoctorTest, StoreThatFails_ItsPage) {
  Facts facts = healthyMachine();
  facts.storeError = "h:1: permission denied";
  EXPECT_THAT(findings(facts), HasSubstr("FAIL  store          h:1: permission denied\n"));
  EXPECT_THAT(findings(facts), HasSubstr("may read the prefix: docs/etcd.md\n"));
}

TEST(DoctorTest, UsersOfTheStore_WhatTheyMayWrite) {
  Facts facts = healthyMachine();
  facts.agentMayWrite = facts.memberMayWriteOthers = false;
  EXPECT_THAT(findings(facts),
              HasSubstr("OK    roles          trelsnmpd may not write values of members\n"
                        "OK    roles          trelmemberd may not write values of other members\n"));
  facts.agentMayWrite = true;
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  roles          trelsnmpd may write values of members\n"
                        "                     -> trelctl store init makes users that may not"));
  facts.memberMayWriteOthers = true;
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  roles          trelmemberd may write values of other members\n"));
}

TEST(DoctorTest, LoopbackAlone_IsOddOnlyInACluster) {
  Facts facts = healthyMachine();
  (*facts.status)["address"] = "udp:127.0.0.1:1161";
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  port           answers at udp:127.0.0.1:1161, to this machine alone"));
  (*facts.status)["stores"].clear();
  EXPECT_THAT(findings(facts), HasSubstr("OK    port           answers at udp:127.0.0.1:1161\n"));
}

TEST(DoctorTest, RightsOfTheProcess) {
  Facts facts = healthyMachine();
  facts.capabilities = 0x401;
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  rights         trelsnmpd has more capabilities than it needs: 0x401\n"));
  facts.capabilities = 0;
  EXPECT_THAT(findings(facts),
              HasSubstr("OK    rights         trelsnmpd runs as user 993 with no capability\n"));
  facts.user = 0;
  EXPECT_THAT(findings(facts), HasSubstr("WARN  rights         trelsnmpd runs as root\n"));
}

TEST(DoctorTest, DirectoryOfSomebodyElse_OrOpenToOthers) {
  Facts facts = healthyMachine();
  facts.directories = {{"/a", 0, 0755}, {"/b", 7, 0700}, {"/c", 993, 0770}};
  EXPECT_THAT(findings(facts),
              HasSubstr("OK    directory      /a is its own\n"
                        "FAIL  directory      /b belongs to user 7, and trelsnmpd runs as 993\n"
                        "                     -> chown -R 993 /b\n"
                        "FAIL  directory      /c has mode 0770: others may write into it\n"
                        "                     -> chmod go-w /c\n"));
}

TEST(DoctorTest, Store_UnreachableEmptyOrInTheClear) {
  Facts facts = healthyMachine();
  facts.storeError = "h:1: refused";
  EXPECT_THAT(findings(facts), HasSubstr("FAIL  store          h:1: refused\n"));
  facts.storeError.clear();
  facts.keys = 0;
  facts.tls = false;
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  store          etcd:h:1/trel answers, but has nothing below its prefix\n"));
  EXPECT_THAT(findings(facts),
              HasSubstr("WARN  store          the password crosses the network in the clear\n"));
  facts = healthyMachine();
  facts.store.clear();
  EXPECT_THAT(findings(facts), HasSubstr("OK    store          none is configured\n"));
}

TEST(DoctorTest, ConfigurationClockAndMibs) {
  Facts facts = healthyMachine();
  facts.store.clear();
  facts.configurationError = "/etc/trel/trelsnmpd.json: Permission denied";
  facts.clockIsSynchronised = false;
  facts.mibs.clear();
  std::string text = findings(facts);
  EXPECT_THAT(text, HasSubstr("WARN  configuration  /etc/trel/trelsnmpd.json: Permission denied\n"));
  EXPECT_THAT(text, Not(HasSubstr("none is configured")));
  EXPECT_THAT(text, HasSubstr("WARN  clock          is not synchronised"));
  EXPECT_THAT(text, HasSubstr("WARN  mibs           the MIB modules are not installed here\n"));
}

TEST(DoctorTest, AsJson) {
  std::vector<Finding> all = {{Verdict::ok, "clock", "is synchronised", ""},
                              {Verdict::degraded, "mibs", "none", "install"}};
  EXPECT_EQ(
      findingsJson(all).dump(),
      R"({"verdict":"degraded","findings":[{"result":"OK","what":"clock","text":"is synchronised","remedy":null},)"
      R"({"result":"WARN","what":"mibs","text":"none","remedy":"install"}]})");
}

TEST(DoctorTest, LooksAtTheMachine) {
  Support::TempDir directory;
  std::string path = directory.path().string();
  Facts facts = factsOf(path + "/control", path);
  EXPECT_FALSE(facts.status);
  EXPECT_THAT(facts.daemonError, HasSubstr(path + "/control: No such file or directory"));
  ASSERT_FALSE(facts.directories.empty());
  EXPECT_EQ(facts.directories.front().path, path);
  EXPECT_EQ(facts.store + facts.storeError + facts.configurationError, "");
  directory.write("trelsnmpd.json", "[");
  EXPECT_THAT(factsOf(path + "/control", path).configurationError, HasSubstr("found no JSON object"));
}

}  // namespace
}  // namespace TrelCtl
