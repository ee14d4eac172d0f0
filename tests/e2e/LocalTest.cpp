// This machine as a member: what a manager reads is what the machine's own tools say.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/e2e/Daemon.h"

namespace E2e {
namespace {

using Support::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

// The values of a column's rows, by index; numbers as snmpwalk prints them, without their type.
std::map<std::string, std::string> column(const Daemon& daemon, const std::string& name) {
  std::map<std::string, std::string> values;
  std::istringstream lines(daemon.manager().walk(name));
  for (std::string line; std::getline(lines, line);) {
    size_t equals = line.find(" = ");
    size_t type = line.find(": ", equals);
    if (equals == std::string::npos || type == std::string::npos) continue;
    values[line.substr(name.size() + 1, equals - name.size() - 1)] = line.substr(type + 2);
  }
  return values;
}

constexpr double kNone = -1e18;

// One value that is a number, in parentheses where there is text as well; kNone when there is none.
double number(const Daemon& daemon, const std::string& name) {
  std::string line = daemon.manager().get({name});
  size_t type = line.find(": ");
  if (type == std::string::npos) return kNone;
  size_t at = line.find_first_of("0123456789-", type);
  return at == std::string::npos ? kNone : std::stod(line.substr(at));
}

// "MemTotal" and the like, in KiB.
double memInfo(const std::string& name) {
  std::ifstream file("/proc/meminfo");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1));
  }
  ADD_FAILURE() << "no " << name;
  return 0;
}

double lines(const Support::Argv& argv) {
  std::string out = Support::run(argv).out;
  return static_cast<double>(std::count(out.begin(), out.end(), '\n'));
}

// What free says the machine's memory is, in KiB.
double totalOfFree() {
  std::string out = Support::run({"free", "-k"}).out;
  size_t at = out.find("Mem:");
  return at == std::string::npos ? 0 : std::stod(out.substr(at + 4));
}

double uptimeSeconds() {
  double seconds = 0;
  std::ifstream("/proc/uptime") >> seconds;
  return seconds;
}

// Whether the agent's value comes to be what the machine says at the moment. Both move on, so that they are
// looked at until they agree.
template <class Actual, class Expected>
testing::AssertionResult agree(Actual actual, Expected expected, double tolerance) {
  double is = 0;
  double wanted = 0;
  bool close = waitUntil([&] {
    is = actual();
    wanted = expected();
    return std::abs(is - wanted) <= tolerance;
  });
  if (close) return testing::AssertionSuccess();
  return testing::AssertionFailure() << is << " is not " << wanted << " within " << tolerance;
}

class LocalTest : public testing::Test {
 protected:
  Daemon& start(const Support::Argv& options) {
    return daemon_.with({"--interval", "1"}).with(options).start();
  }
  auto value(const std::string& name) {
    return [this, name] { return number(daemon_, name); };
  }
  // A machine without a database of sessions says that it does not know them; that is no trouble here.
  static bool isOfSessions(const std::string& text) {
    return !std::filesystem::exists("/run/utmp") &&
           text.find("users fails: /run/utmp: ") != std::string::npos;
  }
  std::vector<std::string> errors() {
    std::vector<std::string> all = daemon_.errors();
    std::erase_if(all, isOfSessions);
    return all;
  }
  // Of the other collectors that do not work: name, state and error.
  std::vector<std::string> troubles() {
    std::vector<std::string> all;
    nlohmann::json status = daemon_.status();
    for (const auto& one : status.at("collectors")) {
      if (one.at("state") == "works") continue;
      all.push_back(fmt::format("{} {}: {}", one.at("name").get<std::string>(),
                                one.at("state").get<std::string>(), one.at("error").get<std::string>()));
    }
    std::erase_if(all, isOfSessions);
    return all;
  }

  Daemon daemon_;
};

TEST_F(LocalTest, SystemRow_IsWhatTheMachinesToolsSay) {
  start({"--state", "local", "--member", "9"});
  EXPECT_THAT(column(daemon_, "sys.6"), ElementsAre(testing::Pair("9", testing::_)));
  EXPECT_TRUE(agree(
      value("sys.2.9"), [] { return uptimeSeconds() * 100; }, 250));
  EXPECT_TRUE(agree(
      value("sys.4.9"), [] { return lines({"who"}); }, 0));
  EXPECT_TRUE(agree(
      value("sys.5.9"),
      [] {
        return lines({"ps", "-e", "-o", "pid="});
      },
      8));
  EXPECT_EQ(number(daemon_, "sys.6.9"), memInfo("MemTotal"));
  EXPECT_THAT(troubles(), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocalTest, SystemRow_DateIsNow) {
  start({"--state", "local"});
  // Year, month, day, hour, minute, second, tenths, and the distance to UTC.
  auto seconds = [this] {
    std::string text = column(daemon_, "sys.3")["1"];
    std::istringstream hex(text);
    std::vector<int> bytes;
    for (int byte = 0; hex >> std::hex >> byte;) bytes.push_back(byte);
    if (bytes.size() != 11) return -1.0;
    std::tm date{};
    date.tm_year = bytes[0] * 256 + bytes[1] - 1900;
    date.tm_mon = bytes[2] - 1;
    date.tm_mday = bytes[3];
    date.tm_hour = bytes[4];
    date.tm_min = bytes[5];
    date.tm_sec = bytes[6];
    return static_cast<double>(timegm(&date));
  };
  EXPECT_TRUE(agree(
      seconds, [] { return static_cast<double>(time(nullptr)); }, 3));
}

TEST_F(LocalTest, ProcessorRows_OneForEachThatIsOnline_WithALoadAfterTheSecondLook) {
  start({"--state", "local"});
  auto online = static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_EQ(column(daemon_, "proc.3").size(), online);
  // The tool counts those that are offline, too.
  size_t all = std::stoul(Support::run({"nproc", "--all"}).out);
  if (online == static_cast<size_t>(sysconf(_SC_NPROCESSORS_CONF))) {
    EXPECT_EQ(online, all);
  } else {
    EXPECT_LT(online, all);
  }
  EXPECT_TRUE(waitUntil([&] {
    auto loads = column(daemon_, "proc.3");
    return loads.size() == online && std::all_of(loads.begin(), loads.end(), [](const auto& load) {
             return std::stoi(load.second) >= 0 && std::stoi(load.second) <= 100;
           });
  }));
}

TEST_F(LocalTest, MemoryRows_AreWhatTheKernelSays) {
  start({"--member", "1"});
  double total = memInfo("MemTotal");
  EXPECT_EQ(total, totalOfFree());
  // Other processes may take and give memory by the second.
  double tolerance = total / 20;
  for (const char* index : {"1", "2", "3", "100"}) {
    EXPECT_EQ(number(daemon_, fmt::format("stor.6.1.{}", index)), total) << index;
    EXPECT_EQ(number(daemon_, fmt::format("stor.5.1.{}", index)), 1024) << index;
  }
  EXPECT_TRUE(agree(
      value("stor.7.1.1"), [&] { return total - memInfo("MemFree"); }, tolerance));
  EXPECT_TRUE(agree(
      value("stor.7.1.2"), [] { return memInfo("Buffers"); }, tolerance / 10));
  EXPECT_TRUE(agree(
      value("stor.7.1.3"), [] { return memInfo("Cached"); }, tolerance));
  EXPECT_TRUE(agree(
      value("stor.7.1.100"), [&] { return total - memInfo("MemAvailable"); }, tolerance));
}

TEST_F(LocalTest, WithoutAnyState_ThisMachineIsMember1OfTheExample) {
  start({});
  nlohmann::json sources = daemon_.status().at("sources");
  ASSERT_EQ(sources.size(), 2u);
  EXPECT_EQ(sources.at(0).at("name"), "embedded");
  EXPECT_EQ(sources.at(1).at("name"), "local");
  EXPECT_EQ(number(daemon_, "sys.6.1"), memInfo("MemTotal"));
  EXPECT_EQ(number(daemon_, "sys.6.2"), 8388608);
  for (const char* name : {"baif.2", "reach.4", "sys.2", "proc.3", "stor.6"}) {
    EXPECT_THAT(column(daemon_, name), testing::Not(IsEmpty())) << name;
  }
  EXPECT_EQ(daemon_.manager().get({"reach.4.1.3"}), "reach.4.1.3 = INTEGER: 4\n");
}

// What df says of a file system, by its mount point; in bytes.
struct Df {
  double size = 0;
  double used = 0;
};
std::map<std::string, Df> df() {
  std::istringstream out(Support::run({"df", "-a", "-B1", "--output=size,used,target"}).out);
  std::map<std::string, Df> all;
  std::string line;
  std::getline(out, line);
  while (std::getline(out, line)) {
    std::istringstream fields(line);
    Df one;
    std::string target;
    // Where there is no figure, there is a dash.
    if (fields >> one.size >> one.used && std::getline(fields >> std::ws, target)) all[target] = one;
  }
  return all;
}

TEST_F(LocalTest, StorageRows_AreWhatDfSays) {
  start({"--state", "local"});
  std::map<std::string, Df> machine = df();
  std::map<std::string, std::string> descriptions = column(daemon_, "stor.4");
  size_t mounts = 0;
  for (auto [row, description] : descriptions) {
    if (std::stoi(row.substr(2)) < 1000) continue;
    ++mounts;
    description = description.substr(1, description.size() - 2);
    ASSERT_TRUE(machine.contains(description)) << description;
    double unit = number(daemon_, "stor.5." + row);
    EXPECT_NEAR(number(daemon_, "stor.6." + row) * unit, machine[description].size, unit) << description;
    // Others write files meanwhile.
    auto used = [&, name = "stor.7." + row] { return number(daemon_, name) * unit; };
    EXPECT_TRUE(agree(
        used, [&] { return df()[description].used; }, machine[description].size / 100 + unit))
        << description;
  }
  EXPECT_GE(mounts, 1u);
  EXPECT_THAT(troubles(), IsEmpty());
}

// The mount points of this machine, by the row that each has.
std::map<std::string, std::string> mountRows(const Daemon& daemon) {
  auto rows = column(daemon, "stor.4");
  std::erase_if(rows, [](const auto& row) { return std::stoi(row.first.substr(2)) < 1000; });
  return rows;
}

TEST_F(LocalTest, Restarted_MountPointsHaveTheRowsThatTheyHad) {
  std::string file = daemon_.dir().write("indexes.json", R"({"version": 1, "mounts": {"/gone": 1234}})");
  start({"--state", "local", "--index-file", file});
  auto rows = mountRows(daemon_);
  EXPECT_EQ(rows.begin()->first, "1.1235");
  EXPECT_TRUE(waitUntil(
      [&] { return nlohmann::json::parse(Support::readFile(file)).at("mounts").size() == rows.size() + 1; }));
  EXPECT_EQ(daemon_.process().stop(), 0);
  daemon_.start();
  EXPECT_EQ(mountRows(daemon_), rows);
}

TEST_F(LocalTest, DamagedIndexFile_OneLine_AndItIsSetAside) {
  std::string file = daemon_.dir().write("indexes.json", "[]");
  start({"--state", "local", "--index-file", file});
  EXPECT_THAT(errors(),
              ElementsAre("Member/0 " + file + ": found no JSON object; set aside as " + file + ".damaged"));
  EXPECT_EQ(Support::readFile(file + ".damaged"), "[]");
}

// More of them than libraries have threads for such work.
TEST_F(LocalTest, MountsThatHang_HoldUpNeitherAnswersNorOtherCollectorsNorTheEnd) {
  Support::Argv hanging = {HANGING_MOUNTS};
  std::vector<std::string> expected;
  for (int i = 0; i < 8; ++i) {
    std::string directory = daemon_.dir().file("hangs " + std::to_string(i));
    std::filesystem::create_directory(directory);
    hanging.push_back(directory);
    expected.push_back("mount " + directory + " hangs: no answer for 3 s");
  }
  hanging.push_back("--");
  Support::Argv probe = hanging;
  probe.push_back("/bin/true");
  if (Support::Result tried = Support::run(probe); tried.status == 77) {
    GTEST_SKIP() << "not allowed here: " << tried.err;
  }
  daemon_.runBy(hanging);
  start({"--state", "local"});
  EXPECT_EQ(troubles(), expected);
  EXPECT_THAT(mountRows(daemon_), testing::Not(IsEmpty()));
  double uptime = number(daemon_, "sys.2.1");
  EXPECT_TRUE(waitUntil([&] { return number(daemon_, "sys.2.1") > uptime; }));
  EXPECT_EQ(daemon_.process().stop(), 0);
}

TEST_F(LocalTest, MountHangsThatHadAnswered_ItsFiguresAreServed) {
  std::string directory = daemon_.dir().file("hangs later");
  std::filesystem::create_directory(directory);
  Support::Argv hanging = {HANGING_MOUNTS, "--after-one", directory, "--"};
  Support::Argv probe = hanging;
  probe.push_back("/bin/true");
  if (Support::Result tried = Support::run(probe); tried.status == 77) {
    GTEST_SKIP() << "not allowed here: " << tried.err;
  }
  daemon_.runBy(hanging);
  start({"--state", "local"});
  std::string row;
  for (const auto& [index, description] : mountRows(daemon_)) {
    if (description == '"' + directory + '"') row = index;
  }
  ASSERT_NE(row, "");
  EXPECT_TRUE(waitUntil([&] { return !troubles().empty(); }));
  EXPECT_THAT(troubles(), ElementsAre("mount " + directory + " hangs: no answer for 3 s"));
  EXPECT_EQ(daemon_.manager().get({"stor.6." + row, "stor.7." + row}),
            fmt::format("stor.6.{0} = INTEGER: 1000\nstor.7.{0} = INTEGER: 600\n", row));
}

TEST_F(LocalTest, ExampleKnowsMoreOfTheMemberThanThereIs_NothingOfItShowsThrough) {
  daemon_.stateIs(R"({"members": {"1": {"processors": {"900": {"load": 77}},
      "storage": {"/nowhere": {"allocationUnits": 1, "size": 2, "free": 1}}}},
      "storageMappings": {"mounts": {"/nowhere": {"index": 77, "type": "1.3.6.1.2.1.25.2.1.4",
                                                  "description": "nowhere"}}}})");
  start({"--state", "local"});
  EXPECT_FALSE(column(daemon_, "proc.3").contains("1.900"));
  EXPECT_FALSE(column(daemon_, "stor.4").contains("1.77"));
  EXPECT_TRUE(column(daemon_, "proc.3").contains("1.1"));
}

}  // namespace
}  // namespace E2e
