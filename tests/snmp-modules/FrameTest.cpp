// What the frame offers beyond what the modules' tables ask of it: a key that refuses its parts. The table is
// this test's own.
#include "snmp-modules/TableFrame.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/snmp-modules/ModuleTest.h"
#include "tests/support/Thrown.h"

using namespace TrelSnmp;

namespace SnmpTest {
namespace {

TableModule frameModule("frameModule");

class PickyKey : public PairKey<PickyKey> {
 public:
  static constexpr std::string_view kFirst = "first";
  static constexpr std::string_view kSecond = "second";
  PickyKey() = default;
  PickyKey(uint32_t first, uint32_t second) : PairKey(first, second) {
    if (first == 0) throw Zavro::RangeException("first is 0");
    if (first == 1) throw std::runtime_error("first is 1");
  }
};
class PickyRow : public Zavro::Counted, public TableHook {
 public:
  using Key = PickyKey;
  const Key& key() const { return key_; }
  uint32_t value() const { return 1; }

 private:
  Key key_;
};
using PickyTable = Table<PickyRow>;
const PickyTable& pickyRows(const TrelMib& /*mib*/) {
  static const PickyTable table;
  return table;
}
constexpr TableSpec<PickyTable, 1> kPickyTable{
    .name = "pickyTable",
    .arc = {3, 99, 1, 1},
    .keyType = "SnmpTest::PickyKey",
    .source = &pickyRows,
    .index = {{{"pickyFirst", "first", ASN_INTEGER}, {"pickySecond", "second", ASN_INTEGER}}},
    .columns = {Column<PickyRow>::of<Snmp::U32ToAsnUnsignedF, &PickyRow::value>(3, "pickyValue", ASN_INTEGER,
                                                                                "value")},
};
using PickyFrame = TableFrame<kPickyTable, frameModule>;

const std::string kPicky = fmt::format(".1.3.6.1.4.1.{}.3.99.1.1", TREL_ENTERPRISE_NUMBER);

class FrameTest : public ::testing::Test {
 protected:
  FrameTest() {
    InProcessAgent::instance();
    PickyFrame::initialize("");
    log.clear();
  }
  ~FrameTest() override { frameModule.unregister(""); }

 private:
  Database database_;

 protected:
  TraceLog log{{"frameModule"}};
};

TEST_F(FrameTest, KeyThatRefusesItsParts_IsABadHint) {
  DirectWalk walk(kPicky);
  EXPECT_EQ(walk.first({{0}, {1}}), "end");
  EXPECT_EQ(golden(log),
            "frameModule/2 pickyTable_get_first_data_point - *hint = A, number_indexes = 2\n"
            "frameModule/2 hint component pickyFirst is '0'\n"
            "frameModule/2 hint component pickySecond is '1'\n"
            "frameModule/0 Bad hint for pickyTable: SnmpTest::PickyKey ctor threw exception: first is 0\n"
            "frameModule/2 pickyTable_get_first_data_point - allocated new loop context B, "
            "hintMatched=false\n"
            "frameModule/2 pickyTableIterationHelper - iterator is at end\n");
}

// What is wrong with a hint is one thing, and a failure of the program another: that is the host's to see.
TEST_F(FrameTest, KeyThatFailsOtherwise_ItsExceptionLeavesTheCallback) {
  DirectWalk walk(kPicky);
  EXPECT_EQ(thrown<std::runtime_error>([&] { walk.first({{1}, {1}}); }), "first is 1");
  EXPECT_EQ(golden(log),
            "frameModule/2 pickyTable_get_first_data_point - *hint = A, number_indexes = 2\n"
            "frameModule/2 hint component pickyFirst is '1'\n"
            "frameModule/2 hint component pickySecond is '1'\n");
  EXPECT_EQ(walk.first({{2}, {1}}), "end");
}

}  // namespace
}  // namespace SnmpTest
