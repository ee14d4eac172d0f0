// The iterator callbacks of the tables, called one by one.
#include <gtest/gtest.h>

#include "Callbacks.h"
#include "ModuleTest.h"

namespace SnmpTest {
namespace {

using CallbackTest = TracedModuleTest;

// --- get_first_data_point

TEST_F(CallbackTest, HintOfARow_WalkStartsThere) {
  baIf(5);
  baIf(7);
  DirectWalk walk(kBaIfName);
  EXPECT_EQ(walk.first({{7}}), "7");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - *hint = A, number_indexes = 1\n"
            "veldaTrelMIB/2 hint component veldaTrelBaIfIndex is '7'\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - allocated new loop context B, "
            "hintMatched=true\n"
            "veldaTrelMIB/2 veldaTrelBaIfTableIterationHelper - iterator has another value: baIfIndex=7\n");
  EXPECT_EQ(counters(kBaIf), "1=1");
}

TEST_F(CallbackTest, HintOfAPair_BothComponentsAreTracedAndWritten) {
  reach(3, 5);
  reach(5, 3);
  DirectWalk walk(kReachabilityName);
  EXPECT_EQ(walk.first({{5}, {3}}), "5.3");
  EXPECT_EQ(
      golden(log),
      "veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - *hint = A, number_indexes = 2\n"
      "veldaTrelMIB/2 hint component veldaTrelReachabilitySrcId is '5'\n"
      "veldaTrelMIB/2 hint component veldaTrelReachabilityDestId is '3'\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - allocated new loop context B, "
      "hintMatched=true\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTableIterationHelper - iterator has another value: srcId=5\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTableIterationHelper - iterator has another value: dstId=3\n");
  EXPECT_EQ(counters(kReachability), "1=1");
}

TEST_F(CallbackTest, NoHint_WalkStartsAtTheFirstRow) {
  baIf(5);
  DirectWalk walk(kBaIfName);
  EXPECT_EQ(walk.first(), "5");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - *hint = 0x0, number_indexes = 0\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - allocated new loop context A, "
            "hintMatched=false\n"
            "veldaTrelMIB/2 veldaTrelBaIfTableIterationHelper - iterator has another value: baIfIndex=5\n");
  EXPECT_EQ(counters(kBaIf), "2=1");
}

TEST_F(CallbackTest, EmptyTable_ContextIsMadeAllTheSame) {
  DirectWalk walk(kBaIfName);
  EXPECT_EQ(walk.first(), "end");
  EXPECT_NE(walk.loopContext(), nullptr);
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - *hint = 0x0, number_indexes = 0\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - allocated new loop context A, "
            "hintMatched=false\n"
            "veldaTrelMIB/2 veldaTrelBaIfTableIterationHelper - iterator is at end\n");
  EXPECT_EQ(counters(kBaIf), "2=1");
}

TEST_F(CallbackTest, HintOfNoRow_IsSaidAndWalkStartsAtTheFirstRow) {
  baIf(5);
  reach(1, 2);
  DirectWalk baIfWalk(kBaIfName);
  EXPECT_EQ(baIfWalk.first({{6}}), "5");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - key '6' not found in table"));
  EXPECT_EQ(counters(kBaIf), "0=1 2=1");

  DirectWalk reachabilityWalk(kReachabilityName);
  EXPECT_EQ(reachabilityWalk.first({{2}, {1}}), "1.2");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - "
                   "key '(firstId=2, secondId=1)' not found in table"));
  EXPECT_EQ(counters(kReachability), "0=1 2=1");
}

TEST_F(CallbackTest, HintWithAnotherCount_IsPassedOverWithoutAWord) {
  reach(1, 2);
  for (unsigned count : {0u, 1u, 3u}) {
    DirectWalk walk(kReachabilityName);
    EXPECT_EQ(walk.first(TableRequest({{1}, {2}}, count).info()), "1.2");
    EXPECT_EQ(golden(log),
              fmt::format("veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - *hint = A, "
                          "number_indexes = {}\n"
                          "veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - allocated new "
                          "loop context B, hintMatched=false\n"
                          "veldaTrelMIB/2 veldaTrelReachabilityTableIterationHelper - iterator has another "
                          "value: srcId=1\n"
                          "veldaTrelMIB/2 veldaTrelReachabilityTableIterationHelper - iterator has another "
                          "value: dstId=2\n",
                          count));
    walk.freeLoop();
    log.clear();
  }
  EXPECT_EQ(counters(kReachability), "2=3");
}

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

TEST_F(CallbackTest, FirstComponentOfAnotherType_TheSecondIsStillLookedAt) {
  reach(1, 2);
  DirectWalk walk(kReachabilityName);
  EXPECT_EQ(walk.first({{1, ASN_UNSIGNED}, {2}}), "1.2");
  EXPECT_EQ(
      golden(log),
      "veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - *hint = A, number_indexes = 2\n"
      "veldaTrelMIB/0 hint for veldaTrelReachabilitySrcId has incorrect type! Expecting 2 but got 66\n"
      "veldaTrelMIB/2 hint component veldaTrelReachabilityDestId is '2'\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - needed 2 components, found only 1\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - allocated new loop context B, "
      "hintMatched=false\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTableIterationHelper - iterator has another value: srcId=1\n"
      "veldaTrelMIB/2 veldaTrelReachabilityTableIterationHelper - iterator has another value: dstId=2\n");
  EXPECT_EQ(counters(kReachability), "2=1");
}

TEST_F(CallbackTest, ComponentsOfOtherTypes_EachIsNamed) {
  DirectWalk baIfWalk(kBaIfName);
  baIfWalk.first({{5, ASN_OCTET_STR}});
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/0 hint for veldaTrelBaIfIndex has incorrect type! Expecting 2 but got 4"));
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - needed 1 components, found only "
                   "0"));
  DirectWalk reachabilityWalk(kReachabilityName);
  reachabilityWalk.first({{1}, {2, ASN_COUNTER}});
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/0 hint for veldaTrelReachabilityDestId has incorrect type! Expecting 2 but "
                   "got 65"));
}

TEST_F(CallbackTest, ComponentOutOfRange_IsSaidAndHintIsShort) {
  baIf(5);
  reach(1, 2);
  DirectWalk baIfWalk(kBaIfName);
  EXPECT_EQ(baIfWalk.first({{-1}}), "5");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - *hint = A, number_indexes = 1\n"
            "veldaTrelMIB/0 hint for index veldaTrelBaIfIndex of veldaTrelBaIfTable is out of range!-1 does "
            "not fit an unsigned 32-bit number\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - needed 1 components, found only 0\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_first_data_point - allocated new loop context B, "
            "hintMatched=false\n"
            "veldaTrelMIB/2 veldaTrelBaIfTableIterationHelper - iterator has another value: baIfIndex=5\n");
  EXPECT_EQ(counters(kBaIf), "2=1");

  DirectWalk reachabilityWalk(kReachabilityName);
  EXPECT_EQ(reachabilityWalk.first({{4294967296}, {2}}), "1.2");
  EXPECT_TRUE(log.contains(
      "veldaTrelMIB/0 hint for index veldaTrelReachabilitySrcId of veldaTrelReachabilityTable is "
      "out of range!4294967296 does not fit an unsigned 32-bit number"));
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - needed 2 components, "
                   "found only 0"));
  log.clear();
  EXPECT_EQ(reachabilityWalk.first({{1}, {-2147483648}}), "1.2");
  EXPECT_TRUE(log.contains(
      "veldaTrelMIB/0 hint for index veldaTrelReachabilityDestId of veldaTrelReachabilityTable is "
      "out of range!-2147483648 does not fit an unsigned 32-bit number"));
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelReachabilityTable_get_first_data_point - needed 2 components, "
                   "found only 1"));
  EXPECT_EQ(counters(kReachability), "2=2");
}

TEST_F(CallbackTest, LargestIndexes_AreWrittenWithoutASign) {
  reach(4294967295u, 2147483648u);
  DirectWalk walk(kReachabilityName);
  EXPECT_EQ(walk.first({{4294967295}, {2147483648}}), "4294967295.2147483648");
  EXPECT_EQ(counters(kReachability), "1=1");
}

// --- get_next_data_point

TEST_F(CallbackTest, Next_GoesInKeyOrderToTheEnd) {
  reach(5, 1);
  reach(3, 7);
  reach(3, 5);
  DirectWalk walk(kReachabilityName);
  walk.first();
  EXPECT_EQ(walk.next(), "3.7");
  EXPECT_EQ(walk.next(), "5.1");
  EXPECT_EQ(walk.next(), "end");
  EXPECT_EQ(counters(kReachability), "2=1 4=1 5=2");
  EXPECT_EQ(walk.next(), "end");
  EXPECT_EQ(counters(kReachability), "2=1 3=1 4=1 5=2");
}

TEST_F(CallbackTest, Next_IsTraced) {
  baIf(5);
  baIf(7);
  DirectWalk walk(kBaIfName);
  walk.first();
  log.clear();
  walk.next();
  walk.next();
  walk.next();
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_next_data_point - advancing loop context A ; data context "
            "0x0\n"
            "veldaTrelMIB/2 veldaTrelBaIfTableIterationHelper - iterator has another value: baIfIndex=7\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_next_data_point - advancing loop context A ; data context "
            "0x0\n"
            "veldaTrelMIB/2 veldaTrelBaIfTableIterationHelper - iterator is at end\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_get_next_data_point - at end of loop context A\n");
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
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{3, data}}), "0: 2:4");
  walk.next();
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{3, data}}), "0: untouched");
}

// --- data and loop contexts

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
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, data}}), "0: 2:1");
  log.clear();
  walk.freeData(data);
  EXPECT_EQ(golden(log), "veldaTrelMIB/2 veldaTrelBaIfTable_free_data_context A\n");
  EXPECT_EQ(row->useCount(), 1u);
}

TEST_F(CallbackTest, AbsentContexts_AreFreedWithATraceOnly) {
  for (const char* name : {kBaIfName, kReachabilityName}) {
    DirectWalk walk(name);
    walk.info()->free_data_context(nullptr, walk.info());
    walk.info()->free_loop_context_at_end(nullptr, walk.info());
  }
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_free_data_context 0x0\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_free_loop_context_at_end 0x0\n"
            "veldaTrelMIB/2 veldaTrelReachabilityTable_free_data_context 0x0\n"
            "veldaTrelMIB/2 veldaTrelReachabilityTable_free_loop_context_at_end 0x0\n");
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
