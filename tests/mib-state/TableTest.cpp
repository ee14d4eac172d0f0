// What holds for each of the five tables alike.
#include "mib-state/Table.h"

#include <gtest/gtest.h>

#include "tests/mib-state/TableTraits.h"

namespace {

using TrelSnmp::TrelMib;

template <class Traits>
class TableTest : public testing::Test {
 protected:
  using Table = typename Traits::Table;
  using Cursor = typename Table::Cursor;

  TableTest() { follow(); }

  void follow() {
    subscription_ = mib_->publisher().subscribe([this](const TrelMib::Change& change) {
      EXPECT_EQ(change.table, Traits::kName);
      log_ += (change.entry ? "+" : "-") + keyText(change.key) + " ";
      lastPublished_ = change.entry;
      if (also_) also_(change);
    });
  }
  const Table& table() const { return Traits::table(*mib_); }
  auto is(uint32_t n) { return Traits::is(*mib_, n, Traits::record(n)); }
  auto row(uint32_t n) const { return Traits::row(*mib_, n); }
  template <class Where>
  auto del(const Where& where) {
    return Traits::del(*mib_, where);
  }
  void fill(std::initializer_list<uint32_t> rows) {
    for (uint32_t n : rows) is(n);
    log_.clear();
  }

  static std::string keys(std::initializer_list<uint32_t> rows, std::string_view prefix = "") {
    std::string text;
    for (uint32_t n : rows) text += fmt::format("{}{} ", prefix, Traits::key(n));
    return text;
  }
  static std::string keysFrom(Cursor cursor) {
    std::string text;
    for (; cursor; cursor.next()) text += fmt::format("{} ", cursor.key());
    return text;
  }
  std::string allKeys() const { return keysFrom(table().begin()); }

  Zavro::Ptr<TrelMib> mib_ = TrelSnmp::trelMibFactory("trelMib");
  std::string log_;
  Zavro::Ptr<const Kor::ValueEntity> lastPublished_;
  std::function<void(const TrelMib::Change&)> also_;
  Kor::Subscription subscription_;
};

using AllTables = testing::Types<IfTableTraits, ReachabilityTableTraits, HrSystemTableTraits,
                                 ProcessorTableTraits, HrStorageTableTraits>;
TYPED_TEST_SUITE(TableTest, AllTables);

TYPED_TEST(TableTest, NewTable_IsEmptyWithVersionZero) {
  EXPECT_TRUE(this->table().empty());
  EXPECT_EQ(this->table().size(), 0u);
  EXPECT_EQ(this->table().version(), 0u);
  EXPECT_FALSE(this->table().begin());
  EXPECT_FALSE(this->table().lowerBoundCursor(TypeParam::key(0)));
  EXPECT_EQ(this->row(0), nullptr);
}

TYPED_TEST(TableTest, InsertedRow_IsReturnedFoundAndPublishedOnce) {
  auto inserted = this->is(7);
  EXPECT_EQ(inserted->key(), TypeParam::key(7));
  EXPECT_EQ(this->row(7), inserted);
  EXPECT_EQ(this->row(6), nullptr);
  EXPECT_EQ(this->log_, this->keys({7}, "+"));
  EXPECT_EQ(this->lastPublished_, inserted);
  EXPECT_EQ(this->table().size(), 1u);
  EXPECT_FALSE(this->table().empty());
}

TYPED_TEST(TableTest, Rows_AreWalkedInKeyOrder_WhateverTheOrderOfInsertion) {
  this->fill({9, 2, 0, 15, 4, 3});
  EXPECT_EQ(this->allKeys(), this->keys({0, 2, 3, 4, 9, 15}));
}

TYPED_TEST(TableTest, Cursors_StartAtBehindOrExactlyAtAKey) {
  this->fill({2, 5, 9});
  EXPECT_EQ(this->keysFrom(this->table().lowerBoundCursor(TypeParam::key(5))), this->keys({5, 9}));
  EXPECT_EQ(this->keysFrom(this->table().lowerBoundCursor(TypeParam::key(6))), this->keys({9}));
  EXPECT_EQ(this->keysFrom(this->table().lowerBoundCursor(TypeParam::key(10))), "");
  EXPECT_EQ(this->keysFrom(this->table().upperBoundCursor(TypeParam::key(5))), this->keys({9}));
  EXPECT_EQ(this->keysFrom(this->table().upperBoundCursor(TypeParam::key(1))), this->keys({2, 5, 9}));
  EXPECT_EQ(this->keysFrom(this->table().upperBoundCursor(TypeParam::key(9))), "");
  EXPECT_EQ(this->keysFrom(this->table().cursorAt(TypeParam::key(5))), this->keys({5, 9}));
  EXPECT_FALSE(this->table().cursorAt(TypeParam::key(6)));
}

TYPED_TEST(TableTest, Cursor_TellsItsRowTableAndVersion) {
  this->fill({2, 5});
  auto cursor = this->table().begin();
  EXPECT_EQ(cursor.entry(), this->row(2));
  EXPECT_EQ(cursor.table(), &this->table());
  EXPECT_EQ(cursor.version(), 2u);
  this->is(3);
  EXPECT_EQ(cursor.version(), 2u);
  cursor.next();
  EXPECT_EQ(cursor.version(), 3u);
  EXPECT_EQ(cursor.entry(), this->row(3));
  EXPECT_FALSE(typename TestFixture::Cursor());
}

TYPED_TEST(TableTest, Version_AdvancesWithEveryInsertionAndRemoval_AndOnlyThen) {
  this->is(7);
  this->is(8);
  EXPECT_EQ(this->table().version(), 2u);
  this->del(TypeParam::key(7));
  EXPECT_EQ(this->table().version(), 3u);
  this->del(TypeParam::key(7));
  this->row(8);
  EXPECT_EQ(this->table().version(), 3u);
  TypeParam::delAll(*this->mib_);
  EXPECT_EQ(this->table().version(), 4u);
}

TYPED_TEST(TableTest, DeletedRow_IsHandedBackAndPublishedAsGone) {
  this->fill({2, 5, 9});
  auto row = this->row(5);
  EXPECT_EQ(this->del(TypeParam::key(5)), row);
  EXPECT_EQ(this->log_, this->keys({5}, "-"));
  EXPECT_EQ(this->lastPublished_, nullptr);
  EXPECT_EQ(this->row(5), nullptr);
  EXPECT_EQ(this->allKeys(), this->keys({2, 9}));
}

TYPED_TEST(TableTest, DeletingAMissingKey_IsNullAndNotPublished) {
  EXPECT_EQ(this->del(TypeParam::key(5)), nullptr);
  this->fill({2, 9});
  EXPECT_EQ(this->del(TypeParam::key(5)), nullptr);
  EXPECT_EQ(this->log_, "");
  EXPECT_EQ(this->table().size(), 2u);
}

TYPED_TEST(TableTest, DeletingByIterator_RemovesItsRow_AndTheIteratorGoesOn) {
  this->fill({2, 5, 9});
  auto iterator = this->table().cursorAt(TypeParam::key(5));
  auto row = this->row(5);
  EXPECT_EQ(this->del(iterator), row);
  EXPECT_EQ(this->del(iterator), nullptr);
  EXPECT_EQ(this->log_, this->keys({5}, "-"));
  iterator.next();
  EXPECT_EQ(this->keysFrom(iterator), this->keys({9}));
}

TYPED_TEST(TableTest, DeletingByAnIteratorPastTheEnd_IsNull) {
  this->fill({2});
  auto iterator = this->table().begin();
  iterator.next();
  EXPECT_EQ(this->del(iterator), nullptr);
  EXPECT_EQ(this->del(typename TestFixture::Cursor()), nullptr);
  EXPECT_EQ(this->log_, "");
  EXPECT_EQ(this->table().size(), 1u);
}

TYPED_TEST(TableTest, DeletingTheRowByItsOwnKey_IsSafe) {
  this->is(7);
  EXPECT_NE(this->del(this->table().find(TypeParam::key(7))->key()), nullptr);
  EXPECT_EQ(this->log_, this->keys({7}, "+") + this->keys({7}, "-"));
}

TYPED_TEST(TableTest, DeleteAll_PublishesEachRemovalInKeyOrder) {
  this->fill({9, 2, 5});
  TypeParam::delAll(*this->mib_);
  EXPECT_EQ(this->log_, this->keys({2, 5, 9}, "-"));
  EXPECT_TRUE(this->table().empty());
  TypeParam::delAll(*this->mib_);
  EXPECT_EQ(this->log_, this->keys({2, 5, 9}, "-"));
}

TYPED_TEST(TableTest, RowDeletedUnderAWalk_WalkGoesOnBehindIt) {
  this->fill({2, 5, 9});
  auto cursor = this->table().begin();
  this->del(TypeParam::key(2));
  EXPECT_EQ(cursor.key(), TypeParam::key(2));
  cursor.next();
  EXPECT_EQ(this->keysFrom(cursor), this->keys({5, 9}));
}

TYPED_TEST(TableTest, RowReplacedUnderAWalk_WalkGoesOnBehindIt) {
  this->fill({2, 5, 9});
  auto cursor = this->table().cursorAt(TypeParam::key(5));
  auto old = cursor.entry();
  this->del(TypeParam::key(5));
  this->is(5);
  EXPECT_EQ(cursor.entry(), old);
  EXPECT_NE(this->row(5), old);
  cursor.next();
  EXPECT_EQ(this->keysFrom(cursor), this->keys({9}));
}

TYPED_TEST(TableTest, RowsChangedAheadOfAWalk_AreSeenAsTheyAreThen) {
  this->fill({2, 5, 9});
  auto cursor = this->table().begin();
  this->del(TypeParam::key(5));
  this->is(4);
  this->is(1);
  cursor.next();
  EXPECT_EQ(this->keysFrom(cursor), this->keys({4, 9}));
}

TYPED_TEST(TableTest, TableEmptiedUnderAWalk_WalkEnds) {
  this->fill({2, 5, 9});
  auto cursor = this->table().begin();
  TypeParam::delAll(*this->mib_);
  cursor.next();
  EXPECT_FALSE(cursor);
  EXPECT_EQ(cursor.entry(), nullptr);
}

TYPED_TEST(TableTest, UseCounts_AreOneForTheTableAndOneForEachHolder) {
  auto row = this->is(7);
  this->lastPublished_.reset();
  EXPECT_EQ(row->useCount(), 2u);
  {
    auto cursor = this->table().begin();
    auto copy = cursor;
    EXPECT_EQ(row->useCount(), 4u);
    cursor.next();
    EXPECT_EQ(row->useCount(), 3u);
  }
  EXPECT_EQ(row->useCount(), 2u);
  this->del(TypeParam::key(7));
  EXPECT_EQ(row->useCount(), 1u);
}

TYPED_TEST(TableTest, RowsAndCursorsOutliveTheObject) {
  auto row = this->is(7);
  auto cursor = this->table().begin();
  this->is(8);
  this->lastPublished_.reset();
  this->mib_.reset();
  EXPECT_EQ(row->key(), TypeParam::key(7));
  EXPECT_EQ(cursor.key(), TypeParam::key(7));
  EXPECT_EQ(row->useCount(), 2u);
  cursor = {};
  EXPECT_EQ(row->useCount(), 1u);
}

TYPED_TEST(TableTest, ObjectDestroyed_PublishesNothing) {
  this->fill({2, 5});
  this->mib_.reset();
  EXPECT_EQ(this->log_, "");
}

TYPED_TEST(TableTest, EveryInsertionAndRemoval_IsVisibleWhenItIsPublished) {
  this->also_ = [this](const TrelMib::Change& change) {
    auto row = this->row(7);
    EXPECT_EQ(row, change.entry);
    EXPECT_EQ(this->table().size(), change.entry ? 1u : 0u);
  };
  this->is(7);
  this->del(TypeParam::key(7));
  EXPECT_EQ(this->log_, this->keys({7}, "+") + this->keys({7}, "-"));
}

TYPED_TEST(TableTest, SubscriberThatWrites_EndsTheProcess) {
  this->fill({1, 2});
  auto other = TrelSnmp::trelMibFactory("other");
  this->also_ = [&](const TrelMib::Change&) { TypeParam::is(*other, 9, TypeParam::record(9)); };
  EXPECT_DEATH(this->is(3), "changed during publication");
  this->also_ = [&](const TrelMib::Change&) { this->del(TypeParam::key(2)); };
  EXPECT_DEATH(this->del(TypeParam::key(1)), "changed during publication");
  this->also_ = [&](const TrelMib::Change&) { TypeParam::delAll(*this->mib_); };
  EXPECT_DEATH(this->is(3), "changed during publication");
}

TYPED_TEST(TableTest, SubscriberThrows_ChangeIsMadeAndWhole) {
  this->fill({1});
  this->also_ = [](const TrelMib::Change&) { throw std::runtime_error("ill"); };
  EXPECT_THROW(this->is(2), std::runtime_error);
  EXPECT_EQ(this->allKeys(), this->keys({1, 2}));
  EXPECT_THROW(this->del(TypeParam::key(1)), std::runtime_error);
  EXPECT_EQ(this->allKeys(), this->keys({2}));
  this->also_ = nullptr;
  this->is(3);
  EXPECT_EQ(this->log_, this->keys({2}, "+") + this->keys({1}, "-") + this->keys({3}, "+"));
}

TYPED_TEST(TableTest, TableAttribute_ReadsAsTheNumberOfRows) {
  this->fill({1, 2});
  EXPECT_EQ(Kor::attribute(*this->mib_, TypeParam::kName), "2");
  Kor::invoke(*this->mib_, std::string(TypeParam::kName) + "DelAll");
  EXPECT_EQ(Kor::attribute(*this->mib_, TypeParam::kName), "0");
  EXPECT_EQ(this->log_, this->keys({1, 2}, "-"));
}

}  // namespace
