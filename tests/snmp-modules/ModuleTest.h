// Both modules, registered for the default context over a MIB state object that the test fills.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "mib-state/TrelMib.h"
#include "platform/snmp/AgentUptime.h"
#include "platform/snmp/AsnConversions.h"
#include "platform/snmp/RegVoidCollByContext.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"
#include "tests/snmp-modules/Callbacks.h"
#include "tests/snmp-modules/InProcessAgent.h"
#include "tests/snmp-modules/TableCases.h"
#include "tests/support/TraceLog.h"

namespace SnmpTest {

using State = Trel::ReachabilityState::State;

constexpr const char* kBaIf = "veldaTrelBaIfTable";
constexpr const char* kReachability = "veldaTrelReachabilityTable";
// Where they stand, for InProcessAgent and DirectWalk.
constexpr const char* kBaIfName = "1";
constexpr const char* kReachabilityName = "2";

// When the agents of these tests start, in UTC seconds.
constexpr double kAgentStart = 1700000000;

// The state database with a MIB state object in its place; the modules look there while it lives.
class Database {
 public:
  Database();
  // Puts something else, or nothing, where the MIB state object should be.
  explicit Database(Zavro::Ptr<Kor::Entity> instead);
  ~Database();
  TrelSnmp::TrelMib& mib() { return *mib_; }

 private:
  Zavro::Ptr<TrelSnmp::TrelMib> mib_;
};

// Who answers for the tables: the handler of the direct answers, or net-snmp's iterator behind it.
enum class By : uint8_t { direct, chain };
std::string textOf(By by);

class ModuleTest : public ::testing::Test {
 protected:
  explicit ModuleTest(By by = By::direct);
  ~ModuleTest() override;

  // Registers the modules anew.
  void answeredBy(By by);

  InProcessAgent& agent() { return InProcessAgent::instance(); }
  TrelSnmp::TrelMib& mib() { return database_.mib(); }

  void baIf(uint32_t ifIndex, uint32_t local = 1, uint32_t remote = 2) {
    mib().trelIfTableIs(ifIndex, local, remote);
  }
  // A row whose state was last changed `uptime` seconds after the agent's start.
  void reach(uint32_t src, uint32_t dst, int state = State::reachable, double uptime = 1);

  // "<kind>=<count>" for each kind of counter that has counted, in the order of the kinds, then
  // "direct=<count>"; forgets nothing.
  std::string counters(const char* table);
  // How often the walks of the table have gone from one row on to the next or to the end.
  uint64_t steps(const char* table);

  // Holds a subtree against the expected varbinds, in their order, through every kind of request.
  void expectTree(const std::string& subtree, const std::vector<std::string>& expected);

 private:
  static constexpr double kUptime = 1000;

  void expectGets(const std::vector<std::string>& expected);
  void expectBulk(const std::string& subtree, const std::vector<std::string>& expected);

  Zavro::ManualClock clock_{static_cast<uint64_t>(kAgentStart + kUptime) * 1'000'000'000};
  Snmp::AgentUptime uptime_{clock_, [] { return Zavro::Duration(kUptime); }};
  Database database_;
};

// The same, with every trace of the modules in `log`.
class TracedModuleTest : public ModuleTest {
 protected:
  TraceLog log{"veldaTrelMIB", "veldaTrelHostResourcesMIB"};
};

// What has to hold for each table, whatever it serves.
class EveryTableTest : public TracedModuleTest, public ::testing::WithParamInterface<TableOfModule> {
 protected:
  const TableCase& table() const { return GetParam().table; }
  void add(const RowParts& row) { table().add(mib(), row); }
  std::string counters() { return ModuleTest::counters(table().name); }

  // A line of the golden trace.
  std::string line(int level, const std::string& text) const;
  // The same with the table's name in front of the text.
  std::string own(int level, const std::string& text) const { return line(level, table().name + text); }
};
std::string nameOf(const ::testing::TestParamInfo<TableOfModule>& table);

// The registration record of a table in the default context, or null.
Snmp::RegVoid* recordOf(const char* table);

// One varbind on each line.
std::string lines(const std::vector<std::string>& answers);

}  // namespace SnmpTest
