// What the frame offers to tables beyond those of one module: other index types, octet strings, object
// identifiers, checked lengths, writable columns, rows that are read through what they hold, keys that refuse
// their parts. The tables are this test's own.
#include "TableFrame.h"

#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Callbacks.h"
#include "ModuleTest.h"

using namespace TrelSnmp;

namespace SnmpTest {
namespace {

TableModule frameModule("frameModule");

// --- one index, a writable column, lengths of 8 or 11

bool isDateLength(int length) { return length == 8 || length == 11; }
HostResources::HostResources::System systemOf(const TrelHrSystemEntry& entry) {
  return entry.hostResources() ? entry.hostResources()->system() : HostResources::HostResources::System();
}
double uptimeOf(const TrelHrSystemEntry& entry) { return systemOf(entry).systemUptime; }
double timeOf(const TrelHrSystemEntry& entry) { return systemOf(entry).currentTimeUtc; }
uint32_t usersOf(const TrelHrSystemEntry& entry) { return systemOf(entry).systemNumUsers; }

const TrelHrSystemTable& systemRows(const TrelMib& mib) { return mib.trelHrSystemTable(); }
using System = Column<TrelHrSystemEntry>;
constexpr TableSpec<TrelHrSystemTable, 3> kSystemTable{
    .name = "systemTable",
    .arc = {3, 99, 1, 1},
    .keyType = "U32",
    .source = &systemRows,
    .index = {{{"systemMemberId", "trelMemberId", ASN_INTEGER}}},
    .columns =
        {
            System::of<Snmp::SecondsToTimeTicksF, &uptimeOf>(2, "systemUpTime", ASN_TIMETICKS,
                                                             "systemUptime"),
            System::of<Snmp::SecondsToAsnDateAndTimeF, &timeOf>(3, "systemDate", ASN_OCTET_STR,
                                                                "currentTimeUtc")
                .within(11, &isDateLength)
                .refusingSet(),
            System::of<Snmp::U32ToAsnUnsignedF, &usersOf>(4, "systemNumUsers", ASN_GAUGE, "systemNumUsers"),
        },
};
using SystemFrame = TableFrame<kSystemTable, frameModule>;
int systemHandler(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                  netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return SystemFrame::handle(info, requests);
}

// --- an index of INTEGER and Unsigned32

int16_t loadOf(const TrelProcessorEntry& entry) { return entry.processor() ? entry.processor()->load() : 0; }

const TrelProcessorTable& processorRows(const TrelMib& mib) { return mib.trelProcessorTable(); }
constexpr TableSpec<TrelProcessorTable, 1> kProcessorTable{
    .name = "processorTable",
    .arc = {3, 99, 1, 2},
    .keyType = "TrelSnmp::ProcessorKey",
    .source = &processorRows,
    .index = {{{"processorMemberId", "trelMemberId", ASN_INTEGER},
               {"processorIndex", "processorIndex", ASN_UNSIGNED}}},
    .columns = {Column<TrelProcessorEntry>::of<Snmp::S32ToAsnIntegerF, &loadOf>(3, "processorLoad",
                                                                                ASN_INTEGER, "load")},
};
using ProcessorFrame = TableFrame<kProcessorTable, frameModule>;
int processorHandler(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                     netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return ProcessorFrame::handle(info, requests);
}

// --- rows that hold what is served, strings and object identifiers

bool isDescription(int length) { return length <= 255; }

const TrelHrStorageTable& storageRows(const TrelMib& mib) { return mib.trelHrStorageTable(); }
using Storage = Column<TrelHrStorageEntry>;
constexpr TableSpec<TrelHrStorageTable, 3> kStorageTable{
    .name = "storageTable",
    .arc = {3, 99, 1, 3},
    .keyType = "TrelSnmp::TrelHrStorageKey",
    .source = &storageRows,
    .index = {{{"storageMemberId", "trelMemberId", ASN_INTEGER},
               {"storageIndex", "hrStorageIndex", ASN_INTEGER}}},
    .columns =
        {
            Storage::of<Snmp::SnmpObjectIdentifierToAsnOidF, &TrelHrStorageEntry::type>(  //
                3, "storageType", ASN_OBJECT_ID, "type"),
            Storage::of<Snmp::StringToAsnOctetStringF, &TrelHrStorageEntry::descr>(  //
                4, "storageDescr", ASN_OCTET_STR, "descr")
                .within(255, &isDescription),
            Storage::of<Snmp::U32ToAsnUnsignedF, &TrelHrStorageEntry::size>(  //
                5, "storageSize", ASN_INTEGER, "size"),
        },
};
using StorageFrame = TableFrame<kStorageTable, frameModule>;
int storageHandler(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                   netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return StorageFrame::handle(info, requests);
}

// --- a key that refuses its parts

class PickyKey : public PairKey<PickyKey> {
 public:
  static constexpr std::string_view kFirst = "first";
  static constexpr std::string_view kSecond = "second";
  PickyKey() = default;
  PickyKey(uint32_t first, uint32_t second) : PairKey(first, second) {
    if (first == 0) throw Zavro::RangeException("first is 0");
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
    .arc = {3, 99, 1, 4},
    .keyType = "SnmpTest::PickyKey",
    .source = &pickyRows,
    .index = {{{"pickyFirst", "first", ASN_INTEGER}, {"pickySecond", "second", ASN_INTEGER}}},
    .columns = {Column<PickyRow>::of<Snmp::U32ToAsnUnsignedF, &PickyRow::value>(3, "pickyValue", ASN_INTEGER,
                                                                                "value")},
};
using PickyFrame = TableFrame<kPickyTable, frameModule>;
int pickyHandler(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                 netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return PickyFrame::handle(info, requests);
}

const std::string kSystem = fmt::format(".1.3.6.1.4.1.{}.3.99.1.1", TREL_ENTERPRISE_NUMBER);
const std::string kProcessor = fmt::format(".1.3.6.1.4.1.{}.3.99.1.2", TREL_ENTERPRISE_NUMBER);
const std::string kStorage = fmt::format(".1.3.6.1.4.1.{}.3.99.1.3", TREL_ENTERPRISE_NUMBER);
const std::string kPicky = fmt::format(".1.3.6.1.4.1.{}.3.99.1.4", TREL_ENTERPRISE_NUMBER);

class FrameTest : public ::testing::Test {
 protected:
  FrameTest() {
    agent();
    SystemFrame::initialize(&systemHandler, "");
    ProcessorFrame::initialize(&processorHandler, "");
    StorageFrame::initialize(&storageHandler, "");
    PickyFrame::initialize(&pickyHandler, "");
    log.clear();
  }
  ~FrameTest() override { frameModule.unregister(""); }

  InProcessAgent& agent() { return InProcessAgent::instance(); }
  TrelMib& mib() { return database_.mib(); }
  void storage(const std::string& descr) {
    auto info = Zavro::makePtr<const HostResources::StorageInfo>(4096u, 1000u, 250u);
    mib().trelHrStorageTableIs(
        trelHrStorageEntryMountFactory({1, 31}, Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.4"), descr, info));
  }
  uint64_t hintsMatched(const char* table) {
    return recordOf(table)->counters().orderedIterCntr(Snmp::OrderedTableIteratorCounterTypes::hintMatched);
  }

 private:
  Database database_;

 protected:
  TraceLog log{{"frameModule"}};
};

TEST_F(FrameTest, OnlyATableWithAWritableColumn_IsRegisteredForSet) {
  EXPECT_EQ(registrationAt(kSystem)->modes & HANDLER_CAN_RWRITE, HANDLER_CAN_RWRITE);
  EXPECT_EQ(registrationAt(kProcessor)->modes & HANDLER_CAN_RWRITE, HANDLER_CAN_RONLY);
}

TEST_F(FrameTest, SetOfAWritableColumn_IsRefusedInItsOwnWords) {
  mib().trelHrSystemTableIs(1, nullptr);
  EXPECT_EQ(agent().set(kSystem + ".1.3.1", 5), "notWritable(1)");
  EXPECT_TRUE(log.contains("frameModule/2 systemTable_handler: SET is not configured for column systemDate"));
  EXPECT_FALSE(log.contains("frameModule/0 systemTable invalid column 3"));
}

TEST_F(FrameTest, SetOfAnotherColumn_IsRefusedAsInvalid) {
  mib().trelHrSystemTableIs(1, nullptr);
  EXPECT_EQ(agent().set(kSystem + ".1.4.1", 5), "notWritable(1)");
  EXPECT_TRUE(log.contains("frameModule/0 systemTable invalid column 4"));
  EXPECT_EQ(agent().set(kSystem + ".1.3.9", 5), "notWritable(1)");
  EXPECT_EQ(agent().set(kProcessor + ".1.3.1.1", 5), "notWritable(1)");
}

TEST_F(FrameTest, RowWithoutARecord_ReadsAsZero) {
  mib().trelHrSystemTableIs(1, nullptr);
  EXPECT_EQ(agent().get({kSystem + ".1.2.1", kSystem + ".1.4.1"}),
            kSystem + ".1.2.1=t:0 " + kSystem + ".1.4.1=u:0");
}

TEST_F(FrameTest, LengthThatIsNotAllowed_IsGenErr) {
  mib().trelHrSystemTableIs(1, nullptr);
  std::string date = kSystem + ".1.3.1";
  EXPECT_TRUE(agent().get({date}).starts_with(date + "=s:\x07\xb2\x01\x01"));
  for (int length : {9, 10}) {
    static int served;
    served = length;
    Snmp::Substitute<Snmp::SecondsToAsnDateAndTimeF> other(
        [](const Zavro::Duration& /*value*/, unsigned char* buffer, int capacity) {
          std::fill(buffer, buffer + capacity, 'x');
          return served;
        });
    EXPECT_EQ(agent().get({date}), "genErr(1)");
    EXPECT_TRUE(
        log.contains(fmt::format("frameModule/2 handle_systemTable - entity /switch/snmp/trel/trelMib "
                                 "length out of range: currentTimeUtc ({})",
                                 length)));
  }
  Snmp::Substitute<Snmp::SecondsToAsnDateAndTimeF> eight(
      [](const Zavro::Duration& /*value*/, unsigned char* buffer, int capacity) {
        std::fill(buffer, buffer + capacity, 'x');
        return 8;
      });
  EXPECT_EQ(agent().get({date}), date + "=s:xxxxxxxx");
}

TEST_F(FrameTest, ColumnWithItsOwnCapacity_PassesItToTheConversion) {
  storage(std::string(255, 'd'));
  std::string descr = kStorage + ".1.4.1.31";
  EXPECT_EQ(agent().get({descr}), descr + "=s:" + std::string(255, 'd'));
  storage(std::string(256, 'd'));
  EXPECT_EQ(agent().get({descr}), "genErr(1)");
  EXPECT_TRUE(log.contains("frameModule/2 handle_storageTable - StringToAsnOctetString failed for: descr"));
  Snmp::Substitute<Snmp::StringToAsnOctetStringF> longer(
      [](const Zavro::String& /*value*/, unsigned char* /*buffer*/, int capacity) { return capacity + 1; });
  EXPECT_EQ(agent().get({descr}), "genErr(1)");
  EXPECT_TRUE(log.contains(
      "frameModule/2 handle_storageTable - entity /switch/snmp/trel/trelMib length out of range: "
      "descr (256)"));
}

TEST_F(FrameTest, RowThatHoldsWhatIsServed_IsReadThroughIt) {
  storage("");
  EXPECT_EQ(agent().get({kStorage + ".1.3.1.31", kStorage + ".1.4.1.31", kStorage + ".1.5.1.31"}),
            fmt::format("{0}.1.3.1.31=o:1.3.6.1.2.1.25.2.1.4 {0}.1.4.1.31=s: {0}.1.5.1.31=i:1000", kStorage));
  EXPECT_EQ(agent().get({kStorage + ".1.1.1.31"}), kStorage + ".1.1.1.31=noSuchObject");
  EXPECT_EQ(agent().getNext({kStorage + ".1.4.1.31"}), kStorage + ".1.5.1.31=i:1000");
}

TEST_F(FrameTest, ReplacedContentUnderAWalk_IsServedAsItWasHeld) {
  storage("old");
  DirectWalk walk(kStorage);
  walk.first();
  void* data = walk.makeData();
  storage("new");
  EXPECT_EQ(handle(&storageHandler, MODE_GET, {{5, data}}), "0: 2:1000");
  EXPECT_EQ(walk.next(), "end");
  walk.freeData(data);
}

TEST_F(FrameTest, UnsignedIndex_IsServedAndHinted) {
  auto processor = [](int16_t load) { return Zavro::makePtr<const HostResources::Processor>(load); };
  mib().trelProcessorTableIs({1, 4294967295u}, processor(-1));
  mib().trelProcessorTableIs({1, 0}, processor(7));
  EXPECT_EQ(lines(agent().walk(kProcessor)),
            fmt::format("{0}.1.3.1.0=i:7\n{0}.1.3.1.4294967295=i:-1", kProcessor));
  EXPECT_EQ(agent().get({kProcessor + ".1.3.1.4294967295"}), kProcessor + ".1.3.1.4294967295=i:-1");
  EXPECT_EQ(hintsMatched("processorTable"), 3u);
}

TEST_F(FrameTest, IntegerForAnUnsignedIndex_IsRefused) {
  DirectWalk walk(kProcessor);
  walk.first({{1}, {1, ASN_INTEGER}});
  EXPECT_TRUE(
      log.contains("frameModule/0 hint for processorIndex has incorrect type! Expecting 66 but got 2"));
  EXPECT_TRUE(
      log.contains("frameModule/2 processorTable_get_first_data_point - needed 2 components, found only 1"));
}

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

}  // namespace
}  // namespace SnmpTest
