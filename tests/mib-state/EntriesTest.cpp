#include "mib-state/Entries.h"

#include <gmock/gmock.h>

#include <csignal>
#include <limits>

#include "tests/support/Reflection.h"

namespace {

using namespace TrelSnmp;
using HostResources::MemInfo;
using HostResources::StorageInfo;
using testing::ElementsAre;
using Trel::ReachabilityState;

constexpr uint32_t kMax = 4294967295u;

TEST(TrelIfEntryTest, HoldsItsNumbers_UncheckedAndUnclamped) {
  auto entry = Zavro::makePtr<const TrelIfEntry>(kMax, 0u, kMax);
  EXPECT_EQ(entry->useCount(), 1u);
  EXPECT_EQ(entry->key(), kMax);
  EXPECT_EQ(entry->ifIndex(), kMax);
  EXPECT_EQ(entry->localMemberId(), 0u);
  EXPECT_EQ(entry->remoteMemberId(), kMax);
}

TEST(TrelIfEntryTest, SaysInWhatItDiffers) {
  TrelIfEntry entry(7, 1, 2);
  EXPECT_EQ(entry.differsFrom(1, 2), nullptr);
  EXPECT_STREQ(entry.differsFrom(3, 2), "localMemberId");
  EXPECT_STREQ(entry.differsFrom(1, 3), "remoteMemberId");
  EXPECT_STREQ(entry.differsFrom(3, 3), "localMemberId");
}

TEST(TrelIfEntryTest, TypeInformation) {
  auto entry = Zavro::makePtr<const TrelIfEntry>(7u, 1u, 2u);
  EXPECT_EQ(entry->korType().name(), "TrelSnmp::TrelIfEntry");
  EXPECT_THAT(attributeNames(entry->korType()), ElementsAre("ifIndex", "localMemberId", "remoteMemberId"));
  EXPECT_THAT(settableNames(entry->korType()), ElementsAre());
  EXPECT_EQ(Kor::attribute(*entry, "ifIndex"), "7");
  EXPECT_EQ(Kor::attribute(*entry, "localMemberId"), "1");
  EXPECT_EQ(Kor::attribute(*entry, "remoteMemberId"), "2");
}

class ReachabilityEntryTest : public testing::Test {
 protected:
  ReachabilityEntryTest() { ifMib_->ifIndexByIntfId().set(Lanix::IntfId("Backplane1/2"), 12); }
  Zavro::Ptr<const TrelReachabilityEntry> entry(std::optional<Lanix::IntfId> intf,
                                                uint64_t lastChangeNs = 0) const {
    auto state =
        Zavro::makePtr<const ReachabilityState>(ReachabilityState::reachable, std::move(intf), lastChangeNs);
    return Zavro::makePtr<const TrelReachabilityEntry>(MemberIdPair(1, 3), state, ifMib_);
  }
  double lastUpdated(uint64_t ns) const { return entry(std::nullopt, ns)->lastUpdated(); }
  Zavro::Ptr<IntfSnmp::IfMib> ifMib_ = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
};

TEST_F(ReachabilityEntryTest, LastUpdated_IsInSeconds_WithoutRounding) {
  EXPECT_EQ(lastUpdated(0), 0);
  EXPECT_EQ(lastUpdated(1), 1e-9);
  EXPECT_EQ(lastUpdated(1500000000123456789u), 1500000000.1234567);
  EXPECT_EQ(lastUpdated(999999999), 0.999999999);
}

TEST_F(ReachabilityEntryTest, LastUpdatedAtOrAbove2To63_IsNotNegative) {
  EXPECT_EQ(lastUpdated(9223372036854775807u), 9223372036854775807.0 / 1e9);
  EXPECT_EQ(lastUpdated(9223372036854775808u), 9223372036.854775808);
  EXPECT_EQ(lastUpdated(std::numeric_limits<uint64_t>::max()), 18446744073.709551615);
}

TEST_F(ReachabilityEntryTest, BaIfIndex_IsThatOfTheInterface_ZeroWhenItIsUnknown) {
  EXPECT_EQ(entry(Lanix::IntfId("Backplane1/2"))->baIfIndex(), 12u);
  EXPECT_EQ(entry(Lanix::IntfId("Backplane1/3"))->baIfIndex(), 0u);
  EXPECT_EQ(entry(Lanix::IntfId())->baIfIndex(), 0u);
  EXPECT_EQ(entry(std::nullopt)->baIfIndex(), 0u);
}

TEST_F(ReachabilityEntryTest, AbsentInterface_IsLookedUpAsTheEmptyName) {
  ifMib_->ifIndexByIntfId().set(Lanix::IntfId(""), 99);
  EXPECT_EQ(entry(std::nullopt)->baIfIndex(), 99u);
  EXPECT_EQ(entry(Lanix::IntfId("Backplane1/3"))->baIfIndex(), 0u);
}

TEST_F(ReachabilityEntryTest, BaIfIndex_IsComputedOnEachRead) {
  auto row = entry(Lanix::IntfId("Backplane1/2"));
  ifMib_->ifIndexByIntfId().set(Lanix::IntfId("Backplane1/2"), kMax);
  EXPECT_EQ(row->baIfIndex(), kMax);
  ifMib_->ifIndexByIntfId().del(Lanix::IntfId("Backplane1/2"));
  EXPECT_EQ(row->baIfIndex(), 0u);
}

TEST_F(ReachabilityEntryTest, WithoutRecords_ReadsAsZero) {
  auto row = Zavro::makePtr<const TrelReachabilityEntry>(MemberIdPair(1, 3), nullptr, nullptr);
  EXPECT_EQ(row->lastUpdated(), 0);
  EXPECT_EQ(row->baIfIndex(), 0u);
  EXPECT_EQ(row->reachabilityState(), nullptr);
}

TEST_F(ReachabilityEntryTest, Records_CompareByIdentityNotByValue) {
  auto row = entry(std::nullopt);
  auto equalButOther =
      Zavro::makePtr<const ReachabilityState>(ReachabilityState::reachable, std::nullopt, 0u);
  Zavro::Ptr<const IntfSnmp::IfMib> otherIfMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  EXPECT_EQ(row->differsFrom(row->reachabilityState(), ifMib_), nullptr);
  EXPECT_STREQ(row->differsFrom(equalButOther, ifMib_), "reachabilityState");
  EXPECT_STREQ(row->differsFrom(nullptr, ifMib_), "reachabilityState");
  EXPECT_STREQ(row->differsFrom(row->reachabilityState(), otherIfMib), "ifMib");
  EXPECT_STREQ(row->differsFrom(equalButOther, otherIfMib), "reachabilityState");
}

TEST_F(ReachabilityEntryTest, TypeInformation) {
  auto row = entry(Lanix::IntfId("Backplane1/2"), 1500000000000000000u);
  EXPECT_EQ(row->korType().name(), "TrelSnmp::TrelReachabilityEntry");
  EXPECT_THAT(attributeNames(row->korType()),
              ElementsAre("key", "reachabilityState", "ifMib", "lastUpdated", "baIfIndex"));
  EXPECT_EQ(Kor::attribute(*row, "key"), "(firstId=1, secondId=3)");
  EXPECT_EQ(Kor::attribute(*row, "reachabilityState"),
            "(state=reachable, intf=Backplane1/2, lastChange=1500000000000000000)");
  EXPECT_EQ(Kor::attribute(*row, "ifMib"), "ifMib");
  EXPECT_EQ(Kor::attribute(*row, "lastUpdated"), "1500000000");
  EXPECT_EQ(Kor::attribute(*row, "baIfIndex"), "12");
  auto bare = Zavro::makePtr<const TrelReachabilityEntry>(MemberIdPair(1, 3), nullptr, nullptr);
  EXPECT_EQ(Kor::attribute(*bare, "reachabilityState"), "None");
  EXPECT_EQ(Kor::attribute(*bare, "ifMib"), "None");
}

TEST_F(ReachabilityEntryTest, Row_HoldsItsRecords_AndReleasesThem) {
  auto row = entry(std::nullopt);
  EXPECT_EQ(row->useCount(), 1u);
  EXPECT_EQ(ifMib_->useCount(), 2u);
  row.reset();
  EXPECT_EQ(ifMib_->useCount(), 1u);
}

TEST(TrelProcessorEntryTest, ReferencesItsRecord) {
  auto processor = Zavro::makePtr<const HostResources::Processor>(int16_t{-1});
  auto same = Zavro::makePtr<const HostResources::Processor>(int16_t{-1});
  auto entry = Zavro::makePtr<const TrelProcessorEntry>(ProcessorKey(1, 2), processor);
  EXPECT_EQ(entry->processor()->load(), -1);
  EXPECT_EQ(entry->differsFrom(processor), nullptr);
  EXPECT_STREQ(entry->differsFrom(same), "processor");
  EXPECT_EQ(entry->korType().name(), "TrelSnmp::TrelProcessorEntry");
  EXPECT_THAT(attributeNames(entry->korType()), ElementsAre("key", "processor"));
  EXPECT_EQ(Kor::attribute(*entry, "key"), "(trelMemberId=1, processorIndex=2)");
  EXPECT_EQ(Kor::attribute(*entry, "processor"), "(load=-1)");
}

TEST(TrelHrSystemEntryTest, ReadsThroughItsEntity_WhichChangesInPlace) {
  auto host = Zavro::makePtr<HostResources::HostResources>("4");
  auto entry = Zavro::makePtr<const TrelHrSystemEntry>(4u, host);
  host->systemIs({1, 2, 3, 4, 5});
  EXPECT_EQ(entry->hostResources()->system().memorySize, 5u);
  EXPECT_EQ(entry->key(), 4u);
  EXPECT_EQ(entry->trelMemberId(), 4u);
  EXPECT_EQ(entry->differsFrom(host), nullptr);
  EXPECT_STREQ(entry->differsFrom(nullptr), "hostResources");
  EXPECT_EQ(entry->korType().name(), "TrelSnmp::TrelHrSystemEntry");
  EXPECT_THAT(attributeNames(entry->korType()), ElementsAre("trelMemberId", "hostResources"));
  EXPECT_EQ(Kor::attribute(*entry, "trelMemberId"), "4");
  EXPECT_EQ(Kor::attribute(*entry, "hostResources"), "4");
  EXPECT_EQ(Kor::attribute(*Zavro::makePtr<const TrelHrSystemEntry>(4u, nullptr), "hostResources"), "None");
}

Zavro::Ptr<const TrelHrStorageEntry> mount(uint32_t units, uint64_t size, uint64_t free) {
  return trelHrStorageEntryMountFactory(TrelHrStorageKey(1, 40),
                                        Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.4"), "/var",
                                        Zavro::makePtr<const StorageInfo>(units, size, free));
}

TEST(StorageEntryMountTest, Figures_AreTheLow32Bits) {
  EXPECT_EQ(mount(4096, 100, 40)->allocationUnits(), 4096u);
  EXPECT_EQ(mount(4096, 100, 40)->size(), 100u);
  EXPECT_EQ(mount(4096, 100, 40)->used(), 60u);
  EXPECT_EQ(mount(1, 0x1'0000'0005u, 3)->size(), 5u);
  EXPECT_EQ(mount(1, 0x1'0000'0005u, 3)->used(), 2u);
  EXPECT_EQ(mount(1, std::numeric_limits<uint64_t>::max(), 0)->size(), kMax);
}

TEST(StorageEntryMountTest, Used_WrapsAndIsNeverClamped) {
  EXPECT_EQ(mount(1, 100, 150)->used(), 4294967246u);
  EXPECT_EQ(mount(1, 0, 1)->used(), kMax);
  EXPECT_EQ(mount(1, 0x1'0000'0000u, 1)->used(), kMax);
  EXPECT_EQ(mount(1, 100, 0x1'0000'0000u)->used(), 100u);
  EXPECT_EQ(mount(1, 0x2'0000'0000u, 0)->used(), 0u);
}

TEST(StorageEntryMountTest, WithoutARecord_AllocationUnitsAreZero) {
  auto entry =
      TrelHrStorageEntryMountIs(TrelHrStorageKey(1, 40), Snmp::ObjectIdentifier("1.3"), "/var", nullptr);
  EXPECT_EQ(entry->useCount(), 1u);
  EXPECT_EQ(entry->allocationUnits(), 0u);
  EXPECT_EQ(Kor::attribute(*entry, "allocationUnits"), "0");
  EXPECT_EQ(Kor::attribute(*entry, "size"), "None");
  EXPECT_EQ(Kor::attribute(*entry, "used"), "None");
  EXPECT_EQ(Kor::attribute(*entry, "storageInfo"), "None");
}

TEST(StorageEntryMountDeathTest, SizeAndUsedWithoutARecord_AreABug) {
  auto entry =
      TrelHrStorageEntryMountIs(TrelHrStorageKey(1, 40), Snmp::ObjectIdentifier("1.3"), "/var", nullptr);
  EXPECT_EXIT(entry->size(), testing::KilledBySignal(SIGABRT), "`storageInfo_ != nullptr'");
  EXPECT_EXIT(entry->used(), testing::KilledBySignal(SIGABRT), "`storageInfo_ != nullptr'");
}

TEST(StorageEntryMountTest, FieldsAndTypeInformation) {
  auto entry = mount(4096, 100, 150);
  EXPECT_EQ(entry->useCount(), 1u);
  EXPECT_EQ(entry->key(), TrelHrStorageKey(1, 40));
  EXPECT_EQ(entry->type(), Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.4"));
  EXPECT_EQ(entry->descr(), "/var");
  EXPECT_EQ(entry->korType().name(), "TrelSnmp::TrelHrStorageEntryMount");
  EXPECT_THAT(attributeNames(entry->korType()),
              ElementsAre("key", "type", "descr", "allocationUnits", "size", "used", "storageInfo"));
  EXPECT_EQ(Kor::attribute(*entry, "key"), "(trelMemberId=1, hrStorageIndex=40)");
  EXPECT_EQ(Kor::attribute(*entry, "type"), "1.3.6.1.2.1.25.2.1.4");
  EXPECT_EQ(Kor::attribute(*entry, "descr"), "/var");
  EXPECT_EQ(Kor::attribute(*entry, "allocationUnits"), "4096");
  EXPECT_EQ(Kor::attribute(*entry, "size"), "100");
  EXPECT_EQ(Kor::attribute(*entry, "used"), "4294967246");
  EXPECT_EQ(Kor::attribute(*entry, "storageInfo"), "(allocationUnits=4096, size=100, free=150)");
}

Zavro::Ptr<const TrelHrStorageEntry> memory(uint32_t index, const MemInfo::Amounts& amounts) {
  return trelHrStorageEntryMemFactory(TrelHrStorageKey(1, index),
                                      Snmp::ObjectIdentifier("1.3.6.1.2.1.25.2.1.2"), "RAM",
                                      Zavro::makePtr<const MemInfo>(amounts));
}

constexpr MemInfo::Amounts kAllAmounts = {8000000, 1000000, 3000000, 2000000, 500000};

TEST(StorageEntryMemTest, StorageIndex_ChoosesTheAmountThatIsNotUsed) {
  EXPECT_EQ(memory(1, kAllAmounts)->used(), 7000000u);
  EXPECT_EQ(memory(100, kAllAmounts)->used(), 5000000u);
  EXPECT_EQ(memory(2, kAllAmounts)->used(), 6000000u);
  EXPECT_EQ(memory(3, kAllAmounts)->used(), 7500000u);
  for (uint32_t other : {0u, 4u, 5u, 99u, 101u, kMax})
    EXPECT_EQ(memory(other, kAllAmounts)->used(), 0u) << other;
}

TEST(StorageEntryMemTest, SizeIsTheTotal_InUnitsOf1024Bytes_UnderEveryIndex) {
  for (uint32_t index : {1u, 2u, 3u, 4u, 100u}) {
    EXPECT_EQ(memory(index, kAllAmounts)->size(), 8000000u);
    EXPECT_EQ(memory(index, kAllAmounts)->allocationUnits(), 1024u);
    EXPECT_EQ(memory(index, {})->allocationUnits(), 1024u);
  }
}

TEST(StorageEntryMemTest, AbsentAmount_LeavesEverythingUsed) {
  MemInfo::Amounts onlyTotal;
  onlyTotal.total = 8000000;
  for (uint32_t index : {1u, 100u, 2u, 3u}) EXPECT_EQ(memory(index, onlyTotal)->used(), 8000000u) << index;
  EXPECT_EQ(memory(4, onlyTotal)->used(), 0u);
}

TEST(StorageEntryMemTest, AbsentOrZeroTotal_ReadsZero_WhateverTheAmounts) {
  MemInfo::Amounts amounts = kAllAmounts;
  for (std::optional<uint32_t> total : {std::optional<uint32_t>(), std::optional<uint32_t>(0)}) {
    amounts.total = total;
    for (uint32_t index : {1u, 100u, 2u, 3u, 4u}) {
      EXPECT_EQ(memory(index, amounts)->size(), 0u);
      EXPECT_EQ(memory(index, amounts)->used(), 0u);
    }
  }
}

TEST(StorageEntryMemTest, AmountAboveTheTotal_Wraps) {
  EXPECT_EQ(memory(1, {100, 150, {}, {}, {}})->used(), 4294967246u);
  EXPECT_EQ(memory(1, {kMax, 0, {}, {}, {}})->used(), kMax);
  EXPECT_EQ(memory(1, {1, kMax, {}, {}, {}})->used(), 2u);
  EXPECT_EQ(memory(1, {100, 100, {}, {}, {}})->used(), 0u);
}

TEST(StorageEntryMemTest, WithoutARecord_ReadsZero) {
  auto entry = TrelHrStorageEntryMemIs(TrelHrStorageKey(1, 1), Snmp::ObjectIdentifier("1.3"), "RAM", nullptr);
  EXPECT_EQ(entry->useCount(), 1u);
  EXPECT_EQ(entry->size(), 0u);
  EXPECT_EQ(entry->used(), 0u);
  EXPECT_EQ(Kor::attribute(*entry, "memInfo"), "None");
}

TEST(StorageEntryMemTest, TypeInformation) {
  auto entry = memory(100, kAllAmounts);
  EXPECT_EQ(entry->korType().name(), "TrelSnmp::TrelHrStorageEntryMem");
  EXPECT_THAT(attributeNames(entry->korType()),
              ElementsAre("key", "type", "descr", "allocationUnits", "size", "used", "memInfo"));
  EXPECT_EQ(Kor::attribute(*entry, "key"), "(trelMemberId=1, hrStorageIndex=100)");
  EXPECT_EQ(Kor::attribute(*entry, "descr"), "RAM");
  EXPECT_EQ(Kor::attribute(*entry, "allocationUnits"), "1024");
  EXPECT_EQ(Kor::attribute(*entry, "size"), "8000000");
  EXPECT_EQ(Kor::attribute(*entry, "used"), "5000000");
  EXPECT_EQ(Kor::attribute(*entry, "memInfo"), fmt::format("{}", *Zavro::makePtr<MemInfo>(kAllAmounts)));
}

}  // namespace
