// What the host-resources tables make of their values, as a manager reads them.
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/snmp-modules/ModuleTest.h"

using namespace TrelSnmp;

namespace SnmpTest {
namespace {

using Figures = HostResources::HostResources::System;

constexpr const char* kSystem = "hr.1";
constexpr const char* kUpTime = "hr.1.1.2.7";
constexpr const char* kDate = "hr.1.1.3.7";
constexpr const char* kNumUsers = "hr.1.1.4.7";
constexpr const char* kProcesses = "hr.1.1.5.7";
constexpr const char* kMemorySize = "hr.1.1.6.7";
constexpr const char* kLoad = "hr.2.1.3.7.1";
constexpr const char* kType = "hr.3.1.3.7.31";
constexpr const char* kDescr = "hr.3.1.4.7.31";
constexpr const char* kAllocUnits = "hr.3.1.5.7.31";
constexpr const char* kSize = "hr.3.1.6.7.31";
constexpr const char* kUsed = "hr.3.1.7.7.31";

// The trace of a value that cannot be served, and what a manager gets.
constexpr const char* kGenErr = "genErr(1)";
std::string failed(const char* table, const char* what) {
  return fmt::format("veldaTrelHostResourcesMIB/2 handle_{} - {}", table, what);
}

class HostResourcesTables : public TracedModuleTest {
 protected:
  // The value alone, or the error.
  std::string get(const std::string& name) {
    std::string answer = agent().get({name});
    return answer.starts_with(name + '=') ? answer.substr(name.size() + 1) : answer;
  }
  std::string get(const Names& names) {
    std::vector<std::string> values;
    for (const std::string& name : names) values.push_back(get(name));
    return fmt::format("{}", fmt::join(values, " "));
  }
};

// --- the system table

class HrSystem : public HostResourcesTables {
 protected:
  // Member 7 has these figures from now on, in the entity that its row already holds.
  void system(const Figures& figures) {
    host_->systemIs(figures);
    mib().trelHrSystemTableIs(7, host_);
  }
  std::string upTimeOf(double seconds) {
    system({.systemUptime = seconds});
    return get(kUpTime);
  }
  std::string dateOf(double utc) {
    system({.currentTimeUtc = utc});
    return get(kDate);
  }
  static std::string invalid(unsigned column) {
    return fmt::format("veldaTrelHostResourcesMIB/0 veldaTrelHrSystemTable invalid column {}", column);
  }

  Zavro::Ptr<HostResources::HostResources> host_ = Zavro::makePtr<HostResources::HostResources>("7");
};

TEST_F(HrSystem, MemberWithoutHostResources_ReadsAsZeroThroughout) {
  mib().trelHrSystemTableIs(7, nullptr);
  EXPECT_EQ(lines(agent().walk(kSystem)), lines({"hr.1.1.2.7=t:0", "hr.1.1.3.7=x:07b20101000000002b0000",
                                                 "hr.1.1.4.7=u:0", "hr.1.1.5.7=u:0", "hr.1.1.6.7=i:0"}));
}

TEST_F(HrSystem, NewFigures_AreSeenThroughTheSameRow) {
  system({.systemUptime = 1, .systemNumUsers = 2});
  EXPECT_EQ(get(Names{kUpTime, kNumUsers}), "t:100 u:2");
  uint32_t version = mib().trelHrSystemTable().version();
  host_->systemIs({.systemUptime = 2, .systemNumUsers = 0});
  EXPECT_EQ(get(Names{kUpTime, kNumUsers}), "t:200 u:0");
  EXPECT_EQ(mib().trelHrSystemTable().version(), version);
}

TEST_F(HrSystem, EntityReplaced_TheRowReadsThroughTheNewOne) {
  system({.systemNumUsers = 2});
  mib().trelHrSystemTableDel(7);
  EXPECT_EQ(get(kNumUsers), "noSuchInstance");
  mib().trelHrSystemTableIs(7, hostOf({.systemNumUsers = 5}));
  host_->systemIs({.systemNumUsers = 9});
  EXPECT_EQ(get(kNumUsers), "u:5");
}

TEST_F(HrSystem, EntityReplacedUnderAWalk_TheHeldRowIsServedAsItWas) {
  system({.memorySize = 2});
  DirectWalk walk(kSystem);
  walk.first();
  void* data = walk.makeData();
  mib().trelHrSystemTableDel(7);
  mib().trelHrSystemTableIs(7, hostOf({.memorySize = 5}));
  EXPECT_EQ(handle(&veldaTrelHrSystemTable_handler, MODE_GET, {{6, data}}), "0: i:2");
  EXPECT_EQ(walk.next(), "end");
  walk.freeData(data);
}

TEST_F(HrSystem, UpTime_IsInHundredthsAndWraps) {
  EXPECT_EQ(upTimeOf(0), "t:0");
  EXPECT_EQ(upTimeOf(0.009), "t:0");
  EXPECT_EQ(upTimeOf(0.01), "t:1");
  EXPECT_EQ(upTimeOf(86400.5), "t:8640050");
  EXPECT_EQ(upTimeOf(21474836.48), "t:2147483648");
  // 497 days and a bit.
  EXPECT_EQ(upTimeOf(42949672.95), "t:4294967295");
  EXPECT_EQ(upTimeOf(42949672.96), "t:0");
  EXPECT_EQ(upTimeOf(42949673.96), "t:100");
  EXPECT_EQ(upTimeOf(1e9), fmt::format("t:{}", 100'000'000'000 % 4'294'967'296));
}

TEST_F(HrSystem, UpTimeThatIsNone_IsGenErr) {
  for (double seconds : {-0.01, -1.0, std::nan(""), std::numeric_limits<double>::infinity()}) {
    log.clear();
    EXPECT_EQ(upTimeOf(seconds), kGenErr) << seconds;
    EXPECT_TRUE(
        log.contains(failed("veldaTrelHrSystemTable", "SecondsToTimeTicks failed for: systemUptime")));
  }
}

TEST_F(HrSystem, Date_IsUtcInElevenOctetsFarIntoPastAndFuture) {
  EXPECT_EQ(dateOf(0), "x:07b20101000000002b0000");
  EXPECT_EQ(dateOf(-0.1), "x:07b10c1f173b3b092b0000");           // 1969-12-31 23:59:59.9
  EXPECT_EQ(dateOf(-2208988800), "x:076c0101000000002b0000");    // 1900-01-01
  EXPECT_EQ(dateOf(951782400), "x:07d0021d000000002b0000");      // 2000-02-29
  EXPECT_EQ(dateOf(1767225601.25), "x:07ea0101000001022b0000");  // 2026-01-01 00:00:01.2
  EXPECT_EQ(dateOf(2147483647), "x:07f60113030e07002b0000");     // 2038-01-19 03:14:07
  EXPECT_EQ(dateOf(2147483648), "x:07f60113030e08002b0000");     // 2038-01-19 03:14:08
  EXPECT_EQ(dateOf(4294967296), "x:083a0207061c10002b0000");     // 2106-02-07 06:28:16
  EXPECT_EQ(dateOf(253402300799), "x:270f0c1f173b3b002b0000");   // 9999-12-31 23:59:59
  EXPECT_EQ(dateOf(2005949145599), "x:ffff0c1f173b3b002b0000");  // 65535-12-31 23:59:59
  EXPECT_EQ(dateOf(-62167219200), "x:00000101000000002b0000");   // 0000-01-01
}

TEST_F(HrSystem, DateThatHasNoYear_IsGenErr) {
  for (double utc : {-62167219201.0, 2005949145600.0, std::nan("")}) {
    log.clear();
    EXPECT_EQ(dateOf(utc), kGenErr) << utc;
    EXPECT_TRUE(
        log.contains(failed("veldaTrelHrSystemTable", "SecondsToAsnDateAndTime failed for: currentTimeUtc")));
  }
}

TEST_F(HrSystem, DateOfEightOrElevenOctetsIsServed_AnyOtherLengthIsGenErr) {
  system({});
  static int made = 0;
  Snmp::ConversionOverride<Snmp::SecondsToAsnDateAndTimeF> ofThatLength(
      [](const Zavro::Duration& /*value*/, unsigned char* buffer, int capacity) {
        std::fill(buffer, buffer + capacity, 'x');
        return made;
      });
  for (made = 0; made <= 12; ++made) {
    log.clear();
    if (made == 8 || made == 11) {
      EXPECT_EQ(get(kDate), "s:" + std::string(static_cast<size_t>(made), 'x'));
      continue;
    }
    EXPECT_EQ(get(kDate), kGenErr) << made;
    EXPECT_TRUE(log.contains(
        failed("veldaTrelHrSystemTable",
               fmt::format("entity /switch/snmp/trel/trelMib length out of range: currentTimeUtc ({})", made)
                   .c_str())));
  }
}

TEST_F(HrSystem, UsersAndProcessesAreGauges_MemoryIsAnInteger) {
  struct {
    uint32_t figure;
    const char* served;
  } const cases[] = {{0, "u:0 u:0 i:0"},
                     {2147483647, "u:2147483647 u:2147483647 i:2147483647"},
                     {2147483648, "u:2147483648 u:2147483648 i:-2147483648"},
                     {4294967295, "u:4294967295 u:4294967295 i:-1"}};
  for (const auto& [figure, expected] : cases) {
    system({.systemNumUsers = figure, .systemProcesses = figure, .memorySize = figure});
    EXPECT_EQ(get(Names{kNumUsers, kProcesses, kMemorySize}), expected);
  }
}

TEST_F(HrSystem, SetOfTheDate_IsRefusedInItsOwnWords) {
  const char* refusal =
      "veldaTrelHostResourcesMIB/2 veldaTrelHrSystemTable_handler: SET is not configured for column "
      "veldaTrelHrSystemDate";
  const std::string date("\x07\xe8\x0b\x0c\x0d\x0e\x0f\x05", 8);
  system({});
  EXPECT_EQ(agent().set(kDate, date), "notWritable(1)");
  EXPECT_TRUE(log.contains(refusal));
  EXPECT_FALSE(log.contains(invalid(3)));
  log.clear();
  EXPECT_EQ(agent().set(kDate, 5), "notWritable(1)");
  EXPECT_TRUE(log.contains(refusal));
  EXPECT_EQ(get(kDate), "x:07b20101000000002b0000");
}

TEST_F(HrSystem, SetOfAnotherColumn_IsRefusedAsInvalid) {
  system({});
  for (unsigned column : {2, 4, 5, 6}) {
    EXPECT_EQ(agent().set(fmt::format("hr.1.1.{}.7", column), 5), "notWritable(1)");
    EXPECT_TRUE(log.contains(invalid(column)));
  }
}

// --- the processor table

class Processor : public HostResourcesTables {
 protected:
  void processor(uint32_t member, uint32_t index, int16_t load) {
    mib().trelProcessorTableDel({member, index});
    mib().trelProcessorTableIs({member, index}, Zavro::makePtr<const HostResources::Processor>(load));
  }
};

TEST_F(Processor, Load_KeepsItsSign) {
  for (int load : {-1, 0, 1, 100, 32767, -32768}) {
    processor(7, 1, static_cast<int16_t>(load));
    EXPECT_EQ(get(kLoad), fmt::format("i:{}", load));
  }
}

TEST_F(Processor, RowWithoutARecord_ReadsAsZero) {
  mib().trelProcessorTableIs({7, 1}, nullptr);
  EXPECT_EQ(get(kLoad), "i:0");
}

// net-snmp makes the second component Unsigned32 of every request; a hint with an INTEGER there comes from
// elsewhere.
TEST_F(Processor, SecondIndexAsInteger_IsRefusedAndTheWalkStartsAtTheFirstRow) {
  processor(1, 1, 10);
  processor(7, 1, 20);
  DirectWalk walk("hr.2");
  EXPECT_EQ(walk.first({{7}, {1, ASN_INTEGER}}), "1.1");
  EXPECT_TRUE(
      log.contains("veldaTrelHostResourcesMIB/0 hint for veldaTrelProcessorIndex has incorrect type! "
                   "Expecting 66 but got 2"));
  EXPECT_TRUE(
      log.contains("veldaTrelHostResourcesMIB/2 veldaTrelProcessorTable_get_first_data_point - needed 2 "
                   "components, found only 1"));
  EXPECT_EQ(counters("veldaTrelProcessorTable"), "2=1");
}

TEST_F(Processor, RequestsOverTheWire_HintAtTheRow) {
  processor(1, 4294967295u, -1);
  processor(1, 0, 7);
  EXPECT_EQ(agent().get({"hr.2.1.3.1.4294967295", "hr.2.1.3.1.0"}),
            "hr.2.1.3.1.4294967295=i:-1 hr.2.1.3.1.0=i:7");
  EXPECT_EQ(agent().getNext({"hr.2.1.3.1.0"}), "hr.2.1.3.1.4294967295=i:-1");
  EXPECT_EQ(counters("veldaTrelProcessorTable"), "1=3 5=1");
  EXPECT_FALSE(
      log.contains("veldaTrelHostResourcesMIB/0 hint for veldaTrelProcessorIndex has incorrect type! "
                   "Expecting 66 but got 2"));
}

// --- the storage table

class Storage : public HostResourcesTables {
 protected:
  static constexpr const char* kFixedDisk = "1.3.6.1.2.1.25.2.1.4";

  void mount(uint32_t units, uint64_t size, uint64_t free) {
    auto info = Zavro::makePtr<const HostResources::StorageInfo>(units, size, free);
    mib().trelHrStorageTableIs(
        trelHrStorageEntryMountFactory({7, 31}, Snmp::ObjectIdentifier(kFixedDisk), "/", info));
  }
  std::string mounted(uint32_t units, uint64_t size, uint64_t free) {
    mount(units, size, free);
    return get(Names{kAllocUnits, kSize, kUsed});
  }
  std::string memory(uint32_t index, const HostResources::MemInfo::Amounts& amounts) {
    mib().trelHrStorageTableIs(
        trelHrStorageEntryMemFactory({7, index}, Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.2"), "memory",
                                     Zavro::makePtr<const HostResources::MemInfo>(amounts)));
    std::string row = fmt::format("7.{}", index);
    return get(Names{"hr.3.1.5." + row, "hr.3.1.6." + row, "hr.3.1.7." + row});
  }
  void named(const std::string& type, const std::string& descr) {
    mib().trelHrStorageTableIs(
        trelHrStorageEntryMemFactory({7, 31}, Snmp::ObjectIdentifier(type), descr, nullptr));
  }
  std::string typeOf(const std::string& dotted) {
    named(dotted, "");
    return get(kType);
  }
  std::string descrOf(const std::string& descr) {
    named(kFixedDisk, descr);
    return get(kDescr);
  }
};

TEST_F(Storage, Type_IsAnObjectIdentifierOfAnyLength) {
  EXPECT_EQ(typeOf(kFixedDisk), "o:1.3.6.1.2.1.25.2.1.4");
  EXPECT_EQ(typeOf("0.0"), "o:0.0");
  EXPECT_EQ(typeOf("1.3.6.1.4294967295"), "o:1.3.6.1.4294967295");
  std::string longest = "1.3";
  for (size_t i = 2; i < Snmp::ObjectIdentifier::kMaxSubIds; ++i) longest += ".7";
  EXPECT_EQ(typeOf(longest), "o:" + longest);
}

TEST_F(Storage, TypeThatIsNoObjectIdentifier_IsGenErr) {
  for (const char* text : {"", "1", "disk", "1.3.6.1.4294967296", "1.3..6"}) {
    log.clear();
    EXPECT_EQ(typeOf(text), kGenErr) << text;
    EXPECT_TRUE(
        log.contains(failed("veldaTrelStorageTable", "SnmpObjectIdentifierToAsnOid failed for: type")));
  }
}

TEST_F(Storage, Descr_IsServedUpTo255Bytes) {
  EXPECT_EQ(descrOf(""), "s:");
  EXPECT_EQ(descrOf("/var/log"), "s:/var/log");
  EXPECT_EQ(descrOf("/größe/ßµ€😀"), "s:/größe/ßµ€😀");
  EXPECT_EQ(descrOf(std::string(254, 'd')), "s:" + std::string(254, 'd'));
  EXPECT_EQ(descrOf(std::string(255, 'd')), "s:" + std::string(255, 'd'));
  EXPECT_EQ(descrOf(std::string(253, 'd') + "ü"), "s:" + std::string(253, 'd') + "ü");
}

TEST_F(Storage, LongerDescr_IsGenErr) {
  // The second is of 255 characters.
  for (const std::string& descr : {std::string(256, 'd'), std::string(254, 'd') + "ü"}) {
    log.clear();
    EXPECT_EQ(descrOf(descr), kGenErr);
    EXPECT_TRUE(log.contains(failed("veldaTrelStorageTable", "StringToAsnOctetString failed for: descr")));
  }
  EXPECT_EQ(get(Names{kType, kAllocUnits}), "o:1.3.6.1.2.1.25.2.1.4 i:1024");
}

TEST_F(Storage, DescrThatIsReportedLongerThanItMayBe_IsGenErr) {
  named(kFixedDisk, "/");
  Snmp::ConversionOverride<Snmp::StringToAsnOctetStringF> longer(
      [](const Zavro::String& /*value*/, unsigned char* /*buffer*/, int capacity) { return capacity + 1; });
  EXPECT_EQ(get(kDescr), kGenErr);
  EXPECT_TRUE(log.contains(
      failed("veldaTrelStorageTable", "entity /switch/snmp/trel/trelMib length out of range: descr (256)")));
}

TEST_F(Storage, Mount_SizesAreTheirLow32BitsAndUsedWraps) {
  EXPECT_EQ(mounted(4096, 1000, 250), "i:4096 i:1000 i:750");
  EXPECT_EQ(mounted(0, 0, 0), "i:0 i:0 i:0");
  EXPECT_EQ(mounted(512, 2147483647, 0), "i:512 i:2147483647 i:2147483647");
  EXPECT_EQ(mounted(2147483648u, 2147483648u, 0), "i:-2147483648 i:-2147483648 i:-2147483648");
  EXPECT_EQ(mounted(4294967295u, 4294967295u, 1), "i:-1 i:-1 i:-2");
  EXPECT_EQ(mounted(512, 0x1'0000'0005, 2), "i:512 i:5 i:3");
  EXPECT_EQ(mounted(512, 0x7'0000'0005, 0x3'0000'0002), "i:512 i:5 i:3");
  EXPECT_EQ(mounted(512, 0x1'0000'0000, 1), "i:512 i:0 i:-1");
  // More is free than there is: 4294967246, not 0.
  EXPECT_EQ(mounted(512, 100, 150), "i:512 i:100 i:-50");
}

TEST_F(Storage, MountWithoutARecord_HasNoUnits) {
  mib().trelHrStorageTableIs(
      trelHrStorageEntryMountFactory({7, 31}, Snmp::ObjectIdentifier(kFixedDisk), "/", nullptr));
  EXPECT_EQ(get(kAllocUnits), "i:0");
}

TEST_F(Storage, Memory_UsedIsWhatItsIndexStandsFor) {
  constexpr auto kNone = std::nullopt;
  const HostResources::MemInfo::Amounts amounts = {8000000, 1000000, 3000000, 7000000, 6000000};
  EXPECT_EQ(memory(1, amounts), "i:1024 i:8000000 i:7000000");
  EXPECT_EQ(memory(100, amounts), "i:1024 i:8000000 i:5000000");
  EXPECT_EQ(memory(2, amounts), "i:1024 i:8000000 i:1000000");
  EXPECT_EQ(memory(3, amounts), "i:1024 i:8000000 i:2000000");
  EXPECT_EQ(memory(4, amounts), "i:1024 i:8000000 i:0");
  EXPECT_EQ(memory(100, {8000000, kNone, kNone, kNone, kNone}), "i:1024 i:8000000 i:8000000");
  EXPECT_EQ(memory(1, {kNone, 5, kNone, kNone, kNone}), "i:1024 i:0 i:0");
  EXPECT_EQ(memory(1, {5, 7, kNone, kNone, kNone}), "i:1024 i:5 i:-2");
  EXPECT_EQ(memory(1, {4294967295u, 0, kNone, kNone, kNone}), "i:1024 i:-1 i:-1");
}

TEST_F(Storage, IndexColumns_AreNoObjects) {
  mount(4096, 1000, 250);
  EXPECT_EQ(get(Names{"hr.3.1.1.7.31", "hr.3.1.2.7.31"}), "noSuchObject noSuchObject");
  EXPECT_EQ(agent().getNext({"hr.3.1.1.7.31"}), "hr.3.1.3.7.31=o:1.3.6.1.2.1.25.2.1.4");
}

TEST_F(Storage, RowReplaced_ReadsAnewButNotUnderAWalkThatHoldsIt) {
  mount(4096, 1000, 250);
  DirectWalk walk("hr.3");
  walk.first();
  void* data = walk.makeData();
  mount(4096, 2000, 250);
  EXPECT_EQ(get(kSize), "i:2000");
  EXPECT_EQ(handle(&veldaTrelStorageTable_handler, MODE_GET, {{6, data}}), "0: i:1000");
  EXPECT_EQ(walk.next(), "end");
  walk.freeData(data);
}

// --- all five tables together

TEST_F(HostResourcesTables, WholeSubtree_IsTheTablesInTheirOrder) {
  std::vector<std::string> expected;
  for (const TableOfModule& table : allTables()) {
    table.table.add(mib(), {1, 2});
    table.table.add(mib(), {3, 2147483648u});
    for (const std::string& varbind : table.table.tree({{1, 2}, {3, 2147483648u}}))
      expected.push_back(varbind);
  }
  expectTree(fmt::format(".1.3.6.1.4.1.{}.3", TREL_ENTERPRISE_NUMBER), expected);
}

TEST_F(HostResourcesTables, OneRequestForAllTables_EachValueInItsPlace) {
  Names names;
  std::vector<std::string> expected;
  for (const TableOfModule& of : allTables()) {
    of.table.add(mib(), {1, 2});
    const ColumnCase& column = of.table.columns.back();
    names.insert(names.begin(), of.table.instance(column.number, {1, 2}));
    expected.insert(expected.begin(), names.front() + '=' + column.value);
  }
  EXPECT_EQ(agent().get(names), fmt::format("{}", fmt::join(expected, " ")));
}

TEST_F(HostResourcesTables, MemberLeavesDuringAWalk_TheWalkGoesOnBehindIt) {
  for (const TableOfModule& of : allTables()) {
    for (uint32_t member : {1, 2, 3}) of.table.add(mib(), {member, 1});
  }
  std::vector<std::string> seen = agent().walk("hr", [this](const std::string& varbind) {
    if (!varbind.starts_with("hr.1.1.2.2=")) return;
    mib().trelHrSystemTableDel(2);
    mib().trelProcessorTableDel({2, 1});
    mib().trelHrStorageTableDel({2, 1});
  });
  std::vector<std::string> expected;
  for (const TableCase& table : allModules().back().tables) {
    for (const std::string& varbind : table.tree({{1, 1}, {3, 1}})) expected.push_back(varbind);
  }
  expected.insert(expected.begin() + 1, "hr.1.1.2.2=t:1234");
  EXPECT_EQ(lines(seen), lines(expected));
}

}  // namespace
}  // namespace SnmpTest
