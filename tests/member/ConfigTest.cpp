// The configuration file: what it sets, and the line for each error.
#include "member/Config.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/support/TempDir.h"

namespace Member {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

absl::Status checkStore(const std::string& text) {
  return text.starts_with("etcd:") ? absl::OkStatus() : absl::InvalidArgumentError("found no store");
}

struct ParsedConfig {
  Config config;
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
};

ParsedConfig readConfig(const std::string& path) {
  ParsedConfig parsed;
  Runtime::Settings settings;
  addConfig(settings, parsed.config, checkStore);
  auto none = std::make_shared<nlohmann::json>(nlohmann::json::object());
  Runtime::Findings findings = settings.read({path, true, none});
  parsed.errors = findings.faults();
  parsed.warnings = findings.warnings();
  return parsed;
}

// Messages begin with "m.json".
ParsedConfig parsed(std::string_view text) {
  Support::TempDir dir;
  ParsedConfig parsed = readConfig(dir.write("m.json", std::string(text)));
  for (auto* lines : {&parsed.errors, &parsed.warnings}) {
    for (std::string& line : *lines) line = line.substr(dir.path().string().size() + 1);
  }
  return parsed;
}

// A good neighbour, with these members added or put in place of its own.
std::string neighbour(std::string_view changes = "", int member = 2) {
  std::string own = fmt::format(
      R"("member": {0}, "interface": "Backplane1/{0}", "device": "bp{0}", "address": "10.0.0.{0}")", member);
  return fmt::format("{{{}{}{}}}", own, changes.empty() ? "" : ", ", changes);
}

// The errors and warnings of a document with such members beside those that it must have.
ParsedConfig with(std::string_view members) {
  return parsed(fmt::format(R"({{"member": 1, "store": "etcd:h:1/p", {}}})", members));
}
ParsedConfig withNeighbours(std::string_view neighbours) {
  return with(fmt::format(R"("neighbours": [{}])", neighbours));
}

TEST(ConfigTest, Example_IsWhatTheDefaultsAre) {
  ParsedConfig result = readConfig(TREL_EXAMPLES "/trelmemberd.json");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings, IsEmpty());
  const Config& config = result.config;
  EXPECT_EQ(config.member, 1);
  EXPECT_EQ(config.store, "etcd:127.0.0.1:2379/trel");
  Config defaults;
  EXPECT_EQ(config.ttlSeconds, defaults.ttlSeconds);
  EXPECT_EQ(config.intervalSeconds, defaults.intervalSeconds);
  EXPECT_EQ(config.figuresIntervalSeconds, defaults.figuresIntervalSeconds);
  ASSERT_EQ(config.neighbours.size(), 2u);
  for (const NeighbourConfig& one : config.neighbours) {
    EXPECT_EQ(one.probe.intervalMs, 500u);
    EXPECT_EQ(one.probe.timeoutMs, 400u);
    EXPECT_TRUE(one.probe.counting.enabled);
    EXPECT_EQ(one.probe.counting.lossesDown, 3u);
    EXPECT_EQ(one.probe.counting.answersUp, 3u);
    EXPECT_EQ(one.probe.counting.window, 20u);
    EXPECT_EQ(one.probe.counting.windowLosses, 2u);
  }
  EXPECT_EQ(config.neighbours[1].member, 3);
  EXPECT_EQ(config.neighbours[1].interface, "Backplane1/2");
  EXPECT_EQ(config.neighbours[1].device, "bp1-3");
  EXPECT_EQ(config.neighbours[1].address, "fe80::3");
}

TEST(ConfigTest, EveryMember_IsTaken) {
  ParsedConfig result =
      with(R"("access": {"ca": "a", "cert": "b", "key": "c", "credentials": "d"},
      "ttl": 7, "hold": 8, "interval": 2, "figuresInterval": 9,
      "deadbands": {"load": 1, "memory": 2.5, "storage": 0.5, "processes": 3, "users": 4, "longest": 6},
      "indexFile": "/i", "neighbours": [)" +
           neighbour(R"("ifIndex": 1002, "enabled": false, "probe": {"intervalMs": 300, "timeoutMs": 200,
      "lossesDown": 4, "answersUp": 5, "window": 6, "windowLosses": 1})") +
           "]");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings, IsEmpty());
  const Config& config = result.config;
  EXPECT_EQ(
      config.access.caFile + config.access.certFile + config.access.keyFile + config.access.credentialsFile,
      "abcd");
  EXPECT_EQ(config.ttlSeconds, 7u);
  EXPECT_EQ(config.holdSeconds, 8u);
  EXPECT_EQ(config.intervalSeconds, 2u);
  EXPECT_EQ(config.figuresIntervalSeconds, 9u);
  EXPECT_EQ(config.deadbands, (Deadbands{1, 2.5, 0.5, 3, 4, 6}));
  EXPECT_EQ(config.indexFile, "/i");
  EXPECT_EQ(config.neighbours.at(0).ifIndex, 1002u);
  const ProbeSettings& probe = config.neighbours.at(0).probe;
  EXPECT_EQ(probe.intervalMs, 300u);
  EXPECT_EQ(probe.timeoutMs, 200u);
  EXPECT_FALSE(probe.counting.enabled);
  EXPECT_EQ(probe.counting.lossesDown, 4u);
  EXPECT_EQ(probe.counting.answersUp, 5u);
  EXPECT_EQ(probe.counting.window, 6u);
  EXPECT_EQ(probe.counting.windowLosses, 1u);
}

TEST(ConfigTest, IfIndexOfTwoNeighboursOrOutOfRange_IsAnError) {
  auto with = [](const std::string& first, const std::string& second) {
    return withNeighbours(
        R"({"member": 2, "interface": "Backplane1/1", "device": "a", "address": "10.0.0.2", "ifIndex": )" +
        first +
        R"(}, {"member": 3, "interface": "Backplane1/2", "device": "b", "address": "10.0.0.3", "ifIndex": )" +
        second + "}");
  };
  EXPECT_THAT(with("7", "8").errors, IsEmpty());
  EXPECT_THAT(
      with("7", "7").errors,
      ElementsAre(
          "m.json:1: neighbours[1]/ifIndex: found 7, which neighbours[0] has too, expected another one"));
  EXPECT_THAT(
      with("0", "2147483648").errors,
      ElementsAre("m.json:1: neighbours[0]/ifIndex: found 0, expected an integer from 1 to 2147483647",
                  "m.json:1: neighbours[1]/ifIndex: found 2147483648, expected an integer from 1 to "
                  "2147483647"));
}

std::string cable(const std::string& interface, int neighbour, const std::string& more = "") {
  return fmt::format(R"({{"member": {0}, "interface": "{1}", "device": "e{0}", "address": "10.0.0.{0}"{2}}})",
                     neighbour, interface, more);
}

TEST(ConfigTest, IndexesOfThreeMembersPorts_AreSixDifferentOnes) {
  std::set<uint32_t> indexes;
  for (int member : {1, 2, 3}) {
    std::string neighbours;
    int port = 0;
    for (int other : {1, 2, 3}) {
      if (other == member) continue;
      if (port != 0) neighbours += ", ";
      neighbours += cable(fmt::format("Backplane{}/{}", member, ++port), other);
    }
    ParsedConfig result = parsed(
        fmt::format(R"({{"member": {}, "store": "etcd:h:1/p", "neighbours": [{}]}})", member, neighbours));
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_THAT(result.warnings, IsEmpty());
    for (const NeighbourConfig& one : result.config.neighbours) indexes.insert(one.ifIndex);
  }
  EXPECT_THAT(indexes, ElementsAre(1001, 1002, 2001, 2002, 3001, 3002));
}

TEST(ConfigTest, IfIndexBase_IsTimesTheMemberAndZeroLeavesTheDevicesOwn) {
  auto index = [](const std::string& base) {
    return with("\"neighbours\": [" + cable("Backplane1/7", 2) + "], \"ifIndexBase\": " + base)
        .config.neighbours.at(0)
        .ifIndex;
  };
  EXPECT_EQ(index("64"), 71u);
  EXPECT_EQ(index("8000000"), 8'000'007u);
  EXPECT_EQ(index("0"), 0u);
  EXPECT_EQ(indexOfPort(255, Config::kMaxIfIndexBase, "Backplane1/7999999"), 2'047'999'999u);
}

// Slots with ports of their own. Before there was a base, such a configuration was good.
TEST(ConfigTest, PortThatTwoInterfacesEndWith_IsTheFirstOnes) {
  std::string neighbours = cable("Backplane1/1", 2) + ", " + cable("Backplane2/1", 3) + ", " +
                           cable("Backplane2/2", 4, R"(, "ifIndex": 1003)") + ", " + cable("Backplane1/3", 5);
  ParsedConfig result = withNeighbours(neighbours);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings,
              ElementsAre("m.json:1: neighbours[1]/interface: \"Backplane2/1\" would be 1001, which "
                          "\"Backplane1/1\" has: the device's own ifIndex is published, which other members "
                          "may have too; set ifIndex",
                          "m.json:1: neighbours[3]/interface: \"Backplane1/3\" would be 1003, which "
                          "\"Backplane2/2\" has: the device's own ifIndex is published, which other members "
                          "may have too; set ifIndex"));
  EXPECT_EQ(result.config.neighbours.at(0).ifIndex, 1001u);
  EXPECT_EQ(result.config.neighbours.at(1).ifIndex, 0u);
}

TEST(ConfigTest, InterfaceWithoutAPort_IsAWarningUnlessItsIndexIsSet) {
  EXPECT_EQ(indexOfPort(1, 1000, "Backplane1/0"), 0u);
  EXPECT_EQ(indexOfPort(1, 1000, "Backplane1/1000"), 0u);
  EXPECT_EQ(indexOfPort(1, 1000, "Backplane1/99999999999"), 0u);
  EXPECT_THAT(
      withNeighbours(cable("Backplane1/a", 2)).warnings,
      ElementsAre("m.json:1: neighbours[0]/interface: \"Backplane1/a\" ends with no port from 1 to 999: the "
                  "device's own ifIndex is published, which other members may have too; set ifIndex"));
  EXPECT_THAT(withNeighbours(cable("Backplane1/a", 2, R"(, "ifIndex": 7)")).warnings, IsEmpty());
}

TEST(ConfigTest, IndexThatIsSetAndIsAnotherOnesByItsPort_IsAnError) {
  EXPECT_THAT(
      withNeighbours(cable("Backplane1/2", 2) + ", " + cable("Backplane1/3", 3, R"(, "ifIndex": 1002)"))
          .errors,
      ElementsAre(
          "m.json:1: neighbours[1]/ifIndex: found 1002, which neighbours[0] has too, expected another one"));
}

TEST(ConfigTest, ScopeIsTheDevice_IsTakenAway) {
  ParsedConfig result = withNeighbours(
      R"({"member": 2, "interface": "Backplane1/2", "device": "bp2", "address": "fe80::2%bp2"})");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(result.config.neighbours.at(0).address, "fe80::2");
}

struct Case {
  const char* text;   // the whole document, or, after "+", members beside those that it must have
  const char* error;  // after "m.json"
};

class ConfigErrorTest : public testing::TestWithParam<Case> {};

TEST_P(ConfigErrorTest, IsOneLineThatNamesFileAndMember) {
  std::string_view text = GetParam().text;
  ParsedConfig result = text.starts_with('+') ? with(text.substr(1)) : parsed(text);
  EXPECT_THAT(result.errors, ElementsAre(std::string("m.json") + GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    Document, ConfigErrorTest,
    testing::Values(
        Case{"", ":1:1: found nothing, expected a JSON object"},
        Case{"{\n  \"member\": 1,\n}",
             ":3:1: syntax error while parsing object key - unexpected '}'; expected string literal"},
        Case{"[]", ":1: found an array, expected an object"},
        Case{R"({"store": "etcd:x"})", ":1: member: found nothing, expected an integer from 0 to 255"},
        Case{R"({"member": 1})",
             ":1: store: found nothing, expected a string etcd:HOST:PORT[,HOST:PORT...]/PREFIX"},
        Case{R"({"member": 1, "store": "file:x"})", ":1: store: found no store"},
        Case{R"({"member": 1, "store": 7})",
             ":1: store: found 7, expected a string etcd:HOST:PORT[,HOST:PORT...]/PREFIX"},
        Case{R"({"member": 256, "store": "etcd:x"})",
             ":1: member: found 256, expected an integer from 0 to 255"},
        Case{R"({"member": -1, "store": "etcd:x"})",
             ":1: member: found -1, expected an integer from 0 to 255"},
        Case{R"({"member": 1.5, "store": "etcd:x"})",
             ":1: member: found 1.5, expected an integer from 0 to 255"},
        Case{R"({"member": "1", "store": "etcd:x"})",
             ":1: member: found \"1\", expected an integer from 0 to 255"},
        Case{R"(+"ttl": 1)", ":1: ttl: found 1, expected an integer from 2 to 3600"},
        Case{R"(+"ttl": 3601)", ":1: ttl: found 3601, expected an integer from 2 to 3600"},
        Case{R"(+"interval": 0)", ":1: interval: found 0, expected an integer from 1 to 3600"},
        Case{R"(+"deadbands": 3)", ":1: deadbands: found 3, expected an object"},
        Case{R"(+"deadbands": {"load": 101})",
             ":1: deadbands/load: found 101, expected an integer from 0 to 100"},
        Case{R"(+"deadbands": {"memory": -1})",
             ":1: deadbands/memory: found -1, expected a number from 0 to 100"},
        Case{R"(+"deadbands": {"storage": 101})",
             ":1: deadbands/storage: found 101, expected a number from 0 to 100"},
        Case{R"(+"deadbands": {"processes": -1})",
             ":1: deadbands/processes: found -1, expected an integer from 0 to 1000000"},
        Case{R"(+"deadbands": {"users": "x"})",
             ":1: deadbands/users: found \"x\", expected an integer from 0 to 1000000"},
        Case{R"(+"deadbands": {"longest": 0})",
             ":1: deadbands/longest: found 0, expected an integer from 1 to 3600"},
        Case{R"(+"figuresInterval": 0)", ":1: figuresInterval: found 0, expected an integer from 1 to 3600"},
        Case{R"(+"indexFile": "")", ":1: indexFile: found nothing, expected a path"},
        Case{R"(+"access": "x")", ":1: access: found \"x\", expected an object"},
        Case{R"(+"access": {"ca": 1})", ":1: access/ca: found 1, expected a string FILE"},
        Case{R"(+"access": {"key": ""})", ":1: access/key: found nothing, expected a path"},
        Case{R"(+"ttl": 5, "ttl": 6)", ":1: ttl: found it twice in one object, expected it once"},
        Case{R"(+"neighbours": {})", ":1: neighbours: found an object, expected an array"},
        Case{R"(+"neighbours": [7])", ":1: neighbours[0]: found 7, expected an object"}));

#define NEIGHBOUR(text) "+\"neighbours\": [{" text "}]"
#define OTHERWISE(member, interface, device, address)                                   \
  NEIGHBOUR("\"member\": " member ", \"interface\": " interface ", \"device\": " device \
            ", \"address\": " address)
#define PROBE(text)                                                                                      \
  NEIGHBOUR(                                                                                             \
      "\"member\": 2, \"interface\": \"Backplane1/2\", \"device\": \"bp2\", \"address\": \"10.0.0.2\", " \
      "\"probe\": {" text "}")

INSTANTIATE_TEST_SUITE_P(
    Neighbour, ConfigErrorTest,
    testing::Values(
        Case{OTHERWISE("2", "\"\"", "\"b\"", "\"::2\""),
             ":1: neighbours[0]/interface: found \"\", expected an interface name"},
        Case{OTHERWISE("2", "7", "\"b\"", "\"::2\""),
             ":1: neighbours[0]/interface: found 7, expected an interface name"},
        Case{OTHERWISE("2", "\"Backplane1\\n\"", "\"b\"", "\"::2\""),
             ":1: neighbours[0]/interface: found \"Backplane1\\x0a\", expected an interface name"},
        Case{OTHERWISE("2", "\"Backplane1\"", "\"a/b\"", "\"::2\""),
             ":1: neighbours[0]/device: found \"a/b\", expected a device name of 1 to 15 bytes"},
        Case{OTHERWISE("2", "\"Backplane1\"", "\"a234567890123456\"", "\"::2\""),
             ":1: neighbours[0]/device: found \"a234567890123456\", expected a device name of 1 to 15 bytes"},
        Case{OTHERWISE("2", "\"Backplane1\"", "\"b\"", "\"host\""),
             ":1: neighbours[0]/address: found \"host\", expected a machine's IPv4 or IPv6 address, such as "
             "10.0.0.2 or "
             "fe80::2"},
        Case{OTHERWISE("2", "\"Backplane1\"", "\"b\"", "\"fe80::2%c\""),
             ":1: neighbours[0]/address: found \"fe80::2%c\", expected no scope but the device, \"b\""},
        Case{OTHERWISE("2", "\"Backplane1\"", "\"b\"", "\"10.0.0.2%b\""),
             ":1: neighbours[0]/address: found \"10.0.0.2%b\", expected no scope but the device, \"b\""},
        Case{OTHERWISE("1", "\"Backplane1\"", "\"b\"", "\"::2\""),
             ":1: neighbours[0]/member: found 1, which is this member, expected another one"},
        Case{NEIGHBOUR("\"interface\": \"Backplane1\", \"device\": \"b\", \"address\": \"::2\""),
             ":1: neighbours[0]/member: found nothing, expected an integer from 0 to 255"},
        Case{NEIGHBOUR("\"member\": 2, \"device\": \"b\", \"address\": \"::2\""),
             ":1: neighbours[0]/interface: found nothing, expected an interface name"},
        Case{NEIGHBOUR("\"member\": 2, \"interface\": \"Backplane1\", \"address\": \"::2\""),
             ":1: neighbours[0]/device: found nothing, expected a device name of 1 to 15 bytes"},
        Case{NEIGHBOUR("\"member\": 2, \"interface\": \"Backplane1\", \"device\": \"b\""),
             ":1: neighbours[0]/address: found nothing, expected a machine's IPv4 or IPv6 address, such as "
             "10.0.0.2 or "
             "fe80::2"},
        Case{PROBE("\"intervalMs\": 99"),
             ":1: neighbours[0]/probe/intervalMs: found 99, expected an integer from 100 to 60000"},
        Case{PROBE("\"timeoutMs\": 9"),
             ":1: neighbours[0]/probe/timeoutMs: found 9, expected an integer from 10 to 60000"},
        Case{PROBE("\"timeoutMs\": 501"),
             ":1: neighbours[0]/probe/timeoutMs: found 501, expected at most the interval, 500"},
        Case{PROBE("\"lossesDown\": 0"),
             ":1: neighbours[0]/probe/lossesDown: found 0, expected an integer from 1 to 100"},
        Case{PROBE("\"answersUp\": 101"),
             ":1: neighbours[0]/probe/answersUp: found 101, expected an integer from 1 to 100"},
        Case{PROBE("\"window\": true"),
             ":1: neighbours[0]/probe/window: found true, expected an integer from 1 to 1000"},
        Case{PROBE("\"window\": 3, \"windowLosses\": 4"),
             ":1: neighbours[0]/probe/windowLosses: found 4, expected at most the window, 3"}));

TEST(ConfigTest, Enabled_IsTrueOrFalse) {
  EXPECT_THAT(withNeighbours(neighbour(R"("enabled": 1)")).errors,
              ElementsAre("m.json:1: neighbours[0]/enabled: found 1, expected true or false"));
}

TEST(ConfigTest, DefaultsGoWithWhatIsGiven) {
  ParsedConfig result = withNeighbours(neighbour(R"("probe": {"intervalMs": 100, "window": 1})"));
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(result.config.neighbours.at(0).probe.timeoutMs, 100u);
  EXPECT_EQ(result.config.neighbours.at(0).probe.counting.windowLosses, 1u);
}

TEST(ConfigTest, TwoNeighboursAlike_IsAnErrorForEachMember) {
  EXPECT_THAT(
      withNeighbours(neighbour() + "," + neighbour("", 3) + "," + neighbour()).errors,
      ElementsAre(
          "m.json:1: neighbours[2]/member: found 2, which neighbours[0] has too, expected another one",
          "m.json:1: neighbours[2]/interface: found Backplane1/2, which neighbours[0] has too, expected "
          "another "
          "one",
          "m.json:1: neighbours[2]/device: found bp2, which neighbours[0] has too, expected another one"));
}

TEST(ConfigTest, SeveralErrors_AreAllListed) {
  EXPECT_THAT(with(R"("ttl": 0, "interval": 0, "neighbours": [7, {"member": 2}])").errors,
              testing::SizeIs(6));
}

TEST(ConfigTest, UnknownMembers_AreErrorsWithTheNearestKey) {
  ParsedConfig result = with(R"("tll": 5, "access": {"caa": ""}, "neighbours": [)" +
                             neighbour(R"("": 1, "probe": {"x": 1})") + "]");
  EXPECT_THAT(
      result.errors,
      testing::UnorderedElementsAre(
          "m.json:1: access/caa: found an unknown key, expected \"ca\": correct it",
          "m.json:1: neighbours[0]/probe/x: found an unknown key, expected one of intervalMs, timeoutMs, "
          "lossesDown, answersUp, window, windowLosses: remove it",
          "m.json:1: neighbours[0]/\"\": found an unknown key, expected one of member, interface, device, "
          "address, ifIndex, enabled, probe: remove it",
          "m.json:1: tll: found an unknown key, expected \"ttl\": correct it"));
}

TEST(ConfigTest, NoBackplaneInterface_IsAWarning) {
  ParsedConfig result =
      withNeighbours(R"({"member": 2, "interface": "Ethernet1", "device": "e1", "address": "10.0.0.2"})");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.warnings,
              ElementsAre("m.json:1: neighbours[0]/interface: \"Ethernet1\" is no backplane interface "
                          "(Backplane and a digit): no interface row will show it"));
}

TEST(ConfigTest, FileThatCannotBeRead_IsAnError) {
  Support::TempDir dir;
  auto errors = [&](const std::string& path) { return readConfig(path).errors; };
  EXPECT_THAT(errors(dir.file("none")), ElementsAre(dir.file("none") + ": No such file or directory"));
  EXPECT_THAT(errors(dir.path()), ElementsAre(dir.path().string() + ": found a directory, expected a file"));
  EXPECT_THAT(errors(dir.write("large", std::string((1 << 20) + 1, ' '))),
              ElementsAre(dir.file("large") + ": found 1048577 bytes, expected at most 1048576"));
  std::string good = dir.write("good", R"({"member": 1, "store": "etcd:x"})" + std::string(1 << 19, ' '));
  EXPECT_THAT(errors(good), IsEmpty());
}

TEST(ConfigTest, AnyTextCutAnywhere_IsNoCrash) {
  std::string whole = Support::readFile(TREL_EXAMPLES "/trelmemberd.json");
  for (size_t length = 0; length + 2 < whole.size(); ++length) {
    EXPECT_FALSE(parsed(whole.substr(0, length)).errors.empty()) << length;
  }
  EXPECT_FALSE(parsed(std::string(100000, '[')).errors.empty());
}

// Nobody, or more than one machine, has them.
TEST(ConfigTest, AddressThatNoNeighbourCanHave_IsRefused) {
  for (const char* address :
       {"0.0.0.0", "224.0.0.1", "255.255.255.255", "::", "ff02::1", "::ffff:10.0.0.2"}) {
    EXPECT_THAT(
        withNeighbours(
            fmt::format(R"({{"member": 2, "interface": "Backplane1/2", "device": "bp2", "address": "{}"}})",
                        address))
            .errors,
        ElementsAre(
            fmt::format("m.json:1: neighbours[0]/address: found \"{}\", expected a machine's IPv4 or IPv6 "
                        "address, such as 10.0.0.2 or fe80::2",
                        address)));
  }
}

}  // namespace
}  // namespace Member
