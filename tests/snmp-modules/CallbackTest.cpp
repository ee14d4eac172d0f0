// The iterator callbacks of the tables, called one by one.
#include <gtest/gtest.h>

#include "tests/snmp-modules/ModuleTest.h"

namespace SnmpTest {
namespace {

// --- every table

// Two rows, in key order in every table.
constexpr RowParts kFirst = {5, 9};
constexpr RowParts kSecond = {7, 8};

class CallbackOfEveryTable : public EveryTableTest {
 protected:
  size_t indexes() const { return table().index.size(); }
  std::vector<Component> hint(const RowParts& row) const {
    std::vector<Component> components;
    for (size_t i = 0; i < indexes(); ++i) components.push_back({row[i], table().index[i].type});
    return components;
  }

  std::string hintLine(size_t count) const {
    return own(2, fmt::format("_get_first_data_point - *hint = A, number_indexes = {}", count));
  }
  std::string componentLine(size_t i, const RowParts& row) const {
    return line(2, fmt::format("hint component {} is '{}'", table().index[i].column, row[i]));
  }
  std::string componentLines(const RowParts& row) const {
    std::string all;
    for (size_t i = 0; i < indexes(); ++i) all += componentLine(i, row);
    return all;
  }
  std::string shortOfComponentsLine(size_t found) const {
    return own(2,
               fmt::format("_get_first_data_point - needed {} components, found only {}", indexes(), found));
  }
  std::string contextLine(const char* address, bool hintMatched) const {
    return own(2, fmt::format("_get_first_data_point - allocated new loop context {}, hintMatched={}",
                              address, hintMatched));
  }
  std::string rowLines(const RowParts& row) const {
    std::string all;
    for (size_t i = 0; i < indexes(); ++i) {
      all += own(2, fmt::format("IterationHelper - iterator has another value: {}={}", table().index[i].field,
                                row[i]));
    }
    return all;
  }
  std::string endLine() const { return own(2, "IterationHelper - iterator is at end"); }
};
INSTANTIATE_TEST_SUITE_P(All, CallbackOfEveryTable, testing::ValuesIn(allTables()), nameOf);

TEST_P(CallbackOfEveryTable, HintOfARow_WalkStartsThere) {
  add(kFirst);
  add(kSecond);
  DirectWalk walk(table().at);
  EXPECT_EQ(walk.first(hint(kSecond)), table().indexText(kSecond));
  EXPECT_EQ(golden(log),
            hintLine(indexes()) + componentLines(kSecond) + contextLine("B", true) + rowLines(kSecond));
  EXPECT_EQ(counters(), "1=1");
}

TEST_P(CallbackOfEveryTable, NoHint_WalkStartsAtTheFirstRow) {
  add(kFirst);
  DirectWalk walk(table().at);
  EXPECT_EQ(walk.first(), table().indexText(kFirst));
  EXPECT_EQ(golden(log), own(2, "_get_first_data_point - *hint = 0x0, number_indexes = 0") +
                             contextLine("A", false) + rowLines(kFirst));
  EXPECT_EQ(counters(), "2=1");
}

TEST_P(CallbackOfEveryTable, EmptyTable_ContextIsMadeAllTheSame) {
  DirectWalk walk(table().at);
  EXPECT_EQ(walk.first(), "end");
  EXPECT_NE(walk.loopContext(), nullptr);
  EXPECT_EQ(golden(log), own(2, "_get_first_data_point - *hint = 0x0, number_indexes = 0") +
                             contextLine("A", false) + endLine());
  EXPECT_EQ(counters(), "2=1");
}

TEST_P(CallbackOfEveryTable, HintOfNoRow_IsSaidAndWalkStartsAtTheFirstRow) {
  add(kFirst);
  DirectWalk walk(table().at);
  EXPECT_EQ(walk.first(hint(kSecond)), table().indexText(kFirst));
  EXPECT_EQ(golden(log), hintLine(indexes()) + componentLines(kSecond) +
                             own(2, fmt::format("_get_first_data_point - key '{}' not found in table",
                                                table().keyText(kSecond))) +
                             contextLine("B", false) + rowLines(kFirst));
  EXPECT_EQ(counters(), "0=1 2=1");
}

TEST_P(CallbackOfEveryTable, HintWithAnotherCount_IsPassedOverWithoutAWord) {
  add(kFirst);
  for (unsigned count : {0u, 1u, 2u, 3u}) {
    if (count == indexes()) continue;
    DirectWalk walk(table().at);
    EXPECT_EQ(walk.first(TableRequest(hint(kFirst), count).info()), table().indexText(kFirst));
    EXPECT_EQ(golden(log), hintLine(count) + contextLine("B", false) + rowLines(kFirst));
    walk.freeLoop();
    log.clear();
  }
  EXPECT_EQ(counters(), "2=3");
}

// A member's processors are numbered in Unsigned32, so that an INTEGER there is another type.
TEST_P(CallbackOfEveryTable, ComponentOfAnotherType_IsNamedAndTheOtherIsStillLookedAt) {
  add(kFirst);
  for (size_t wrong = 0; wrong < indexes(); ++wrong) {
    u_char expected = table().index[wrong].type;
    u_char given = expected == ASN_INTEGER ? ASN_UNSIGNED : ASN_INTEGER;
    std::vector<Component> components = hint(kFirst);
    components[wrong].type = given;
    std::string examined;
    for (size_t i = 0; i < indexes(); ++i) {
      examined += i != wrong ? componentLine(i, kFirst)
                             : line(0, fmt::format("hint for {} has incorrect type! Expecting {} but got {}",
                                                   table().index[i].column, expected, given));
    }
    DirectWalk walk(table().at);
    EXPECT_EQ(walk.first(components), table().indexText(kFirst));
    EXPECT_EQ(golden(log), hintLine(indexes()) + examined + shortOfComponentsLine(indexes() - 1) +
                               contextLine("B", false) + rowLines(kFirst));
    walk.freeLoop();
    log.clear();
  }
}

TEST_P(CallbackOfEveryTable, ComponentOutOfRange_IsSaidAndHintIsShort) {
  add(kFirst);
  for (long beyond : {-1L, -2147483648L, 4294967296L}) {
    for (size_t wrong = 0; wrong < indexes(); ++wrong) {
      std::vector<Component> components = hint(kFirst);
      components[wrong].value = beyond;
      std::string examined;
      for (size_t i = 0; i < wrong; ++i) examined += componentLine(i, kFirst);
      examined += line(0, fmt::format("hint for index {} of {} is out of range!{} does not fit an unsigned "
                                      "32-bit number",
                                      table().index[wrong].column, table().name, beyond));
      DirectWalk walk(table().at);
      EXPECT_EQ(walk.first(components), table().indexText(kFirst));
      EXPECT_EQ(golden(log), hintLine(indexes()) + examined + shortOfComponentsLine(wrong) +
                                 contextLine("B", false) + rowLines(kFirst));
      walk.freeLoop();
      log.clear();
    }
  }
}

TEST_P(CallbackOfEveryTable, LargestIndexes_AreWrittenWithoutASign) {
  constexpr RowParts kLargest = {4294967295u, 2147483648u};
  add(kLargest);
  DirectWalk walk(table().at);
  EXPECT_EQ(walk.first(hint(kLargest)), table().indexText(kLargest));
  EXPECT_EQ(counters(), "1=1");
}

TEST_P(CallbackOfEveryTable, Next_GoesInKeyOrderToTheEnd) {
  add(kSecond);
  add(kFirst);
  DirectWalk walk(table().at);
  EXPECT_EQ(walk.first(), table().indexText(kFirst));
  log.clear();
  EXPECT_EQ(walk.next(), table().indexText(kSecond));
  EXPECT_EQ(walk.next(), "end");
  EXPECT_EQ(counters(), "2=1 4=1 5=1");
  EXPECT_EQ(walk.next(), "end");
  EXPECT_EQ(counters(), "2=1 3=1 4=1 5=1");
  std::string advancing = own(2, "_get_next_data_point - advancing loop context A ; data context 0x0");
  EXPECT_EQ(golden(log), advancing + rowLines(kSecond) + advancing + endLine() +
                             own(2, "_get_next_data_point - at end of loop context A"));
}

TEST_P(CallbackOfEveryTable, DataContext_OutlivesLoopAndRow) {
  add(kFirst);
  DirectWalk walk(table().at);
  walk.first();
  log.clear();
  void* data = walk.makeData();
  EXPECT_EQ(golden(log), own(2, "_make_data_context - allocated data context A"));
  walk.freeLoop();
  EXPECT_EQ(golden(log), own(2, "_free_loop_context_at_end A"));
  table().removeAll(mib());
  const ColumnCase& column = table().columns.back();
  EXPECT_EQ(handle(table().served().handler, MODE_GET, {{column.number, data}}),
            fmt::format("0: {}", column.value));
  log.clear();
  walk.freeData(data);
  EXPECT_EQ(golden(log), own(2, "_free_data_context A"));
}

TEST_P(CallbackOfEveryTable, AbsentContexts_AreFreedWithATraceOnly) {
  DirectWalk walk(table().at);
  walk.info()->free_data_context(nullptr, walk.info());
  walk.info()->free_loop_context_at_end(nullptr, walk.info());
  EXPECT_EQ(golden(log), own(2, "_free_data_context 0x0") + own(2, "_free_loop_context_at_end 0x0"));
}

// --- what one table stands for

using CallbackTest = TracedModuleTest;

TEST_F(CallbackTest, HintThatClaimsMoreThanItHolds_IsShortOfComponents) {
  reach(1, 2);
  DirectWalk walk(kReachabilityName);
  EXPECT_EQ(walk.first(TableRequest({{1}}, 2).info()), "1.2");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - needed 2 components, "
                   "found only 1"));
  EXPECT_EQ(walk.first(TableRequest({}, 2).info()), "1.2");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - needed 2 components, "
                   "found only 0"));
}

TEST_F(CallbackTest, NextWithoutALoopContext_IsAtTheEnd) {
  DirectWalk walk(kBaIfName);
  EXPECT_EQ(walk.next(), "end");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_next_data_point - at end of loop context 0x0\n");
  EXPECT_EQ(counters(kBaIf), "3=1");
}

TEST_F(CallbackTest, RowIsRemovedUnderAWalk_ItGoesOnAtTheNextGreaterKey) {
  for (uint32_t ifIndex : {3, 5, 7, 9}) baIf(ifIndex);
  DirectWalk walk(kBaIfName);
  EXPECT_EQ(walk.first({{5}}), "5");
  mib().trelIfTableDel(5);
  EXPECT_EQ(walk.next(), "7");
  mib().trelIfTableDel(7);
  baIf(8);
  baIf(7);  // Again, as another row: not greater than the one that was there.
  EXPECT_EQ(walk.next(), "8");
  EXPECT_EQ(walk.next(), "9");
  mib().trelIfTableDelAll();
  EXPECT_EQ(walk.next(), "end");
  EXPECT_EQ(counters(kBaIf), "1=1 4=1 5=3");
}

TEST_F(CallbackTest, RowIsAddedInFrontOfAWalk_ItIsNotMissed) {
  reach(1, 2);
  reach(1, 4);
  DirectWalk walk(kReachabilityName);
  EXPECT_EQ(walk.first(), "1.2");
  reach(1, 3);
  reach(1, 1);
  EXPECT_EQ(walk.next(), "1.3");
  EXPECT_EQ(walk.next(), "1.4");
  reach(2, 0);
  EXPECT_EQ(walk.next(), "2.0");
  EXPECT_EQ(walk.next(), "end");
}

TEST_F(CallbackTest, PassedDataContext_FollowsTheWalk) {
  baIf(5, 1, 2);
  baIf(7, 3, 4);
  DirectWalk walk(kBaIfName);
  walk.first();
  void* data = walk.makeData(/*passOn=*/true);
  log.clear();
  walk.next();
  EXPECT_TRUE(golden(log).starts_with(
      "veldaTrelMIB/2 veldaTrelBaIfTable_get_next_data_point - advancing loop context A ; data context B\n"));
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{3, data}}), "0: i:4");
  walk.next();
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{3, data}}), "0: untouched");
}

TEST_F(CallbackTest, DataContext_HoldsItsRowAlone) {
  baIf(5, 1, 2);
  Zavro::Ptr<const TrelSnmp::TrelIfEntry> row = mib().trelIfTable(5);
  uint32_t holders = row->useCount();
  DirectWalk walk(kBaIfName);
  walk.first();
  EXPECT_EQ(row->useCount(), holders + 1);
  log.clear();
  void* data = walk.makeData();
  EXPECT_EQ(golden(log), "veldaTrelMIB/2 veldaTrelBaIfTable_make_data_context - allocated data context A\n");
  EXPECT_EQ(row->useCount(), holders + 2);
  walk.freeLoop();
  EXPECT_EQ(golden(log), "veldaTrelMIB/2 veldaTrelBaIfTable_free_loop_context_at_end A\n");
  EXPECT_EQ(row->useCount(), holders + 1);
  mib().trelIfTableDel(5);
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, data}}), "0: i:1");
  log.clear();
  walk.freeData(data);
  EXPECT_EQ(golden(log), "veldaTrelMIB/2 veldaTrelBaIfTable_free_data_context A\n");
  EXPECT_EQ(row->useCount(), 1u);
}

// --- tracing costs nothing while it is off

TEST_F(CallbackTest, LevelOne_LeavesOutThePerRequestLines) {
  Lumalog::levelIs("veldaTrelMIB", 1);
  baIf(5);
  DirectWalk walk(kBaIfName);
  walk.first({{5, ASN_UNSIGNED}});
  walk.next();
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/0 hint for veldaTrelBaIfIndex has incorrect type! Expecting 2 but got 66\n");
}

}  // namespace
}  // namespace SnmpTest
