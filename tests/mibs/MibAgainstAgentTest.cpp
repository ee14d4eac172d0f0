// Every object of the MIB modules against a running agent: what the module says is what is served, and
// nothing else is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Hosts.h"
#include "tests/e2e/Reports.h"
#include "tests/mibs/MibModel.h"

namespace Mibs {
namespace {

using testing::HasSubstr;

// An instance of a table as it is on the wire.
struct Instance {
  std::string column;              // its OID
  std::vector<unsigned long> row;  // the index
  std::string type;
  std::string value;
};

std::vector<unsigned long> numbers(const std::string& dotted) {
  std::vector<unsigned long> all;
  std::istringstream in(dotted);
  for (std::string number; std::getline(in, number, '.');) all.push_back(std::stoul(number));
  return all;
}

// net-snmp's names of the types on the wire, by the type of the module.
std::string onTheWire(const std::string& syntax) {
  static const std::map<std::string, std::string> types = {
      {"INTEGER", "INTEGER"}, {"Integer32", "INTEGER"},   {"TimeTicks", "Timeticks"},
      {"Gauge32", "Gauge32"}, {"OCTET STRING", "STRING"}, {"OBJECT IDENTIFIER", "OID"}};
  return types.at(syntax);
}

// A number, or the length of octets.
long measured(const Instance& instance) {
  return instance.type == "STRING" ? static_cast<long>(instance.value.size()) : std::stol(instance.value);
}

class MibAgainstAgent : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    agent_ = new E2e::Daemon;
    objects_ = objectsOf("VELDA-TREL-MIB");
    for (const Object& object : objectsOf("VELDA-TREL-HOST-RESOURCES-MIB")) objects_.push_back(object);
    // All states, so that every name of the enumeration is on the wire; links both ways; hosts.
    auto state = nlohmann::json::parse(E2e::documentOf(E2e::fullMesh(4)));
    state.merge_patch(nlohmann::json::parse(E2e::hostsDocument()));
    // An index beyond its range is served all the same, but a module cannot say so.
    state["storageMappings"]["mounts"]["/größe"]["index"] = 32;
    for (int from = 1; from <= 4; ++from) {
      for (int to = 1; to <= 4; ++to) {
        if (from == to) continue;
        // An interface that joins members has a slash in its name.
        std::string interface = "Backplane" + std::to_string(from) + "/" + std::to_string(to);
        state["interfaces"][interface] = {{"ifIndex", from * 1000 + to}};
        state["topology"][std::to_string(from)][std::to_string(to)] = {{"intf", interface}};
      }
    }
    std::string conf = agent_->dir().write("trel.conf", E2e::writingAccess("public"));
    agent_->stateIs(state.dump()).with({"--conf", conf}).start();
  }
  static void TearDownTestSuite() {
    delete agent_;
    agent_ = nullptr;
  }

  static std::vector<Object> of(const std::string& kind) {
    std::vector<Object> found;
    std::copy_if(objects_.begin(), objects_.end(), std::back_inserter(found),
                 [&kind](const Object& object) { return object.kind == kind; });
    return found;
  }
  static const Object& named(const std::string& name) {
    return *std::find_if(objects_.begin(), objects_.end(),
                         [&name](const Object& object) { return object.name == name; });
  }
  // The row of a table, the columns of a row.
  static std::vector<Object> below(const Object& parent, const std::string& kind) {
    std::vector<Object> found = of(kind);
    std::erase_if(found,
                  [&parent](const Object& object) { return !object.oid.starts_with(parent.oid + "."); });
    return found;
  }

  // All that the agent serves below an object.
  static std::vector<Instance> served(const Object& object) {
    static const std::regex line(
        R"(^(\.[0-9.]+\.3\.4[01]\.1\.\d+\.1\.\d+)\.([0-9.]+) = (\S+): (?:\((\d+)\).*|(.*?))$)");
    auto result = agent_->manager().withNames("snmpbulkwalk", {"-On", "-Oe", "-OU"}, {object.oid});
    std::istringstream in(result.out);
    std::vector<Instance> all;
    std::smatch match;
    for (std::string text; std::getline(in, text);) {
      if (std::regex_match(text, match, line))
        all.push_back({match[1], numbers(match[2]), match[3], match[4].str() + match[5].str()});
    }
    return all;
  }
  static std::string get(const std::string& oid) { return agent_->manager().get({oid}); }

  static inline E2e::Daemon* agent_ = nullptr;
  static inline std::vector<Object> objects_;
};

// What follows is about all objects: there are as many as there should be.
TEST_F(MibAgainstAgent, Modules_HaveAllTables) {
  EXPECT_EQ(of("table").size(), 5u);
  EXPECT_EQ(of("row").size(), 5u);
  EXPECT_EQ(of("column").size(), 8u + 16u);
  EXPECT_THAT(served(named("veldaTrelReachabilityTable")), testing::SizeIs(12 * 3));
  EXPECT_THAT(served(named("veldaTrelBaIfTable")), testing::SizeIs(12 * 2));
  EXPECT_THAT(served(named("veldaTrelHrSystemTable")), testing::SizeIs(3 * 5));
  EXPECT_THAT(served(named("veldaTrelProcessorTable")), testing::SizeIs(5));
  EXPECT_THAT(served(named("veldaTrelStorageTable")), testing::SizeIs(7 * 5));
}

TEST_F(MibAgainstAgent, Tables_ServedAreTheDeclaredReadOnlyColumnsAndNoOthers) {
  for (const Object& table : of("table")) {
    std::set<std::string> columns;
    for (const Instance& instance : served(table)) columns.insert(instance.column);
    std::set<std::string> declared;
    for (const Object& column : below(table, "column")) {
      if (column.access == "read-only") declared.insert(column.oid);
    }
    EXPECT_EQ(columns, declared) << table.name;
  }
}

// Of a column that exists an instance is missing, of another the object is.
TEST_F(MibAgainstAgent, Columns_ThatAreReadOnlyExist_OthersDoNot) {
  for (const Object& row : of("row")) {
    std::string absent = row.index.size() == 1 ? ".99" : ".99.99";
    std::vector<Object> columns = below(row, "column");
    for (const Object& column : columns) {
      bool readable = column.access == "read-only";
      EXPECT_THAT(get(column.oid + absent), HasSubstr(readable ? "No Such Instance" : "No Such Object"))
          << column.name;
    }
    EXPECT_THAT(get(row.oid + "." + std::to_string(columns.size() + 1) + absent),
                HasSubstr("No Such Object"));
  }
}

TEST_F(MibAgainstAgent, Columns_ValuesHaveTheDeclaredTypeAndRange) {
  for (const Object& column : of("column")) {
    for (const Instance& instance : served(column)) {
      EXPECT_EQ(instance.type, onTheWire(column.syntax)) << column.name;
      if (column.highest != 0) {
        EXPECT_GE(measured(instance), column.lowest) << column.name;
        EXPECT_LE(measured(instance), column.highest) << column.name;
      }
    }
  }
}

TEST_F(MibAgainstAgent, Rows_IndexHasTheDeclaredColumnsInTheirRange) {
  for (const Object& row : of("row")) {
    for (const Instance& instance : served(row)) {
      ASSERT_EQ(instance.row.size(), row.index.size()) << row.name;
      for (size_t i = 0; i < row.index.size(); ++i) {
        const Object& column = named(row.index[i]);
        EXPECT_EQ(column.oid, row.oid + "." + std::to_string(i + 1));
        EXPECT_EQ(column.access, "not-accessible");
        EXPECT_LE(instance.row[i], static_cast<unsigned long>(column.highest)) << column.name;
      }
    }
  }
}

TEST_F(MibAgainstAgent, States_EveryDeclaredNumberIsServedButThatOfTheUnrecognized) {
  const Object& state = named("veldaTrelReachabilityState");
  std::set<std::string> values;
  for (const Instance& instance : served(state)) values.insert(instance.value);
  std::set<std::string> declared;
  for (const auto& [number, name] : state.names) declared.insert(std::to_string(number));
  declared.erase("0");
  EXPECT_EQ(values, declared);
  EXPECT_EQ(state.names.at(0), "unrecognized");
}

// A state's name in the state document is its name in the module.
TEST_F(MibAgainstAgent, States_NamesAreThoseOfTheState) {
  const Object& state = named("veldaTrelReachabilityState");
  for (const auto& [pair, report] : E2e::fullMesh(4)) {
    std::string row = "." + std::to_string(pair.first) + "." + std::to_string(pair.second);
    EXPECT_THAT(agent_->manager().withNames("snmpget", {}, {state.oid + row}).out,
                HasSubstr(" INTEGER: " + report.state + "("));
  }
}

TEST_F(MibAgainstAgent, NothingIsWritable) {
  for (const Object& row : of("row")) {
    for (const Object& column : below(row, "column")) {
      EXPECT_THAT(column.access, testing::AnyOf("read-only", "not-accessible"));
      std::string instance = column.oid + (row.index.size() == 1 ? ".1" : ".1.2");
      EXPECT_THAT(agent_->manager().set(instance, 1), HasSubstr("Reason: notWritable")) << column.name;
    }
  }
}

// What a manager reads of a column whose unit matters.
TEST_F(MibAgainstAgent, Values_ReadWithTheirUnits) {
  auto walked = agent_->manager().withNames("snmpwalk", {"-Os"}, {"veldaTrelHostResourcesMIB"}).out;
  for (const char* line :
       {"veldaTrelHrSystemUpTime.1 = Timeticks: (8640050) 1 day, 0:00:00.50\n",
        "veldaTrelHrSystemDate.1 = STRING: 2026-1-1,0:0:1.2,+0:0\n",
        "veldaTrelHrSystemNumUsers.1 = Gauge32: 1 sessions\n",
        "veldaTrelHrSystemProcesses.1 = Gauge32: 107 processes\n",
        "veldaTrelHrSystemMemorySize.1 = INTEGER: 8388608 KBytes\n",
        "veldaTrelProcessorLoad.1.1 = INTEGER: -1 percent\n", "veldaTrelStorageDescr.1.32 = STRING: /größe\n",
        "veldaTrelStorageAllocUnits.1.31 = INTEGER: 4096 Bytes\n",
        "veldaTrelStorageUsed.1.31 = INTEGER: 2622440 allocation units\n"}) {
    EXPECT_THAT(walked, HasSubstr(line));
  }
}

TEST_F(MibAgainstAgent, Snmptable_PrintsNamesAndStates) {
  auto table =
      agent_->manager().withNames("snmptable", {"-Ci", "-Cb", "-OU"}, {"veldaTrelReachabilityTable"});
  EXPECT_THAT(table.out, HasSubstr("index BaIfIndex        State   LastUpdate\n"));
  EXPECT_THAT(table.out, HasSubstr("  1.4      1004    reachable 0:0:00:00.00\n"));
}

TEST_F(MibAgainstAgent, Snmptable_PrintsDatesAndLoads) {
  const E2e::Manager& manager = agent_->manager();
  EXPECT_THAT(manager.withNames("snmptable", {"-Ci", "-Cb", "-OU"}, {"veldaTrelHrSystemTable"}).out,
              HasSubstr("\n index       UpTime                    Date   NumUsers  Processes MemorySize\n"
                        "     1 1:0:00:00.50   2026-1-1,0:0:1.2,+0:0          1        107    8388608\n"
                        "     2 0:0:00:01.00 2106-2-7,6:28:16.0,+0:0 2147483648 4294967295         -1\n"
                        "   255 0:0:00:00.00   1970-1-1,0:0:0.0,+0:0          0          0          0\n"));
  EXPECT_THAT(manager.withNames("snmptable", {"-Ci", "-Cb", "-OU"}, {"veldaTrelProcessorTable"}).out,
              HasSubstr("\n       index veldaTrelProcessorLoad\n         1.1                     -1\n"));
}

}  // namespace
}  // namespace Mibs
