// The tables as a manager sees them: an agent that is asked over the loopback interface.
#include <gtest/gtest.h>

#include <fmt/ranges.h>

#include <algorithm>

#include "tests/snmp-modules/ModuleTest.h"

namespace SnmpTest {
namespace {

const std::string kScalar = fmt::format(".1.3.6.1.4.1.{}.4.1.0", TREL_ENTERPRISE_NUMBER);

// An object behind the tables, for walks to go on to.
class ScalarBehindTheTables {
 public:
  ScalarBehindTheTables() : name_(oidOf(kScalar)) {
    EXPECT_EQ(netsnmp_register_read_only_int_instance("behind", name_.data(), name_.size(), &value_, nullptr),
              MIB_REGISTERED_OK);
  }
  ~ScalarBehindTheTables() { unregister_mib(name_.data(), name_.size()); }
  ScalarBehindTheTables(const ScalarBehindTheTables&) = delete;
  ScalarBehindTheTables& operator=(const ScalarBehindTheTables&) = delete;

 private:
  std::vector<oid> name_;
  int value_ = 42;
};

const std::string kBehind = kScalar + "=i:42";

class WireTest : public ModuleTest, public testing::WithParamInterface<By> {
 protected:
  WireTest() : ModuleTest(GetParam()) {}

  void baIfs(std::initializer_list<uint32_t> indexes) {
    for (uint32_t ifIndex : indexes) baIf(ifIndex, 1, ifIndex);
  }
  // What counters() gives.
  static std::string counted(const char* byChain, const char* byDirect) {
    return GetParam() == By::chain ? byChain : byDirect;
  }

 private:
  ScalarBehindTheTables behind_;
};
INSTANTIATE_TEST_SUITE_P(By, WireTest, testing::Values(By::direct, By::chain),
                         [](const auto& by) { return textOf(by.param); });

// --- every table

struct TableBy {
  TableOfModule of;
  By by;
};
void PrintTo(const TableBy& table, std::ostream* out) { *out << table.of.table.name; }

std::vector<TableBy> allTablesByAll() {
  std::vector<TableBy> all;
  for (const TableOfModule& table : allTables()) {
    all.push_back({table, By::direct});
    all.push_back({table, By::chain});
  }
  return all;
}

class WireOfEveryTable : public ModuleTest, public testing::WithParamInterface<TableBy> {
 protected:
  WireOfEveryTable() : ModuleTest(GetParam().by) {}
  ~WireOfEveryTable() override {
    bool answeredDirectly = recordOf(table().name)->counters().directAnswers() != 0;
    EXPECT_EQ(answeredDirectly, GetParam().by == By::direct);
  }
  const TableCase& table() const { return GetParam().of.table; }
  void add(const RowParts& row) { table().add(mib(), row); }
  // One row for each number, or for each pair of them, in key order; those of one table.
  std::vector<RowParts> rowsOf(const std::vector<uint32_t>& numbers) const {
    std::vector<RowParts> rows;
    for (uint32_t first : numbers) {
      if (table().index.size() == 1) {
        rows.push_back({first, 0});
        continue;
      }
      for (uint32_t second : numbers) rows.push_back({first, second});
    }
    return rows;
  }
  std::string columnName(unsigned column) const { return fmt::format("{}.1.{}", table().at, column); }

 private:
  ScalarBehindTheTables behind_;
};
INSTANTIATE_TEST_SUITE_P(All, WireOfEveryTable, testing::ValuesIn(allTablesByAll()), [](const auto& table) {
  return fmt::format("{}_{}", table.param.of.table.name, textOf(table.param.by));
});

TEST_P(WireOfEveryTable, OneTree_GetGetNextGetBulkWalkAndSet) {
  std::vector<RowParts> rows = rowsOf({0, 2147483647u, 2147483648u, 4294967295u});
  std::for_each(rows.rbegin(), rows.rend(), [this](const RowParts& row) { add(row); });
  std::vector<std::string> tree = table().tree(rows);
  expectTree(table().at, tree);
  EXPECT_EQ(agent().getNext({table().instance(table().columns.back().number, rows.back())}), kBehind);
}

TEST_P(WireOfEveryTable, RowsThatAreNotThere) {
  add({5, 5});
  std::string column = columnName(table().columns.back().number);
  std::string row = table().indexText({5, 5});
  std::string value = table().columns.back().value;
  for (std::string absent : {".4", ".4.5", ".5.4", ".5.5.0", ".6", ".4294967295.4294967295"}) {
    EXPECT_EQ(agent().get({column + absent}), column + absent + "=noSuchInstance");
    // Before a handler is asked, net-snmp refuses to create a row under an index that is none.
    bool isIndex = std::count(absent.begin(), absent.end(), '.') == std::ssize(table().index);
    bool asked = table().modes != HANDLER_CAN_RWRITE || isIndex;
    EXPECT_EQ(agent().set(column + absent, 1), asked ? "notWritable(1)" : "noCreation(1)") << absent;
  }
  EXPECT_EQ(agent().getNext({column + ".4"}), column + '.' + row + '=' + value);
  EXPECT_EQ(agent().getNext({column + ".4.9.9"}), column + '.' + row + '=' + value);
  EXPECT_EQ(agent().getNext({column + '.' + row + ".0"}), kBehind);
  EXPECT_EQ(agent().getNext({column + ".6"}), kBehind);
}

TEST_P(WireOfEveryTable, ColumnsThatAreNotServed) {
  add({5, 5});
  std::string row = "." + table().indexText({5, 5});
  const ColumnCase& first = table().columns.front();
  for (unsigned column = 0; column < first.number; ++column) {
    std::string name = columnName(column) + row;
    EXPECT_EQ(agent().get({name}), name + "=noSuchObject");
    EXPECT_EQ(agent().getNext({name}), columnName(first.number) + row + '=' + first.value);
    EXPECT_EQ(agent().set(name, 1), "notWritable(1)") << name;
  }
  std::string beyond = columnName(table().columns.back().number + 1) + row;
  EXPECT_EQ(agent().get({beyond}), beyond + "=noSuchObject");
  EXPECT_EQ(agent().getNext({beyond}), kBehind);
  EXPECT_EQ(agent().set(beyond, 1), "notWritable(1)");
}

TEST_P(WireOfEveryTable, EmptyTable_IsSteppedOver) {
  EXPECT_EQ(agent().getNext({table().at}), kBehind);
  EXPECT_EQ(agent().getNext({columnName(table().columns.front().number) + ".5"}), kBehind);
  add({5, 5});
  table().removeAll(mib());
  EXPECT_EQ(agent().getNext({table().at}), kBehind);
  add({5, 5});
  const ColumnCase& first = table().columns.front();
  EXPECT_EQ(agent().getNext({table().at}), table().instance(first.number, {5, 5}) + '=' + first.value);
}

// --- single ones

TEST_P(WireTest, OneTree_GetGetNextGetBulkWalkAndSet) {
  baIf(7, 1, 3);
  baIf(5, 1, 2);
  reach(5, 1, State::unreachable, 3);
  reach(3, 5, State::unknown, 1.5);
  reach(3, 7, State::disabled, 0.01);
  reach(5, 3, 6, 2);
  expectTree("", {"1.1.2.5=i:1", "1.1.2.7=i:1", "1.1.3.5=i:2", "1.1.3.7=i:3",          //
                  "2.1.3.3.5=i:0", "2.1.3.3.7=i:0", "2.1.3.5.1=i:0", "2.1.3.5.3=i:0",  //
                  "2.1.4.3.5=i:1", "2.1.4.3.7=i:6", "2.1.4.5.1=i:5", "2.1.4.5.3=i:0",  //
                  "2.1.5.3.5=t:150", "2.1.5.3.7=t:1", "2.1.5.5.1=t:300", "2.1.5.5.3=t:200"});
  EXPECT_EQ(agent().getNext({"1.1.3.7"}), "2.1.3.3.5=i:0");
  EXPECT_EQ(agent().getNext({"2.1.5.5.3"}), kBehind);
}

TEST_P(WireTest, ExtremeIndexes_AreServedUnderTheirOwnNames) {
  baIfs({4294967295u, 2147483648u, 0, 2147483647u});
  expectTree("1", {"1.1.2.0=i:1", "1.1.2.2147483647=i:1", "1.1.2.2147483648=i:1", "1.1.2.4294967295=i:1",
                   "1.1.3.0=i:0", "1.1.3.2147483647=i:2147483647", "1.1.3.2147483648=i:-2147483648",
                   "1.1.3.4294967295=i:-1"});
}

TEST_P(WireTest, OneRequestForManyRows_InDescendingOrder) {
  for (uint32_t src : {1, 2, 5}) {
    for (uint32_t dst : {2, 5, 6}) reach(src, dst, static_cast<int>(src - 1));
  }
  EXPECT_EQ(agent().get({"2.1.4.5.5", "2.1.4.2.2", "2.1.4.1.6", "2.1.4.1.2"}),
            "2.1.4.5.5=i:5 2.1.4.2.2=i:2 2.1.4.1.6=i:1 2.1.4.1.2=i:1");
  EXPECT_EQ(agent().getNext({"2.1.4.5.5", "2.1.4.2.2", "2.1.4.1.6", "2.1.4"}),
            "2.1.4.5.6=i:5 2.1.4.2.5=i:2 2.1.4.2.2=i:2 2.1.4.1.2=i:1");
  EXPECT_EQ(agent().getBulk(1, 2, {"2.1.4.5.5", "2.1.4.2.2", "2.1.4.1.2"}),
            "2.1.4.5.6=i:5 2.1.4.2.5=i:2 2.1.4.1.5=i:1 2.1.4.2.6=i:2 2.1.4.1.6=i:1");
}

TEST_P(WireTest, RowsOfBothTablesInOneRequest) {
  baIfs({5, 9});
  reach(1, 2);
  EXPECT_EQ(agent().get({"2.1.4.1.2", "1.1.3.9", "2.1.3.1.2", "1.1.2.5", "1.1.2.6"}),
            "2.1.4.1.2=i:3 1.1.3.9=i:9 2.1.3.1.2=i:0 1.1.2.5=i:1 1.1.2.6=noSuchInstance");
}

TEST_P(WireTest, PartialIndex_GoesToTheFirstRowBehindIt) {
  for (uint32_t src : {2, 3, 4}) {
    for (uint32_t dst : {0, 9}) reach(src, dst);
  }
  EXPECT_EQ(agent().getNext({"2.1.4.3"}), "2.1.4.3.0=i:3");
  EXPECT_EQ(counters(kReachability), counted("2=1 5=2", "direct=1"));
  EXPECT_EQ(agent().getNext({"2.1.4.1"}), "2.1.4.2.0=i:3");
  EXPECT_EQ(agent().getNext({"2.1.3.5"}), "2.1.4.2.0=i:3");
  EXPECT_EQ(agent().getNext({"2.1.5.5"}), kBehind);
  EXPECT_EQ(agent().get({"2.1.4.3"}), "2.1.4.3=noSuchInstance");
}

TEST_P(WireTest, OverlongIndex_GoesToTheRowBehindIt) {
  baIfs({5, 7});
  reach(1, 2);
  reach(1, 3);
  EXPECT_EQ(agent().getNext({"1.1.2.5.0"}), "1.1.2.7=i:1");
  EXPECT_EQ(agent().getNext({"1.1.2.4.9"}), "1.1.2.5=i:1");
  EXPECT_EQ(agent().getNext({"2.1.4.1.2.0"}), "2.1.4.1.3=i:3");
  EXPECT_EQ(agent().getNext({"2.1.4.1.3.4294967295"}), "2.1.5.1.2=t:100");
  EXPECT_EQ(agent().get({"1.1.2.5.0"}), "1.1.2.5.0=noSuchInstance");
  EXPECT_EQ(agent().get({"2.1.4.1.2.0"}), "2.1.4.1.2.0=noSuchInstance");
}

TEST_P(WireTest, ShortNames_GoToTheFirstColumn) {
  baIfs({5});
  for (const char* name : {"", "0", "1", "1.0", "1.1", "1.1.0", "1.1.1", "1.1.1.7", "1.1.2"}) {
    EXPECT_EQ(agent().getNext({name}), "1.1.2.5=i:1") << name;
  }
  EXPECT_EQ(agent().get({"1"}), "1=noSuchObject");
  EXPECT_EQ(agent().get({"1.1"}), "1.1=noSuchObject");
  EXPECT_EQ(agent().get({"1.1.2"}), "1.1.2=noSuchInstance");
}

TEST_P(WireTest, ColumnsThatAreNotServed) {
  baIfs({5});
  reach(1, 2);
  for (const char* name :
       {"1.1.0.5", "1.1.1.5", "1.1.4.5", "1.2.2.5", "2.1.1.1.2", "2.1.2.1.2", "2.1.6.1.2"}) {
    EXPECT_EQ(agent().get({name}), std::string(name) + "=noSuchObject");
  }
  EXPECT_EQ(agent().getNext({"1.1.4"}), "2.1.3.1.2=i:0");
  EXPECT_EQ(agent().getNext({"2.1.6.1.2"}), kBehind);
  EXPECT_EQ(agent().getNext({"2.1.1.1.2"}), "2.1.3.1.2=i:0");
}

TEST_P(WireTest, RowsThatAreNotThere) {
  baIfs({5, 7});
  EXPECT_EQ(agent().get({"1.1.2.6"}), "1.1.2.6=noSuchInstance");
  EXPECT_EQ(counters(kBaIf), counted("0=1 2=1 4=1 5=1", "direct=1"));
  EXPECT_EQ(agent().getNext({"1.1.2.6"}), "1.1.2.7=i:1");
  EXPECT_EQ(counters(kBaIf), counted("0=2 2=2 4=1 5=2", "direct=2"));
}

TEST_P(WireTest, EmptyTables_AreStepppedOver) {
  EXPECT_EQ(agent().getNext({"1"}), kBehind);
  EXPECT_EQ(agent().getNext({"1.1.3.5"}), kBehind);
  EXPECT_EQ(agent().getNext({"2.1.4.1"}), kBehind);
  EXPECT_EQ(agent().get({"1.1.2.5"}), "1.1.2.5=noSuchInstance");
  EXPECT_EQ(agent().getBulk(0, 2, {"1", "2.1.4"}), kBehind + ' ' + kBehind + ' ' + std::string(kScalar) +
                                                       "=endOfMibView " + kScalar + "=endOfMibView");
  baIfs({5});
  EXPECT_EQ(agent().getNext({"1"}), "1.1.2.5=i:1");
  mib().trelIfTableDelAll();
  EXPECT_EQ(agent().getNext({"1"}), kBehind);
}

TEST_P(WireTest, HintOfARow_CostsNoWalk) {
  constexpr uint32_t kMembers = 256;
  for (uint32_t src = 0; src < kMembers; ++src) {
    for (uint32_t dst = 0; dst < kMembers; ++dst) reach(src, dst);
  }
  EXPECT_EQ(agent().get({"2.1.4.200.17", "2.1.5.255.255", "2.1.3.0.0"}),
            "2.1.4.200.17=i:3 2.1.5.255.255=t:100 2.1.3.0.0=i:0");
  EXPECT_EQ(counters(kReachability), counted("1=3", "direct=3"));
  EXPECT_EQ(agent().getNext({"2.1.4.200.17", "2.1.4.99.255"}), "2.1.4.200.18=i:3 2.1.4.100.0=i:3");
  EXPECT_EQ(counters(kReachability), counted("1=5 5=2", "direct=5"));
  agent().getBulk(0, 50, {"2.1.4.128.0"});
  EXPECT_EQ(counters(kReachability), counted("1=55 5=52", "direct=55"));
}

TEST_P(WireTest, RowVanishesDuringAWalk_TheWalkGoesOnBehindIt) {
  baIfs({3, 5, 7, 9});
  std::vector<std::string> seen = agent().walk("1.1.2", [this](const std::string& varbind) {
    if (varbind == "1.1.2.5=i:1") {
      mib().trelIfTableDel(5);
      mib().trelIfTableDel(7);
    }
  });
  EXPECT_EQ(lines(seen), lines({"1.1.2.3=i:1", "1.1.2.5=i:1", "1.1.2.9=i:1"}));
}

TEST_P(WireTest, RowsAppearDuringAWalk_OnlyThoseBehindItAreSeen) {
  baIfs({3, 7});
  std::vector<std::string> seen = agent().walk("1.1.2", [this](const std::string& varbind) {
    if (varbind == "1.1.2.3=i:1") baIfs({1, 5});
  });
  EXPECT_EQ(lines(seen), lines({"1.1.2.3=i:1", "1.1.2.5=i:1", "1.1.2.7=i:1"}));
}

TEST_P(WireTest, ChangedRow_ReadsAnewWithTheNextRequest) {
  reach(1, 3, State::reachable, 1);
  EXPECT_EQ(agent().get({"2.1.4.1.3", "2.1.5.1.3"}), "2.1.4.1.3=i:3 2.1.5.1.3=t:100");
  mib().trelReachabilityTableDel({1, 3});
  EXPECT_EQ(agent().get({"2.1.4.1.3"}), "2.1.4.1.3=noSuchInstance");
  reach(1, 3, State::unreachable, 60);
  EXPECT_EQ(agent().get({"2.1.4.1.3", "2.1.5.1.3"}), "2.1.4.1.3=i:5 2.1.5.1.3=t:6000");
}

// Removes every row as soon as a number is converted; the row that is being answered has to survive it.
class RowsVanishWithinARequest {
 public:
  RowsVanishWithinARequest(TrelSnmp::TrelMib& mib, uint32_t trigger) {
    victim() = &mib;
    number() = trigger;
  }

 private:
  static TrelSnmp::TrelMib*& victim() {
    static TrelSnmp::TrelMib* mib = nullptr;
    return mib;
  }
  static uint32_t& number() {
    static uint32_t trigger = 0;
    return trigger;
  }
  static int convert(const uint32_t& value, unsigned char* buffer, int capacity) {
    if (value == number()) victim()->trelIfTableDelAll();
    return Snmp::U32ToAsnUnsignedF::convert(value, buffer, capacity);
  }
  Snmp::ConversionOverride<Snmp::U32ToAsnUnsignedF> substitute_{&convert};
};

TEST_P(WireTest, RowVanishesWithinItsRequest_ItIsServedAsItWas) {
  // The index is converted by the chain only, the value by both.
  for (uint32_t trigger : {5, 12}) {
    if (trigger == 5 && GetParam() == By::direct) continue;
    baIf(5, 11, 12);
    baIf(6, 13, 14);
    RowsVanishWithinARequest vanishing(mib(), trigger);
    EXPECT_EQ(agent().get({"1.1.3.5", "1.1.3.6"}), "1.1.3.5=i:12 1.1.3.6=noSuchInstance");
  }
}

TEST_P(WireTest, RowVanishesWithinAWalkThroughIt_TheWalkEndsCleanly) {
  for (uint32_t trigger : {6, 13}) {
    baIf(5, 11, 12);
    baIf(6, 13, 14);
    baIf(7, 15, 16);
    RowsVanishWithinARequest vanishing(mib(), trigger);
    EXPECT_EQ(agent().getBulk(0, 2, {"1.1.2.5"}), "1.1.2.6=i:13 " + kBehind);
  }
}

TEST_P(WireTest, HintedRowVanishes_TheWalkEndsCleanly) {
  baIf(5, 11, 12);
  baIf(6, 13, 14);
  RowsVanishWithinARequest vanishing(mib(), 5);
  EXPECT_EQ(agent().getNext({"1.1.2.5"}), GetParam() == By::chain ? kBehind : "1.1.2.6=i:13");
  EXPECT_EQ(counters(kBaIf), counted("1=1 2=1 4=1", "direct=1"));
}

TEST_P(WireTest, FailedConversion_IsGenErrForTheWholeRequest) {
  baIf(5, 1, 77);
  baIf(6, 1, 78);
  Snmp::ConversionOverride<Snmp::U32ToAsnUnsignedF> failing(
      [](const uint32_t& value, unsigned char* buffer, int capacity) {
        return value == 77 ? -1 : Snmp::U32ToAsnUnsignedF::convert(value, buffer, capacity);
      });
  EXPECT_EQ(agent().get({"1.1.3.5"}), "genErr(1)");
  EXPECT_EQ(agent().get({"1.1.2.5", "1.1.3.6", "1.1.3.5"}), "genErr(3)");
  EXPECT_EQ(agent().getNext({"1.1.2.6"}), "genErr(1)");
  EXPECT_EQ(agent().get({"1.1.3.6"}), "1.1.3.6=i:78");
}

TEST_P(WireTest, FailedTimeConversion_IsGenErr) {
  reach(1, 2);
  Snmp::ConversionOverride<Snmp::UtcSecondsToUptimeTimeTicksF> failing(
      [](const Zavro::Duration& /*value*/, unsigned char* /*buffer*/, int /*capacity*/) { return -1; });
  EXPECT_EQ(agent().get({"2.1.5.1.2"}), "genErr(1)");
  EXPECT_EQ(agent().get({"2.1.4.1.2"}), "2.1.4.1.2=i:3");
}

TEST_P(WireTest, IndexThatCannotBeConverted_HidesItsRowOnly) {
  baIf(5, 1, 2);
  baIf(77, 3, 4);
  baIf(90, 5, 6);
  Snmp::ConversionOverride<Snmp::U32ToAsnUnsignedF> failing(
      [](const uint32_t& value, unsigned char* buffer, int capacity) {
        return value == 77 ? -1 : Snmp::U32ToAsnUnsignedF::convert(value, buffer, capacity);
      });
  EXPECT_EQ(lines(agent().walk("1.1.2")), lines({"1.1.2.5=i:1", "1.1.2.90=i:5"}));
}

TEST_P(WireTest, Set_IsNotWritableWhereverItGoes) {
  baIf(5);
  for (const char* name : {"1.1.2.5", "1.1.1.5", "1.1.2.6", "2.1.4.1.2", "2.1.4"}) {
    EXPECT_EQ(agent().set(name, 1), "notWritable(1)") << name;
  }
  EXPECT_EQ(agent().get({"1.1.2.5"}), "1.1.2.5=i:1");
}

TEST_P(WireTest, ColumnsEnd_NextColumnStartsAtTheFirstRowWithoutAHint) {
  baIfs({5, 7});
  TraceLog log({"veldaTrelMIB"});  // by the chain, whatever the toggle
  EXPECT_EQ(agent().getNext({"1.1.2.7"}), "1.1.3.5=i:5");
  EXPECT_TRUE(log.contains(
      "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - *hint = 0x0, number_indexes = 0"));
  EXPECT_EQ(counters(kBaIf), "1=1 2=1 4=1");
}

TEST_P(WireTest, UptimeBeforeTheAgentStarted_IsZero) {
  reach(1, 2, State::reachable, -5);
  EXPECT_EQ(agent().get({"2.1.5.1.2"}), "2.1.5.1.2=t:0");
}

}  // namespace
}  // namespace SnmpTest
