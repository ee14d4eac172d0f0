// The five tables as the control protocol shows them.
#include "host/TableReport.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "platform/snmp/AgentUptime.h"

namespace Host {
namespace {

using nlohmann::ordered_json;

// Without what describes the table.
std::vector<std::string> lines(const TrelSnmp::TrelMib& mib) {
  std::vector<std::string> all;
  auto report = tableReport(mib);
  std::string line;
  while (report->next(line)) {
    ordered_json answer = ordered_json::parse(line);
    for (const char* member : {"oid", "columns", "indexColumns"}) answer.erase(member);
    all.push_back(answer.dump());
  }
  return all;
}

Zavro::Ptr<TrelSnmp::TrelMib> emptyMib() { return TrelSnmp::trelMibFactory("trelMib"); }

TEST(TableReportTest, EmptyTables_OneLineEachAndTheEnd) {
  EXPECT_THAT(lines(*emptyMib()),
              testing::ElementsAre(R"({"ok":true,"table":"veldaTrelBaIfTable","rows":[]})",
                                   R"({"ok":true,"table":"veldaTrelReachabilityTable","rows":[]})",
                                   R"({"ok":true,"table":"veldaTrelHrSystemTable","rows":[]})",
                                   R"({"ok":true,"table":"veldaTrelProcessorTable","rows":[]})",
                                   R"({"ok":true,"table":"veldaTrelStorageTable","rows":[]})",
                                   R"({"ok":true,"done":true})"));
}

TEST(TableReportTest, EachLineDescribesItsTable) {
  auto mib = emptyMib();
  auto report = tableReport(*mib);
  std::string line;
  ASSERT_TRUE(report->next(line) && report->next(line));
  EXPECT_THAT(
      line,
      testing::MatchesRegex(
          R"(\{"ok":true,"table":"veldaTrelReachabilityTable","oid":"1\.3\.6\.1\.4\.1\.[0-9]+\.3\.40\.1\.2",)"
          R"("columns":\{"srcId":1,"destId":2,"baIfIndex":3,"state":4,"lastUpdate":5},"indexColumns":2,.*)"));
}

TEST(TableReportTest, EveryServedValueOfEveryTable) {
  Zavro::ManualClock clock(200'000'000'000);
  Snmp::AgentUptime uptime(clock, [] { return Zavro::Duration(100); });
  auto mib = emptyMib();
  mib->trelIfTableIs(4294967295u, 1, 2);
  auto ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Lanix::IntfId intf("Backplane1/1");
  ifMib->ifIndexByIntfId().set(intf, 7);
  auto state =
      Zavro::makePtr<const Trel::ReachabilityState>(Trel::ReachabilityState::degraded, intf, 101'500'000'000);
  mib->trelReachabilityTableIs({1, 2}, state, ifMib);
  auto host = Zavro::makePtr<HostResources::HostResources>("1");
  host->systemIs({12.5, 0, 3, 4, 5});
  mib->trelHrSystemTableIs(1, host);
  mib->trelProcessorTableIs({1, 9}, Zavro::makePtr<const HostResources::Processor>(int16_t{-1}));
  mib->trelHrStorageTableIs(TrelSnmp::trelHrStorageEntryMountFactory(
      {1, 31}, Snmp::ObjectIdentifier("1.3.6.1"), "/var",
      Zavro::makePtr<const HostResources::StorageInfo>(4096u, uint64_t{100}, uint64_t{40})));
  auto all = lines(*mib);
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(all[0], R"({"ok":true,"table":"veldaTrelBaIfTable","rows":)"
                    R"([{"ifIndex":4294967295,"localMemberId":1,"remoteMemberId":2}]})");
  EXPECT_EQ(all[1],
            R"({"ok":true,"table":"veldaTrelReachabilityTable","rows":[{"srcId":1,"destId":2,"baIfIndex":7,)"
            R"("state":4,"stateName":"degraded","lastUpdate":150}]})");
  EXPECT_EQ(all[2], R"({"ok":true,"table":"veldaTrelHrSystemTable","rows":[{"memberId":1,"upTime":1250,)"
                    R"("date":"1970-1-1,0:0:0.0,+0:0","numUsers":3,"processes":4,"memorySize":5}]})");
  EXPECT_EQ(all[3],
            R"({"ok":true,"table":"veldaTrelProcessorTable","rows":[{"memberId":1,"index":9,"load":-1}]})");
  EXPECT_EQ(all[4],
            R"({"ok":true,"table":"veldaTrelStorageTable","rows":[{"memberId":1,"index":31,"type":"1.3.6.1",)"
            R"("descr":"/var","allocUnits":4096,"size":100,"used":60}]})");
}

TEST(TableReportTest, AbsentRecords_ReadAsServed) {
  auto mib = emptyMib();
  mib->trelReachabilityTableIs({1, 2}, nullptr, nullptr);
  mib->trelHrSystemTableIs(1, nullptr);
  mib->trelProcessorTableIs({1, 1}, nullptr);
  auto all = lines(*mib);
  EXPECT_THAT(all[1], testing::HasSubstr(R"("state":1,"stateName":"unknown")"));
  EXPECT_THAT(all[2], testing::HasSubstr(R"("upTime":0)"));
  EXPECT_THAT(all[3], testing::HasSubstr(R"("load":0)"));
}

// Member ids of the interface table's rows.
std::vector<uint32_t> ifIndexes(const std::vector<std::string>& all) {
  std::vector<uint32_t> keys;
  for (const std::string& line : all) {
    auto json = ordered_json::parse(line);
    if (json.value("table", "") != "veldaTrelBaIfTable") continue;
    EXPECT_LE(json["rows"].size(), 64u);
    for (const auto& row : json["rows"]) keys.push_back(row["ifIndex"].get<uint32_t>());
  }
  return keys;
}

TEST(TableReportTest, ManyRows_ComeInSmallPartsInWalkOrder) {
  auto mib = emptyMib();
  std::vector<uint32_t> expected;
  for (uint32_t i = 0; i < 1000; ++i) {
    mib->trelIfTableIs(999 - i, 1, 2);
    expected.push_back(i);
  }
  EXPECT_EQ(ifIndexes(lines(*mib)), expected);
}

TEST(TableReportTest, RowsGoBetweenTheParts_TheOthersAllComeOnce) {
  auto mib = emptyMib();
  for (uint32_t i = 0; i < 200; ++i) mib->trelIfTableIs(i, 1, 2);
  auto report = tableReport(*mib);
  std::vector<std::string> all(1);
  report->next(all[0]);
  for (uint32_t i = 60; i < 70; ++i) mib->trelIfTableDel(i);
  std::string line;
  while (report->next(line)) {
    ordered_json answer = ordered_json::parse(line);
    for (const char* member : {"oid", "columns", "indexColumns"}) answer.erase(member);
    all.push_back(answer.dump());
  }
  std::vector<uint32_t> keys = ifIndexes(all);
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  for (uint32_t i = 0; i < 200; ++i) {
    auto times = std::count(keys.begin(), keys.end(), i);
    bool went = i >= 60 && i < 70;
    EXPECT_TRUE(times == 1 || (went && times == 0)) << i << " came " << times << " times";
  }
}

TEST(TableReportTest, DescriptionThatIsNoUtf8_DoesNotBreakTheAnswer) {
  auto mib = emptyMib();
  mib->trelHrStorageTableIs(TrelSnmp::trelHrStorageEntryMountFactory(
      {1, 1}, Snmp::ObjectIdentifier("1.3"), "\xff",
      Zavro::makePtr<const HostResources::StorageInfo>(1u, uint64_t{1}, uint64_t{1})));
  for (const std::string& line : lines(*mib)) EXPECT_TRUE(ordered_json::accept(line)) << line;
}

}  // namespace
}  // namespace Host
