#include "platform/hostresources/HostResources.h"

#include <gmock/gmock.h>

#include <limits>

#include "platform/hostresources/StorageEntryMappings.h"
#include "tests/support/Reflection.h"

namespace {

using testing::ElementsAre;
using Host = HostResources::HostResources;

TEST(ProcessorTest, IsARecord) {
  auto processor = Zavro::makePtr<const HostResources::Processor>(std::numeric_limits<int16_t>::min());
  EXPECT_EQ(processor->load(), -32768);
  EXPECT_EQ(processor->text(), "(load=-32768)");
  EXPECT_EQ(processor->korType().name(), "HostResources::Processor");
  EXPECT_THAT(attributeNames(processor->korType()), ElementsAre("load"));
  EXPECT_EQ(Kor::attribute(*processor, "load"), "-32768");
}

TEST(StorageInfoTest, IsARecord) {
  auto info =
      Zavro::makePtr<const HostResources::StorageInfo>(4096u, std::numeric_limits<uint64_t>::max(), 5u);
  EXPECT_EQ(info->text(), "(allocationUnits=4096, size=18446744073709551615, free=5)");
  EXPECT_EQ(info->korType().name(), "HostResources::StorageInfo");
  EXPECT_THAT(attributeNames(info->korType()), ElementsAre("allocationUnits", "size", "free"));
  EXPECT_EQ(Kor::attribute(*info, "allocationUnits"), "4096");
  EXPECT_EQ(Kor::attribute(*info, "size"), "18446744073709551615");
  EXPECT_EQ(Kor::attribute(*info, "free"), "5");
}

TEST(MemInfoTest, IsARecordOfOptionalAmounts) {
  HostResources::MemInfo::Amounts amounts;
  amounts.total = 100;
  amounts.available = 0;
  auto info = Zavro::makePtr<const HostResources::MemInfo>(amounts);
  EXPECT_EQ(info->text(),
            "(total=Optional( 100 ), free=None, available=Optional( 0 ), nonBuffer=None, nonCache=None)");
  EXPECT_EQ(info->korType().name(), "HostResources::MemInfo");
  EXPECT_THAT(attributeNames(info->korType()),
              ElementsAre("total", "free", "available", "nonBuffer", "nonCache"));
  EXPECT_EQ(Kor::attribute(*info, "total"), "Optional( 100 )");
  EXPECT_EQ(Kor::attribute(*info, "free"), "None");
  EXPECT_EQ(Kor::attribute(*info, "available"), "Optional( 0 )");
  EXPECT_EQ(Kor::attribute(*info, "nonBuffer"), "None");
  EXPECT_EQ(Kor::attribute(*info, "nonCache"), "None");
}

TEST(HostResourcesTest, NewHost_ReadsAllZeroAndHasNothing) {
  auto host = Zavro::makePtr<Host>("3");
  EXPECT_EQ(host->system(), Host::System());
  EXPECT_TRUE(host->processorTable().empty());
  EXPECT_TRUE(host->storageInfoTable().empty());
  EXPECT_EQ(host->memInfo(), nullptr);
}

TEST(HostResourcesTest, Attributes_AreNamed_FiguresCanBeSet) {
  auto host = Zavro::makePtr<Host>("3");
  EXPECT_EQ(host->korType().name(), "HostResources::HostResources");
  EXPECT_THAT(attributeNames(host->korType()),
              ElementsAre("name", "systemUptime", "currentTimeUtc", "systemNumUsers", "systemProcesses",
                          "memorySize", "processorTable", "storageInfoTable", "memInfo"));
  EXPECT_THAT(settableNames(host->korType()), ElementsAre("systemUptime", "currentTimeUtc", "systemNumUsers",
                                                          "systemProcesses", "memorySize"));
}

TEST(HostResourcesTest, FiguresSetByName_ChangeInPlace_EachItsOwn) {
  auto host = Zavro::makePtr<Host>("3");
  Kor::attributeIs(*host, "systemUptime", "1.5");
  Kor::attributeIs(*host, "currentTimeUtc", "1700000000.25");
  Kor::attributeIs(*host, "systemNumUsers", "2");
  Kor::attributeIs(*host, "systemProcesses", "300");
  Kor::attributeIs(*host, "memorySize", "4294967295");
  EXPECT_EQ(host->system(), (Host::System{1.5, 1700000000.25, 2, 300, 4294967295u}));
  EXPECT_EQ(Kor::attribute(*host, "systemUptime"), "1.5");
  EXPECT_EQ(Kor::attribute(*host, "currentTimeUtc"), "1700000000.25");
  EXPECT_EQ(Kor::attribute(*host, "systemNumUsers"), "2");
  EXPECT_EQ(Kor::attribute(*host, "systemProcesses"), "300");
  EXPECT_EQ(Kor::attribute(*host, "memorySize"), "4294967295");
}

TEST(HostResourcesTest, FigureThatIsNoNumber_IsRefusedAndStays) {
  auto host = Zavro::makePtr<Host>("3");
  Kor::attributeIs(*host, "memorySize", "7");
  EXPECT_THROW(Kor::attributeIs(*host, "memorySize", "4294967296"), Kor::ParseException);
  EXPECT_THROW(Kor::attributeIs(*host, "memorySize", "7.5"), Kor::ParseException);
  EXPECT_THROW(Kor::attributeIs(*host, "systemUptime", "a while"), Kor::ParseException);
  EXPECT_THROW(Kor::attributeIs(*host, "name", "4"), Kor::NoSuchMemberException);
  EXPECT_EQ(host->system().memorySize, 7u);
  EXPECT_EQ(host->system().systemUptime, 0);
}

TEST(HostResourcesTest, MemInfo_NotifiesWheneverItIsSet) {
  auto host = Zavro::makePtr<Host>("3");
  std::string log;
  Kor::Subscription subscription = host->memInfoElement().subscribe(
      [&](const auto&) { log += Kor::attribute(*host, "memInfo").substr(0, 8) + " "; });
  auto info = Zavro::makePtr<const HostResources::MemInfo>(HostResources::MemInfo::Amounts());
  host->memInfoIs(info);
  host->memInfoIs(info);
  host->memInfoIs(nullptr);
  EXPECT_EQ(log, "Optional Optional None ");
  EXPECT_EQ(info->useCount(), 1u);
}

TEST(HostResourcesTest, Tables_CountInTheirAttributes) {
  auto host = Zavro::makePtr<Host>("3");
  host->processorTable().set(1, Zavro::makePtr<HostResources::Processor>(int16_t{5}));
  host->storageInfoTable().set("/", Zavro::makePtr<HostResources::StorageInfo>(1u, 2u, 3u));
  host->storageInfoTable().set("/var", nullptr);
  EXPECT_EQ(Kor::attribute(*host, "processorTable"), "1");
  EXPECT_EQ(Kor::attribute(*host, "storageInfoTable"), "2");
  EXPECT_EQ(Kor::attribute(*host, "memInfo"), "None");
}

TEST(StorageEntryMappingsTest, IsASingletonThatIsMadeOnDemand) {
  using HostResourcesMib::StorageEntryMappings;
  EXPECT_EQ(Kor::Entity::singletonExists(StorageEntryMappings::kTypeName), nullptr);
  Zavro::Ptr<Kor::Entity> made = Kor::Entity::singletonIs("HostResourcesMib::StorageEntryMappings");
  auto* mappings = dynamic_cast<StorageEntryMappings*>(made.get());
  ASSERT_NE(mappings, nullptr);
  mappings->mountEntries().set("/var", {Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.4"), "/var", 40});
  mappings->memEntries().set(-1, {});
  EXPECT_EQ(mappings->mountEntries().find(std::string("/var"))->index, 40u);
  EXPECT_EQ(made->korType().name(), StorageEntryMappings::kTypeName);
  EXPECT_THAT(attributeNames(made->korType()), ElementsAre("name", "mountEntries", "memEntries"));
  EXPECT_EQ(Kor::attribute(*made, "name"), "storageEntryMappings");
  EXPECT_EQ(Kor::attribute(*made, "mountEntries"), "1");
  EXPECT_EQ(Kor::attribute(*made, "memEntries"), "1");
  Kor::Entity::singletonDel(StorageEntryMappings::kTypeName);
}

}  // namespace
