// The handlers of the tables, called with requests made by hand.
#include <gtest/gtest.h>

#include "Callbacks.h"
#include "ModuleTest.h"
#include "ReachabilityStateToAsnUnsigned.h"

namespace SnmpTest {
namespace {

using HandlerTest = TracedModuleTest;

// Fails for the value 77, so that an index can still be written.
int failingFor77(const uint32_t& value, unsigned char* buffer, int capacity) {
  return value == 77 ? -1 : Snmp::U32ToAsnUnsignedF::convert(value, buffer, capacity);
}

// A data context of the first row of a table.
class RowContext {
 public:
  explicit RowContext(const std::string& table) : walk_(table) {
    walk_.first();
    data_ = walk_.makeData();
  }
  ~RowContext() { walk_.freeData(data_); }
  RowContext(const RowContext&) = delete;
  RowContext& operator=(const RowContext&) = delete;
  void* get() const { return data_; }

 private:
  DirectWalk walk_;
  void* data_;
};

TEST_F(HandlerTest, Get_ServesEveryColumnWithItsType) {
  baIf(5, 11, 12);
  reach(1, 2, State::degraded, 2.5);
  RowContext link(kBaIfName);
  RowContext pair(kReachabilityName);
  log.clear();
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, link.get()}, {3, link.get()}}),
            "0: 2:11 2:12");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request mode 160\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request GET for column veldaTrelBaIfLocalMemberId, "
            "key 5\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request GET for column veldaTrelBaIfRemoteMemberId, "
            "key 5\n");
  EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET,
                   {{3, pair.get()}, {4, pair.get()}, {5, pair.get()}}),
            "0: 2:0 2:4 67:250");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelReachabilityTable_handler\n"
            "veldaTrelMIB/2 veldaTrelReachabilityTable_handler: request mode 160\n"
            "veldaTrelMIB/2 veldaTrelReachabilityTable_handler: request GET for column "
            "veldaTrelReachabilityBaIfIndex, key (firstId=1, secondId=2)\n"
            "veldaTrelMIB/2 veldaTrelReachabilityTable_handler: request GET for column "
            "veldaTrelReachabilityState, key (firstId=1, secondId=2)\n"
            "veldaTrelMIB/2 veldaTrelReachabilityTable_handler: request GET for column "
            "veldaTrelReachabilityLastUpdate, key (firstId=1, secondId=2)\n");
}

TEST_F(HandlerTest, ProcessedRequests_AreSkipped) {
  baIf(5, 11, 12);
  RowContext link(kBaIfName);
  log.clear();
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, link.get(), true}, {3, link.get()}}),
            "0: untouched 2:12");
  EXPECT_EQ(golden(log),
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request mode 160\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request A already processed\n"
            "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request GET for column veldaTrelBaIfRemoteMemberId, "
            "key 5\n");
}

TEST_F(HandlerTest, RequestWithoutARow_EndsTheCallWithSuccess) {
  reach(1, 2);
  RowContext pair(kReachabilityName);
  log.clear();
  EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET, {{4, pair.get()}, {4}, {4, pair.get()}}),
            "0: 2:3 untouched untouched");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 veldaTrelReachabilityTable_handler: null data context in request"));
}

TEST_F(HandlerTest, UnknownColumn_IsNoSuchObjectAndEndsTheCall) {
  baIf(5, 11, 12);
  reach(1, 2);
  RowContext link(kBaIfName);
  RowContext pair(kReachabilityName);
  for (unsigned column : {0u, 1u, 4u}) {
    EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{column, link.get()}, {3, link.get()}}),
              "0: noSuchObject untouched");
    EXPECT_TRUE(log.contains(fmt::format("veldaTrelMIB/0 veldaTrelBaIfTable invalid column {}", column)));
  }
  for (unsigned column : {1u, 2u, 6u}) {
    EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET, {{column, pair.get()}}),
              "0: noSuchObject");
    EXPECT_TRUE(
        log.contains(fmt::format("veldaTrelMIB/0 veldaTrelReachabilityTable invalid column {}", column)));
  }
}

TEST_F(HandlerTest, FailedConversion_IsGenErrAndEndsTheCall) {
  baIf(5, 77, 77);
  RowContext link(kBaIfName);
  Snmp::Substitute<Snmp::U32ToAsnUnsignedF> failing(&failingFor77);
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, link.get()}, {3, link.get()}}),
            "5: error 5 untouched");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 handle_veldaTrelBaIfTable - U32ToAsnUnsigned failed for: localMemberId"));
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{3, link.get()}}), "5: error 5");
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 handle_veldaTrelBaIfTable - U32ToAsnUnsigned failed for: remoteMemberId"));
}

TEST_F(HandlerTest, FailedConversionOfReachability_NamesOperationAndField) {
  reach(1, 2);
  RowContext pair(kReachabilityName);
  Snmp::Substitute<Snmp::U32ToAsnUnsignedF> numbers(
      [](const uint32_t& /*value*/, unsigned char* /*buffer*/, int /*capacity*/) { return -1; });
  Snmp::Substitute<Snmp::UtcSecondsToUptimeTimeTicksF> times(
      [](const Zavro::Duration& /*value*/, unsigned char* /*buffer*/, int /*capacity*/) { return -2; });
  for (unsigned column : {3u, 4u, 5u}) {
    EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET, {{column, pair.get()}}), "5: error 5");
  }
  EXPECT_TRUE(log.contains(
      "veldaTrelMIB/2 handle_veldaTrelReachabilityTable - U32ToAsnUnsigned failed for: baIfIndex"));
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 handle_veldaTrelReachabilityTable - ReachabilityStateToAsnUnsigned failed "
                   "for: reachabilityState"));
  EXPECT_TRUE(
      log.contains("veldaTrelMIB/2 handle_veldaTrelReachabilityTable - UtcSecondsToUptimeTimeTicks failed "
                   "for: lastUpdated"));
}

TEST_F(HandlerTest, ConversionsGetTheWholeBuffer) {
  baIf(5, 1, 2);
  RowContext link(kBaIfName);
  Snmp::Substitute<Snmp::U32ToAsnUnsignedF> capacityAsValue(
      [](const uint32_t& /*value*/, unsigned char* buffer, int capacity) {
        return Snmp::U32ToAsnUnsignedF::convert(static_cast<uint32_t>(capacity), buffer, capacity);
      });
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, link.get()}}), "0: 2:1024");
}

TEST_F(HandlerTest, AnyOtherMode_IsNotWritableForTheFirstUnprocessedRequest) {
  baIf(5);
  reach(1, 2);
  RowContext link(kBaIfName);
  log.clear();
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_SET_RESERVE1,
                   {{2, link.get(), true}, {3, link.get()}, {2, link.get()}}),
            "0: untouched error 17 untouched");
  EXPECT_EQ(golden(log),
            fmt::format("veldaTrelMIB/2 veldaTrelBaIfTable_handler\n"
                        "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request mode {}\n"
                        "veldaTrelMIB/2 veldaTrelBaIfTable_handler: request A already processed\n"
                        "veldaTrelMIB/0 veldaTrelBaIfTable invalid column 3\n",
                        MODE_SET_RESERVE1));
  for (int mode : std::vector<int>{MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION, MODE_SET_COMMIT,
                                   MODE_SET_FREE, MODE_SET_UNDO, MODE_GETNEXT}) {
    EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, mode, {{4}}), "0: error 17");
    EXPECT_EQ(log.count("veldaTrelMIB/0 veldaTrelReachabilityTable invalid column 4"), 1u);
    log.clear();
  }
}

TEST_F(HandlerTest, AllRequestsProcessed_Succeeds) {
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, nullptr, true}}), "0: untouched");
  EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_SET_ACTION, {{2, nullptr, true}}), "0: untouched");
}

// --- values

TEST_F(HandlerTest, RowWithoutAStateRecord_ReadsAsUnknownSinceTheStart) {
  mib().trelReachabilityTableIs({1, 2}, nullptr, nullptr);
  RowContext pair(kReachabilityName);
  EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET,
                   {{3, pair.get()}, {4, pair.get()}, {5, pair.get()}}),
            "0: 2:0 2:1 67:0");
}

TEST_F(HandlerTest, BackplaneInterface_ReadsAsItsIfIndex) {
  auto ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Lanix::IntfId intf("Backplane1/2");
  ifMib->ifIndexByIntfId().set(intf, 1000007);
  auto record = Zavro::makePtr<const Trel::ReachabilityState>(State::reachable, intf, 0);
  mib().trelReachabilityTableIs({1, 2}, record, ifMib);
  RowContext pair(kReachabilityName);
  EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET, {{3, pair.get()}}), "0: 2:1000007");
}

TEST(ReachabilityStateToAsnUnsignedTest, StatesAreNumberedFromOneAndOthersAreZero) {
  for (unsigned ordinal : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 255u}) {
    uint32_t number = 99;
    auto* buffer = reinterpret_cast<unsigned char*>(&number);
    EXPECT_EQ(ReachabilityStateToAsnUnsigned(static_cast<State>(ordinal), buffer, sizeof number), 4);
    EXPECT_EQ(number, ordinal < 6 ? ordinal + 1 : 0) << ordinal;
  }
}

TEST(ReachabilityStateToAsnUnsignedTest, TooSmallABuffer_Fails) {
  unsigned char buffer[3] = {};
  EXPECT_LT(ReachabilityStateToAsnUnsigned(State::reachable, buffer, sizeof buffer), 0);
}

}  // namespace
}  // namespace SnmpTest
