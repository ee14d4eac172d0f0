// What files in the syntax of snmpd.conf may say, and what their lines become.
#include "host/SnmpConf.h"

#include <absl/strings/ascii.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "host/SnmpWords.h"
#include "tests/support/TempDir.h"

namespace Host {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string rendered(const SnmpConf& conf) {
  std::string text = conf.errors.empty() ? "" : conf.errors.front();
  for (const SnmpLine& line : conf.lines) text += fmt::format("<{}|{}>", line.word, line.rest);
  return text;
}
std::string access(std::string_view text) { return rendered(parseSnmpConf("F", text, SnmpFile::access)); }
std::string state(std::string_view text) { return rendered(parseSnmpConf("F", text, SnmpFile::state)); }

// The directives that the manual page lists, in lower case: what stands after each ".TP" of their section.
std::set<std::string> documentedWords() {
  std::istringstream page(Support::readFile(TREL_DOCS "/trelsnmpd.8"));
  std::set<std::string> words;
  bool within = false;
  std::string before;
  for (std::string line; std::getline(page, line); before = line) {
    if (line.starts_with("is a comment.")) within = true;
    if (line.starts_with(".SH")) within = false;
    if (!within || before != ".TP") continue;
    static const std::regex kArgument(R"(\\f[BI][A-Z]+\\fR)");
    static const std::regex kName("[A-Za-z0-9]+");
    std::string names = std::regex_replace(line.substr(line.find(' ')), kArgument, "");
    for (std::sregex_iterator name(names.begin(), names.end(), kName), end; name != end; ++name) {
      words.insert(absl::AsciiStrToLower(name->str()));
    }
  }
  return words;
}

TEST(SnmpConf, ManualPageListsTheDirectivesThatAreTaken) {
  std::set<std::string> taken;
  for (const std::string& word : snmpWords(SnmpFile::access)) taken.insert(absl::AsciiStrToLower(word));
  EXPECT_EQ(documentedWords(), taken);
}

TEST(SnmpConf, LinesAreCutAsNetSnmpCutsThem) {
  EXPECT_EQ(access(""), "");
  EXPECT_EQ(access("\n# rocommunity a\n   \n\t#\n"), "");
  EXPECT_EQ(access("rocommunity a"), "<rocommunity|a>");
  EXPECT_EQ(access("  rocommunity\ta  default \r\nview v included .1\n"),
            "<rocommunity|a  default><view|v included .1>");
  EXPECT_EQ(access("ROcommunity a\n\"rocommunity\" b\n'rocommunity' c\nro\\community d\n"),
            "<ROcommunity|a><rocommunity|b><rocommunity|c><rocommunity|d>");
  EXPECT_EQ(access("rocommunity a # why\n"), "<rocommunity|a # why>");
  // A backslash does not join lines.
  EXPECT_EQ(access("sysContact me \\\nperl x\n"),
            "F:2: perl: not taken, trelsnmpd(8) lists the words that are");
}

TEST(SnmpConf, LineNumbersCountEveryLine) {
  EXPECT_THAT(access("\n# x\nrocommunity a\n\nmistake b\n"), StartsWith("F:5: mistake: "));
  SnmpConf conf = parseSnmpConf("F", "\nrocommunity a\n", SnmpFile::access);
  EXPECT_EQ(conf.lines.at(0).where, "F:2");
}

// Each would run code, open a port, load a module, write or read another file, or change the user.
TEST(SnmpConf, WordsThatReachBeyondTheAgent_AreRefused) {
  for (const char* word : {"perl",
                           "perlInitFile",
                           "disablePerl",
                           "pass",
                           "pass_persist",
                           "extend",
                           "extend-sh",
                           "extendfix",
                           "exec",
                           "execfix",
                           "exec2",
                           "sh",
                           "procfix",
                           "proxy",
                           "dlmod",
                           "agentuser",
                           "agentgroup",
                           "smuxpeer",
                           "smuxsocket",
                           "override",
                           "table",
                           "add_row",
                           "injectHandler",
                           "logmatch",
                           "file",
                           "disk",
                           "includeAllDisks",
                           "sendmail_config",
                           "monitor",
                           "setEvent",
                           "notificationEvent",
                           "cron",
                           "at",
                           "repeat",
                           "iquerySecName",
                           "agentSecName",
                           "certSecName",
                           "trustCert",
                           "localCert",
                           "persistentDir",
                           "tempFilePattern",
                           "logOption",
                           "mibdirs",
                           "mibs",
                           "mibfile",
                           "clientaddr",
                           "defDomain",
                           "defTarget",
                           "doDebugging",
                           "agentXPerms",
                           "agentXTimeout",
                           "quit",
                           "leave_pidfile",
                           "engineIDNic",
                           "exactEngineID",
                           "oldEngineID",
                           "engineBoots",
                           "usmUser",
                           "psyscontact",
                           "vacmAccess",
                           "avgBulkVarbindSize",
                           "noTokenWarnings",
                           "trapsink2",
                           "rocommunit",
                           ""}) {
    std::string said = access(fmt::format("{} 1 2 3 4 5 6 7 8 9\n", *word == '\0' ? "\"\"" : word));
    EXPECT_THAT(said, StartsWith("F:1: ")) << word;
    EXPECT_THAT(said, testing::AnyOf(HasSubstr("not taken"), HasSubstr("empty word"))) << word;
  }
}

TEST(SnmpConf, WordsWithAReplacement_SayWhich) {
  EXPECT_EQ(access("rwcommunity a"), "F:1: rwcommunity: nothing is writable, expected rocommunity");
  EXPECT_EQ(access("rwCommunity6 a"), "F:1: rwCommunity6: nothing is writable, expected rocommunity6");
  EXPECT_EQ(access("rwuser a"), "F:1: rwuser: nothing is writable, expected rouser");
  EXPECT_EQ(access("agentAddress udp:1161"), "F:1: agentAddress: not taken here, expected as --listen");
  EXPECT_EQ(access("master agentx"), "F:1: master: this daemon is no master agent");
  EXPECT_THAT(access("agentXSocket /x"), HasSubstr("--agentx makes it the subagent of one"));
  EXPECT_THAT(access("trapsess -v3 h"), HasSubstr("expected trapsink or trap2sink"));
  // net-snmp keeps each until it is answered or tried six times, and looks through all of them in each turn.
  EXPECT_THAT(access("informsink 192.0.2.1"), HasSubstr("pile up for a receiver that does not answer"));
  for (const char* include : {"includeFile /x", "includeDir /x", "includeSearch x"}) {
    EXPECT_THAT(access(include), HasSubstr("other files are not read, expected their lines here"));
  }
  EXPECT_THAT(access("include x"), HasSubstr("not taken"));
}

TEST(SnmpConf, Sections_AreRefused) {
  for (const char* line :
       {"[snmp]", "[snmp] persistentDir /x", "[trelsnmpd]", "[trelsnmpd] rocommunity a", "[", "[]"}) {
    EXPECT_THAT(access(line), HasSubstr("sections are not taken, expected the words without one")) << line;
  }
}

TEST(SnmpConf, WhatIsNoText_IsRefused) {
  EXPECT_EQ(access(std::string_view("rocommunity a\0perl x\n", 21)), "F:1: found a NUL byte, expected text");
  EXPECT_EQ(access(std::string_view("\0\n", 2)), "F:1: found a NUL byte, expected text");
  EXPECT_EQ(access("rocommunity " + std::string(989, 'a')), "F:1: found 1001 bytes, expected at most 1000");
  EXPECT_THAT(access("rocommunity " + std::string(988, 'a')), StartsWith("<rocommunity|"));
  EXPECT_EQ(access("\x1b[2J 1"), "F:1: \\x1b[2J: not taken, trelsnmpd(8) lists the words that are");
  EXPECT_THAT(access("\xef\xbb\xbfrocommunity a"), HasSubstr("not taken"));
}

TEST(SnmpConf, Communities) {
  for (const char* line :
       {"rocommunity a", "rocommunity a default", "rocommunity a 10.0.0.0/8",
        "rocommunity a !10.0.0.1 .1.3 ctx", "rocommunity -v 2c a 10.0.0.1 -V view ctx", "rocommunity6 a ::1",
        "rocommunity6 a 2001:db8::/32 .1", "authcommunity read,notify a 10.0.0.1",
        "com2sec name 10.0.0.0/255.0.0.0 a", "com2sec -Cn ctx name default a",
        "com2sec6 name 2001:db8::/32 a", "com2secunix name /run/x a"}) {
    EXPECT_THAT(access(line), StartsWith("<")) << line;
  }
  EXPECT_EQ(access("rocommunity a localhost -V v"), "<rocommunity|a 127.0.0.1 -V v>");
  EXPECT_EQ(access("rocommunity6 a \"localhost\""), "<rocommunity6|a ::1>");
  EXPECT_EQ(access("com2sec n localhost a"), "<com2sec|n 127.0.0.1 a>");
}

TEST(SnmpConf, CommunitiesThatCannotBe) {
  EXPECT_EQ(access("rocommunity"), "F:1: rocommunity: found nothing behind it");
  EXPECT_EQ(access("rocommunity # a"), "F:1: rocommunity: found nothing behind it");
  EXPECT_THAT(access("rocommunity -v 2c"), HasSubstr("expected a community"));
  EXPECT_EQ(access("rocommunity a switch.example"),
            "F:1: rocommunity: found \"switch.example\", expected \"default\" or an IPv4 address, with "
            "/LENGTH for a network; names are not looked up");
  EXPECT_THAT(access("rocommunity a ::1"), HasSubstr("expected \"default\" or an IPv4 address"));
  EXPECT_THAT(access("rocommunity6 a 10.0.0.1"), HasSubstr("expected \"default\" or an IPv6 address"));
  EXPECT_THAT(access("rocommunity a -V view"), HasSubstr("found \"-V\""));
  EXPECT_THAT(access("rocommunity a default -V"), HasSubstr("found nothing after -V, expected a view"));
  EXPECT_THAT(access("rocommunity a default -V # v"), HasSubstr("found nothing after -V, expected a view"));
  EXPECT_THAT(access("authcommunity read"), HasSubstr("expected a community"));
  EXPECT_THAT(access("com2sec name default"), HasSubstr("expected NAME SOURCE COMMUNITY"));
  EXPECT_THAT(access("com2sec -Cn ctx name default"), HasSubstr("expected NAME SOURCE COMMUNITY"));
  EXPECT_THAT(access("com2sec name nowhere.example a"), HasSubstr("names are not looked up"));
}

// A name makes net-snmp look for the module's file.
TEST(SnmpConf, NamesOfObjects_AreRefused) {
  EXPECT_EQ(access("view v included .1.3.6.1 ff:80\nsysObjectID .1.3.6"),
            "<view|v included .1.3.6.1 ff:80><sysObjectID|.1.3.6>");
  for (const char* line :
       {"view v included SNMPv2-MIB::system", "view v included system", "view v included",
        "view \"v w\" included IF-MIB::x", "sysObjectID IF-MIB::x", "sysObjectID .1 IF-MIB::x",
        "rocommunity a default IF-MIB::x", "rouser a priv IF-MIB::x", "authuser read a priv x"}) {
    EXPECT_THAT(access(line), HasSubstr("expected a numeric OID")) << line;
  }
}

TEST(SnmpConf, Users) {
  for (const char* line :
       {"createUser a", "createUser a SHA-256 \"pass phrase\"", "createUser a SHA-256 \"pass phrase\" AES",
        "createUser a SHA-256 \"pass phrase\" AES \"other phrase\"",
        "createUser a SHA -l 0x0102 AES -l 0x0304", "createUser a SHA -m 0x0102 AES", "rouser a",
        "rouser a priv", "rouser -s usm a priv -V v", "authuser read,notify -s usm a priv .1",
        "authgroup read g", "group g usm a"}) {
    EXPECT_THAT(access(line), StartsWith("<")) << line;
  }
  for (const char* line : {"createUser -e 0x01 a", "createUser -M a", "createUser a SHA",
                           "createUser a SHA -l", "createUser a SHA \"\"", "createUser a SHA p AES -m",
                           "createUser a SHA p AES q r", "createUser abcdefghijklmnopqrstuvwxyz1234567"}) {
    EXPECT_THAT(access(line), HasSubstr("createUser: ")) << line;
  }
  EXPECT_EQ(access("createUser a SHAX \"pass phrase\""),
            "F:1: createUser: found \"SHAX\", expected MD5, SHA, SHA-224, SHA-256, SHA-384 or SHA-512");
  EXPECT_EQ(access("createUser a SHA \"pass phrase\" AESX"),
            "F:1: createUser: found \"AESX\", expected DES, AES, AES-192 or AES-256");
  EXPECT_EQ(access("createUser a SHA secret7"),
            "F:1: createUser: found a password of 7 characters, expected 8 at least");
  EXPECT_EQ(access("createUser a SHA \"pass phrase\" AES secret7"),
            "F:1: createUser: found a password of 7 characters, expected 8 at least");
  EXPECT_EQ(access("createUser a SHA \"pass phrase\"\ncreateUser b\ncreateUser \"a\"\n"),
            "F:3: createUser: found \"a\" for the second time");
  EXPECT_THAT(access("rouser -s usm"), HasSubstr("expected a user"));
  EXPECT_THAT(access("rouser a priv -V"), HasSubstr("expected a view"));
  EXPECT_THAT(access("group g usm"), HasSubstr("expected NAME MODEL SECURITY-NAME"));
}

TEST(SnmpConf, SinksAndSettings) {
  for (const char* line : {"trapsink 192.0.2.1", "trap2sink 192.0.2.1:162 a", "trap2sink udp:192.0.2.1:162",
                           "trap2sink udp6:[2001:db8::1]:162", "trap2sink udp6:2001:db8::1",
                           "authtrapenable 1", "trapcommunity a", "engineID abcdefghijklmnopqrstuvwxyz1",
                           "sysContact me", "maxGetbulkRepeats 10", "sysServices 72"}) {
    EXPECT_THAT(access(line), StartsWith("<")) << line;
  }
  EXPECT_EQ(access("trapsink localhost a"), "<trapsink|127.0.0.1:162 a>");
  EXPECT_EQ(access("trapsink 127.0.0.1"), "<trapsink|127.0.0.1:162>");
  for (const char* line :
       {"trapsink manager.example", "trapsink -profile p 192.0.2.1", "trapsink 192.0.2.1 a 162",
        "trapsink tcp:192.0.2.1", "trapsink unix:/x", "trapsink 192.0.2.1:", "trapsink 192.0.2.1:0",
        "trapsink 192.0.2.1:65536", "trapsink udp6:[::1", "trapsink udp6:[::1]162", "trapsink :162"}) {
    EXPECT_THAT(access(line), HasSubstr("trapsink: ")) << line;
  }
  EXPECT_THAT(access("sysContact " + std::string(255, 'x')), StartsWith("<"));
  EXPECT_THAT(access("sysContact " + std::string(256, 'x')),
              HasSubstr("found 256 bytes, expected at most 255"));
  for (const char* text : {"0", "3", "1 2", "1x", "enable"}) {
    EXPECT_THAT(access(fmt::format("authtrapenable {}", text)), HasSubstr("expected 1 (enabled) or 2"));
  }
  EXPECT_THAT(access("engineID abcdefghijklmnopqrstuvwxyz12"),
              HasSubstr("expected a text of at most 27 bytes"));
  for (const char* text : {"-1", "x", "1x", "1 2", "1000001", "99999999999999999999"}) {
    EXPECT_THAT(access(fmt::format("maxGetbulkRepeats {}", text)),
                HasSubstr("expected a number from 0 to 1000000"));
  }
}

constexpr const char* kStored =
    "usmUser 1 3 0x80001f8880206d6617a184026b00000000 \"operator\" \"operator\" NULL .1.3.6.1.6.3.10.1.1.5 "
    "0x0327e23f .1.3.6.1.6.3.10.1.2.4 0x497ac7c2 \"\"";

TEST(SnmpConf, State) {
  EXPECT_EQ(state("# comment\nengineBoots 7\noldEngineID 0x80001f8880\n"),
            "<engineBoots|7><oldEngineID|0x80001f8880>");
  EXPECT_THAT(state(kStored), StartsWith("<usmUser|1 3 0x8000"));
  EXPECT_EQ(state("createUser a SHA \"pass phrase\"\n"), "<createUser|a SHA \"pass phrase\">");
  EXPECT_EQ(state("psyscontact set by a manager\npsysname x\npsyslocation y\n"), "");
  EXPECT_THAT(state("engineBoots 2147483646"), StartsWith("<"));
  for (const char* line : {"rocommunity a", "rwcommunity a", "perl 1;", "engineBoots", "engineBoots x",
                           "engineBoots -1", "engineBoots 2147483647", "oldEngineID", "oldEngineID 0x01 2",
                           "usmUser 1 3 0x80 a", "[snmp]", "includeFile /x"}) {
    EXPECT_THAT(state(line), StartsWith("F:1: ")) << line;
  }
  EXPECT_THAT(state("oldEngineID 0x" + std::string(66, '0')), HasSubstr("at most 32 bytes"));
}

class SnmpConfFile : public testing::Test {
 protected:
  std::string read(SnmpFile kind) { return rendered(readSnmpConf(path_, kind)); }

  Support::TempDir dir_;
  std::string path_ = dir_.file("conf");
};

TEST_F(SnmpConfFile, IsReadWhole) {
  dir_.write("conf", "rocommunity a\nrocommunity b");
  EXPECT_EQ(read(SnmpFile::access), "<rocommunity|a><rocommunity|b>");
  dir_.write("conf", "mistake\n");
  EXPECT_THAT(read(SnmpFile::access), StartsWith(path_ + ":1: mistake: "));
  EXPECT_THAT(read(SnmpFile::state), StartsWith(path_ + ":1: mistake: "));
}

TEST_F(SnmpConfFile, ThatIsNone_SaysSo) {
  EXPECT_EQ(read(SnmpFile::access), path_ + ": No such file or directory");
  EXPECT_EQ(read(SnmpFile::state), "") << "of a first start";
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(read(SnmpFile::access), path_ + ": found a pipe, expected a file");
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_EQ(read(SnmpFile::access), path_ + ": found a directory, expected a file");
}

TEST_F(SnmpConfFile, TooLarge_IsRefused) {
  std::string lines;
  while (lines.size() <= 1 << 20) lines += "# " + std::string(500, 'x') + "\n";
  dir_.write("conf", lines);
  EXPECT_THAT(read(SnmpFile::access), HasSubstr("expected at most 1048576"));
}

TEST_F(SnmpConfFile, StateThatOthersMayWrite_IsRefused) {
  dir_.write("conf", "engineBoots 1\n");
  EXPECT_EQ(read(SnmpFile::state), "<engineBoots|1>");
  ASSERT_EQ(chmod(path_.c_str(), 0620), 0);
  EXPECT_THAT(read(SnmpFile::state), HasSubstr("found mode 0620 and the user"));
}

TEST(SnmpWords, ThatARunningAgentDoesNotTakeAnew) {
  auto lines = [](std::string_view text) { return parseSnmpConf("F", text, SnmpFile::access).lines; };
  auto before = lines("engineID a\nsysContact x\nsysName n\nrocommunity a\nmaxGetbulkRepeats 5\n");
  EXPECT_THAT(notReloaded(before, before), testing::IsEmpty());
  EXPECT_THAT(notReloaded(before, lines("engineID b\nsyscontact y\nsysName n\n")),
              testing::ElementsAre("engineID", "maxGetbulkRepeats"));
  EXPECT_THAT(notReloaded(before, lines("")),
              testing::ElementsAre("syscontact", "sysname", "engineID", "maxGetbulkRepeats"));
  EXPECT_THAT(notReloaded(lines(""), lines("sysContact y\nengineID b\n")), testing::ElementsAre("engineID"));
}

}  // namespace
}  // namespace Host
