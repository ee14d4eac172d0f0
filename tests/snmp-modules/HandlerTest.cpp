// The handlers of the tables, called with requests made by hand.
#include <gtest/gtest.h>

#include "snmp-modules/ReachabilityStateToAsnUnsigned.h"
#include "tests/snmp-modules/ModuleTest.h"

namespace SnmpTest {
namespace {

// --- every table

constexpr RowParts kRow = {7, 8};

// Every conversion fails, and says what capacity it was given.
class FailingConversions {
 public:
  static inline int capacity = 0;

 private:
  template <class Conversion>
  static int fail(const typename Conversion::Input& /*value*/, unsigned char* /*buffer*/, int given) {
    capacity = given;
    return -1;
  }
  template <class Conversion>
  struct Failing {
    Snmp::ConversionOverride<Conversion> substitute{&fail<Conversion>};
  };
  Failing<Snmp::U32ToAsnUnsignedF> unsigned_;
  Failing<Snmp::S32ToAsnIntegerF> integers_;
  Failing<Snmp::SecondsToTimeTicksF> lengths_;
  Failing<Snmp::UtcSecondsToUptimeTimeTicksF> times_;
  Failing<Snmp::SecondsToAsnDateAndTimeF> dates_;
  Failing<Snmp::StringToAsnOctetStringF> strings_;
  Failing<Snmp::SnmpObjectIdentifierToAsnOidF> oids_;
};

class HandlerOfEveryTable : public EveryTableTest {
 protected:
  std::string handled(int mode, const std::vector<ColumnRequest>& requests) {
    return handle(table().served().handler, mode, requests);
  }
  std::string calledLines(int mode = MODE_GET) const {
    return own(2, "_handler") + own(2, fmt::format("_handler: request mode {}", mode));
  }
  std::string getLine(const ColumnCase& column) const {
    return own(
        2, fmt::format("_handler: request GET for column {}, key {}", column.name, table().keyText(kRow)));
  }
  std::string invalidLine(unsigned column) const { return own(0, fmt::format(" invalid column {}", column)); }
  // Around the columns that are served.
  std::vector<unsigned> otherColumns() const {
    std::vector<unsigned> others;
    for (unsigned column = 0; column < table().columns.front().number; ++column) others.push_back(column);
    others.push_back(table().columns.back().number + 1);
    others.push_back(4294967295u);
    return others;
  }
};
INSTANTIATE_TEST_SUITE_P(All, HandlerOfEveryTable, testing::ValuesIn(allTables()), nameOf);

TEST_P(HandlerOfEveryTable, Get_ServesEveryColumnWithItsType) {
  add(kRow);
  RowContext row(table().at);
  log.clear();
  std::vector<ColumnRequest> requests;
  std::string values = "0:";
  std::string trace = calledLines();
  for (const ColumnCase& column : table().columns) {
    requests.push_back({column.number, row.get()});
    values += std::string(" ") + column.value;
    trace += getLine(column);
  }
  EXPECT_EQ(handled(MODE_GET, requests), values);
  EXPECT_EQ(golden(log), trace);
}

TEST_P(HandlerOfEveryTable, ProcessedRequests_AreSkipped) {
  add(kRow);
  RowContext row(table().at);
  const ColumnCase& column = table().columns.front();
  log.clear();
  EXPECT_EQ(handled(MODE_GET, {{column.number, row.get(), true}, {column.number, row.get()}}),
            fmt::format("0: untouched {}", column.value));
  EXPECT_EQ(golden(log), calledLines() + own(2, "_handler: request A already processed") + getLine(column));
}

TEST_P(HandlerOfEveryTable, RequestWithoutARow_EndsTheCallWithSuccess) {
  add(kRow);
  RowContext row(table().at);
  const ColumnCase& column = table().columns.back();
  log.clear();
  EXPECT_EQ(handled(MODE_GET, {{column.number, row.get()}, {column.number}, {column.number, row.get()}}),
            fmt::format("0: {} untouched untouched", column.value));
  EXPECT_EQ(golden(log), calledLines() + getLine(column) + own(2, "_handler: null data context in request"));
}

TEST_P(HandlerOfEveryTable, OtherColumn_IsNoSuchObjectAndEndsTheCall) {
  add(kRow);
  RowContext row(table().at);
  for (unsigned column : otherColumns()) {
    log.clear();
    EXPECT_EQ(handled(MODE_GET, {{column, row.get()}, {table().columns.front().number, row.get()}}),
              "0: noSuchObject untouched");
    EXPECT_EQ(golden(log), calledLines() + invalidLine(column));
  }
}

TEST_P(HandlerOfEveryTable, FailedConversion_IsGenErrAndEndsTheCall) {
  add(kRow);
  RowContext row(table().at);
  FailingConversions failing;
  for (const ColumnCase& column : table().columns) {
    log.clear();
    EXPECT_EQ(handled(MODE_GET, {{column.number, row.get()}, {column.number, row.get()}}),
              "5: error 5 untouched");
    EXPECT_EQ(golden(log), calledLines() + getLine(column) +
                               line(2, fmt::format("handle_{} - {} failed for: {}", table().name,
                                                   column.operation, column.field)));
    EXPECT_EQ(FailingConversions::capacity, column.capacity) << column.name;
  }
}

TEST_P(HandlerOfEveryTable, AnyOtherMode_IsNotWritableForTheFirstUnprocessedRequest) {
  auto expectRefused = [this](int mode, unsigned column, const std::string& trace) {
    log.clear();
    EXPECT_EQ(handled(mode, {{column, nullptr, true}, {column}, {column}}),
              "0: untouched error 17 untouched");
    EXPECT_EQ(golden(log), calledLines(mode) + own(2, "_handler: request A already processed") + trace);
  };
  for (int mode : std::vector<int>{MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION, MODE_SET_COMMIT,
                                   MODE_SET_FREE, MODE_SET_UNDO, MODE_GETNEXT}) {
    for (const ColumnCase& column : table().columns) {
      expectRefused(mode, column.number,
                    column.setRefusal != nullptr ? line(2, column.setRefusal) : invalidLine(column.number));
    }
    for (unsigned column : otherColumns()) expectRefused(mode, column, invalidLine(column));
  }
}

// --- single ones

using HandlerTest = TracedModuleTest;

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
            "0: i:0 i:1 t:0");
}

TEST_F(HandlerTest, BackplaneInterface_ReadsAsItsIfIndex) {
  auto ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Lanix::IntfId intf("Backplane1/2");
  ifMib->ifIndexByIntfId().set(intf, 1000007);
  auto record = Zavro::makePtr<const Trel::ReachabilityState>(State::reachable, intf, 0);
  mib().trelReachabilityTableIs({1, 2}, record, ifMib);
  RowContext pair(kReachabilityName);
  EXPECT_EQ(handle(&veldaTrelReachabilityTable_handler, MODE_GET, {{3, pair.get()}}), "0: i:1000007");
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
