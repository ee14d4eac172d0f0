// The object, and what each table does on its own: the insert rules.
#include "mib-state/TrelMib.h"

#include <gmock/gmock.h>

#include "tests/mib-state/TableTraits.h"
#include "tests/support/Reflection.h"
#include "tests/support/Thrown.h"

namespace {

using namespace TrelSnmp;
using Kor::MutatorReinstantiationException;
using testing::ElementsAre;
using Trel::ReachabilityState;

constexpr uint32_t kMaxIndex = 4294967295u;

class TrelMibTest : public testing::Test {
 protected:
  TrelMibTest() {
    subscription_ = mib_->publisher().subscribe([this](const TrelMib::Change& change) {
      log_ += fmt::format("{}{}[{}] ", change.entry ? "+" : "-", change.table, keyText(change.key));
    });
  }
  static Zavro::Ptr<const ReachabilityState> state() {
    return Zavro::makePtr<ReachabilityState>(ReachabilityState::reachable, std::nullopt, 0u);
  }
  template <class Call>
  static std::string conflict(Call call) {
    return thrown<MutatorReinstantiationException>(call);
  }

  Zavro::Ptr<TrelMib> mib_ = trelMibFactory("trelMib");
  std::string log_;
  Kor::Subscription subscription_;
};

TEST_F(TrelMibTest, NewObject_HasItsNameAndFiveEmptyTables) {
  for (auto make : {&trelMibFactory, TrelMibIs}) {
    Zavro::Ptr<TrelMib> mib = make("some name");
    EXPECT_EQ(mib->useCount(), 1u);
    EXPECT_EQ(mib->name(), "some name");
    EXPECT_TRUE(mib->trelIfTable().empty());
    EXPECT_TRUE(mib->trelReachabilityTable().empty());
    EXPECT_TRUE(mib->trelHrSystemTable().empty());
    EXPECT_TRUE(mib->trelProcessorTable().empty());
    EXPECT_TRUE(mib->trelHrStorageTable().empty());
  }
  EXPECT_STREQ(TrelMib::kPath, "snmp/trel/trelMib");
}

TEST_F(TrelMibTest, TypeInformation) {
  EXPECT_EQ(mib_->korType().name(), "TrelSnmp::TrelMib");
  EXPECT_THAT(attributeNames(mib_->korType()),
              ElementsAre("name", "trelIfTable", "trelReachabilityTable", "trelHrSystemTable",
                          "trelProcessorTable", "trelHrStorageTable"));
  EXPECT_THAT(operationNames(mib_->korType()),
              ElementsAre("trelIfTableDelAll", "trelReachabilityTableDelAll", "trelHrSystemTableDelAll",
                          "trelProcessorTableDelAll", "trelHrStorageTableDelAll"));
  EXPECT_EQ(Kor::attribute(*mib_, "name"), "trelMib");
}

TEST_F(TrelMibTest, Tables_AreIndependent) {
  mib_->trelIfTableIs(7, 1, 2);
  mib_->trelHrSystemTableIs(7, nullptr);
  mib_->trelReachabilityTableIs({7, 7}, nullptr, nullptr);
  mib_->trelProcessorTableIs({7, 7}, nullptr);
  mib_->trelHrStorageTableIs(HrStorageTableTraits::record(7));
  mib_->trelIfTableDel(7);
  EXPECT_EQ(log_,
            "+trelIfTable[7] +trelHrSystemTable[7] +trelReachabilityTable[(firstId=7, secondId=7)] "
            "+trelProcessorTable[(trelMemberId=7, processorIndex=7)] "
            "+trelHrStorageTable[(trelMemberId=1, hrStorageIndex=3)] -trelIfTable[7] ");
  EXPECT_EQ(mib_->trelIfTable().version(), 2u);
  EXPECT_EQ(mib_->trelHrSystemTable().version(), 1u);
}

TEST_F(TrelMibTest, SameInterfaceRowTwice_IsTheSameEntry_PublishedOnce) {
  auto entry = mib_->trelIfTableIs(7, 1, 2);
  EXPECT_EQ(mib_->trelIfTableIs(7, 1, 2), entry);
  EXPECT_EQ(log_, "+trelIfTable[7] ");
  EXPECT_EQ(mib_->trelIfTable().version(), 1u);
  EXPECT_EQ(entry->useCount(), 2u);
}

TEST_F(TrelMibTest, OtherInterfaceRowUnderAKey_IsRefused_RowStays) {
  auto entry = mib_->trelIfTableIs(7, 1, 2);
  EXPECT_EQ(conflict([&] { mib_->trelIfTableIs(7, 1, 3); }),
            "TrelSnmp::TrelIfEntry exists with another remoteMemberId");
  EXPECT_EQ(conflict([&] { mib_->trelIfTableIs(7, 3, 2); }),
            "TrelSnmp::TrelIfEntry exists with another localMemberId");
  EXPECT_EQ(mib_->trelIfTable(7), entry);
  EXPECT_EQ(entry->localMemberId(), 1u);
  EXPECT_EQ(entry->remoteMemberId(), 2u);
  EXPECT_EQ(log_, "+trelIfTable[7] ");
  EXPECT_EQ(mib_->trelIfTable().version(), 1u);
}

TEST_F(TrelMibTest, DeletedFirst_TheRowComesBackWithOtherValues) {
  mib_->trelIfTableIs(7, 1, 2);
  mib_->trelIfTableDel(7);
  mib_->trelIfTableIs(7, 1, 3);
  EXPECT_EQ(mib_->trelIfTable(7)->remoteMemberId(), 3u);
  EXPECT_EQ(log_, "+trelIfTable[7] -trelIfTable[7] +trelIfTable[7] ");
}

TEST_F(TrelMibTest, ReachabilityRecords_CompareByIdentity) {
  auto first = state();
  auto ifMib = Zavro::makePtr<const IntfSnmp::IfMib>("ifMib");
  auto entry = mib_->trelReachabilityTableIs({1, 3}, first, ifMib);
  EXPECT_EQ(mib_->trelReachabilityTableIs({1, 3}, first, ifMib), entry);
  EXPECT_EQ(conflict([&] {
              mib_->trelReachabilityTableIs({1, 3}, state(), ifMib);
            }),
            "TrelSnmp::TrelReachabilityEntry exists with another reachabilityState");
  EXPECT_EQ(conflict([&] {
              mib_->trelReachabilityTableIs({1, 3}, first, Zavro::makePtr<const IntfSnmp::IfMib>("ifMib"));
            }),
            "TrelSnmp::TrelReachabilityEntry exists with another ifMib");
  EXPECT_EQ(conflict([&] {
              mib_->trelReachabilityTableIs({1, 3}, nullptr, ifMib);
            }),
            "TrelSnmp::TrelReachabilityEntry exists with another reachabilityState");
  EXPECT_EQ(mib_->trelReachabilityTable({1, 3}), entry);
  EXPECT_EQ(log_, "+trelReachabilityTable[(firstId=1, secondId=3)] ");
}

TEST_F(TrelMibTest, RefusedInsert_ReleasesWhatItWasGiven) {
  auto first = state();
  auto other = state();
  mib_->trelReachabilityTableIs({1, 3}, first, nullptr);
  EXPECT_THROW(mib_->trelReachabilityTableIs({1, 3}, other, nullptr), MutatorReinstantiationException);
  EXPECT_EQ(other->useCount(), 1u);
  EXPECT_EQ(first->useCount(), 2u);
  mib_->trelReachabilityTableDel(MemberIdPair(1, 3));
  EXPECT_EQ(first->useCount(), 1u);
}

TEST_F(TrelMibTest, SystemEntities_CompareByIdentity) {
  auto host = Zavro::makePtr<HostResources::HostResources>("4");
  auto entry = mib_->trelHrSystemTableIs(4, host);
  host->systemIs({1, 2, 3, 4, 5});
  EXPECT_EQ(mib_->trelHrSystemTableIs(4, host), entry);
  EXPECT_EQ(
      conflict([&] { mib_->trelHrSystemTableIs(4, Zavro::makePtr<HostResources::HostResources>("4")); }),
      "TrelSnmp::TrelHrSystemEntry exists with another hostResources");
  EXPECT_EQ(log_, "+trelHrSystemTable[4] ");
}

TEST_F(TrelMibTest, ProcessorRecords_CompareByIdentity) {
  auto processor = Zavro::makePtr<const HostResources::Processor>(int16_t{5});
  auto entry = mib_->trelProcessorTableIs({1, 2}, processor);
  EXPECT_EQ(mib_->trelProcessorTableIs({1, 2}, processor), entry);
  EXPECT_EQ(conflict([&] {
              mib_->trelProcessorTableIs({1, 2}, Zavro::makePtr<const HostResources::Processor>(int16_t{5}));
            }),
            "TrelSnmp::TrelProcessorEntry exists with another processor");
  EXPECT_EQ(log_, "+trelProcessorTable[(trelMemberId=1, processorIndex=2)] ");
}

TEST_F(TrelMibTest, NullRecords_AreValuesLikeOthers) {
  auto entry = mib_->trelProcessorTableIs({1, 2}, nullptr);
  EXPECT_EQ(mib_->trelProcessorTableIs({1, 2}, nullptr), entry);
  EXPECT_EQ(entry->processor(), nullptr);
}

class StorageTableTest : public TrelMibTest {
 protected:
  static Zavro::Ptr<const TrelHrStorageEntry> memory(uint32_t index) {
    return TrelHrStorageEntryMemIs({1, index}, Snmp::ObjectIdentifier("1.3"), "RAM", nullptr);
  }
  static Zavro::Ptr<const TrelHrStorageEntry> mount(uint32_t index) {
    return TrelHrStorageEntryMountIs({1, index}, Snmp::ObjectIdentifier("1.3"), "/", nullptr);
  }
  static constexpr const char* kPublished = "+trelHrStorageTable[(trelMemberId=1, hrStorageIndex=2)] ";
};

TEST_F(StorageTableTest, NullEntry_IsRefused_TableStays) {
  mib_->trelHrStorageTableIs(memory(2));
  log_.clear();
  EXPECT_EQ(thrown<Kor::NullArgumentException>([&] { mib_->trelHrStorageTableIs(nullptr); }),
            "null argument for trelHrStorageTable");
  EXPECT_EQ(mib_->trelHrStorageTable().size(), 1u);
  EXPECT_EQ(log_, "");
}

TEST_F(StorageTableTest, EntryIsFiledUnderItsOwnKey_AsItIs) {
  auto entry = memory(2);
  EXPECT_EQ(mib_->trelHrStorageTableIs(entry), entry);
  EXPECT_EQ(mib_->trelHrStorageTable({1, 2}), entry);
  EXPECT_EQ(entry->useCount(), 2u);
  EXPECT_EQ(log_, kPublished);
}

TEST_F(StorageTableTest, SameEntryTwice_IsPublishedOnce) {
  auto entry = memory(2);
  mib_->trelHrStorageTableIs(entry);
  EXPECT_EQ(mib_->trelHrStorageTableIs(entry), entry);
  EXPECT_EQ(log_, kPublished);
  EXPECT_EQ(entry->useCount(), 2u);
}

TEST_F(StorageTableTest, OtherEntryUnderTheKey_ReplacesTheRow_OldOneIsReleased) {
  auto first = memory(2);
  auto second = mount(2);
  mib_->trelHrStorageTableIs(first);
  EXPECT_EQ(mib_->trelHrStorageTableIs(second), second);
  EXPECT_EQ(mib_->trelHrStorageTable({1, 2}), second);
  EXPECT_EQ(mib_->trelHrStorageTable().size(), 1u);
  EXPECT_EQ(first->useCount(), 1u);
  EXPECT_EQ(log_, std::string(kPublished) + kPublished);
}

TEST_F(StorageTableTest, EqualEntryThatIsAnotherObject_ReplacesToo) {
  mib_->trelHrStorageTableIs(memory(2));
  auto equal = memory(2);
  mib_->trelHrStorageTableIs(equal);
  EXPECT_EQ(mib_->trelHrStorageTable({1, 2}), equal);
  EXPECT_EQ(log_, std::string(kPublished) + kPublished);
}

TEST_F(StorageTableTest, Replacement_PublishesTheNewEntry) {
  mib_->trelHrStorageTableIs(memory(2));
  Zavro::Ptr<const Kor::ValueEntity> published;
  Kor::Subscription subscription =
      mib_->publisher().subscribe([&](const TrelMib::Change& change) { published = change.entry; });
  auto second = mount(2);
  mib_->trelHrStorageTableIs(second);
  EXPECT_EQ(published, second);
}

TEST_F(StorageTableTest, Replacement_IsNoChangeOfRows_WalksGoOn) {
  for (uint32_t index : {1u, 2u, 3u}) mib_->trelHrStorageTableIs(memory(index));
  auto cursor = mib_->trelHrStorageTable().cursorAt({1, 2});
  auto held = cursor.entry();
  mib_->trelHrStorageTableIs(mount(2));
  mib_->trelHrStorageTableIs(mount(3));
  EXPECT_EQ(mib_->trelHrStorageTable().version(), 3u);
  EXPECT_EQ(cursor.entry(), held);
  cursor.next();
  EXPECT_EQ(cursor.entry(), mib_->trelHrStorageTable({1, 3}));
}

TEST_F(StorageTableTest, ReplacedThenDeletedUnderAWalk_WalkGoesOnBehindIt) {
  for (uint32_t index : {1u, 2u, 3u}) mib_->trelHrStorageTableIs(memory(index));
  auto cursor = mib_->trelHrStorageTable().cursorAt({1, 2});
  mib_->trelHrStorageTableIs(mount(2));
  mib_->trelHrStorageTableDel(TrelHrStorageKey(1, 2));
  cursor.next();
  EXPECT_EQ(cursor.key(), TrelHrStorageKey(1, 3));
}

TEST_F(TrelMibTest, ReachabilityRows_AreWalkedBySourceThenDestination) {
  for (MemberIdPair key : {MemberIdPair(2, 0), MemberIdPair(1, 5), MemberIdPair(1, 4)}) {
    mib_->trelReachabilityTableIs(key, nullptr, nullptr);
  }
  std::string walk;
  for (auto row = mib_->trelReachabilityTable().begin(); row; row.next()) walk += row.key().text() + " ";
  EXPECT_EQ(walk, "(firstId=1, secondId=4) (firstId=1, secondId=5) (firstId=2, secondId=0) ");
}

TEST_F(TrelMibTest, KeysAndFieldsOfEverySize_AreTakenAndOrderedUnsigned) {
  for (uint32_t key : {kMaxIndex, 0u, 0x80000000u, 0x7fffffffu, 1u}) mib_->trelIfTableIs(key, kMaxIndex, 0);
  std::string walk;
  for (auto row = mib_->trelIfTable().begin(); row; row.next()) walk += fmt::format("{} ", row.key());
  EXPECT_EQ(walk, "0 1 2147483647 2147483648 4294967295 ");
  EXPECT_EQ(mib_->trelIfTable(kMaxIndex)->localMemberId(), kMaxIndex);
  EXPECT_FALSE(mib_->trelIfTable().upperBoundCursor(kMaxIndex));
}

TEST_F(TrelMibTest, DeletingByOnesOwnFields_ReadsThemFirst) {
  auto reader = mib_->trelIfTableIs(7, 1, 2);
  mib_->trelIfTableDel(reader->ifIndex());
  EXPECT_EQ(reader->remoteMemberId(), 2u);
  EXPECT_EQ(reader->useCount(), 1u);
}

}  // namespace
