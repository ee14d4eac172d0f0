#include "platform/kor/Collection.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>

#include "platform/zavro/Ptr.h"

namespace {

using Numbers = Kor::Collection<int, std::string>;
using testing::ElementsAre;

std::string keysFrom(Numbers::Cursor cursor) {
  std::string keys;
  for (; cursor; cursor.next()) keys += std::to_string(cursor.key()) + " ";
  return keys;
}

class CollectionTest : public testing::Test {
 protected:
  CollectionTest() {
    for (int key : {30, 10, 20}) numbers_->set(key, "n" + std::to_string(key));
    subscription_ = numbers_->subscribe([this](int key) {
      const std::string* value = numbers_ ? numbers_->find(key) : nullptr;
      log_ += std::to_string(key) + "=" + (value ? *value : "gone") + " ";
    });
  }

  std::unique_ptr<Numbers> numbers_ = std::make_unique<Numbers>();
  std::string log_;
  Kor::Subscription subscription_;
};

TEST_F(CollectionTest, NewCollection_IsEmptyWithVersionZero) {
  Numbers fresh;
  EXPECT_TRUE(fresh.empty());
  EXPECT_EQ(fresh.size(), 0u);
  EXPECT_EQ(fresh.version(), 0u);
  EXPECT_FALSE(fresh.begin());
  EXPECT_FALSE(fresh.from(0));
  EXPECT_EQ(fresh.subscribers(), 0u);
}

TEST_F(CollectionTest, Elements_AreFoundByKey) {
  EXPECT_EQ(*numbers_->find(10), "n10");
  EXPECT_EQ(numbers_->find(11), nullptr);
  EXPECT_EQ(numbers_->size(), 3u);
  EXPECT_FALSE(numbers_->empty());
}

TEST_F(CollectionTest, Elements_AreWalkedInKeyOrder_AlsoFromAKey) {
  EXPECT_EQ(keysFrom(numbers_->begin()), "10 20 30 ");
  EXPECT_EQ(keysFrom(numbers_->from(20)), "20 30 ");
  EXPECT_EQ(keysFrom(numbers_->from(21)), "30 ");
  EXPECT_EQ(keysFrom(numbers_->from(31)), "");
  EXPECT_EQ(keysFrom(numbers_->from(-5)), "10 20 30 ");
}

TEST_F(CollectionTest, EveryChange_AdvancesTheVersionByOne_AndIsNotifiedOnce) {
  EXPECT_EQ(numbers_->version(), 3u);
  numbers_->set(15, "new");
  numbers_->set(15, "new");
  numbers_->set(10, "other");
  EXPECT_TRUE(numbers_->del(20));
  EXPECT_EQ(numbers_->version(), 7u);
  EXPECT_EQ(log_, "15=new 15=new 10=other 20=gone ");
}

TEST_F(CollectionTest, RemovingWhatIsNotThere_ChangesNothing) {
  EXPECT_FALSE(numbers_->del(11));
  EXPECT_EQ(numbers_->version(), 3u);
  EXPECT_EQ(log_, "");
}

TEST_F(CollectionTest, VersionIs23BitsWide_AndWraps) {
  Kor::Collection<int, int> busy;
  for (uint32_t i = 0; i < (1u << 23) - 1; ++i) busy.set(1, 1);
  EXPECT_EQ(busy.version(), (1u << 23) - 1);
  auto cursor = busy.begin();
  busy.set(2, 2);
  EXPECT_EQ(busy.version(), 0u);
  busy.del(1);
  EXPECT_EQ(busy.version(), 1u);
  cursor.next();
  EXPECT_EQ(cursor.key(), 2);
}

TEST_F(CollectionTest, CursorOnARemovedElement_GoesOnBehindIt) {
  auto cursor = numbers_->begin();
  numbers_->del(10);
  EXPECT_EQ(cursor.key(), 10);
  cursor.next();
  EXPECT_EQ(keysFrom(cursor), "20 30 ");
}

TEST_F(CollectionTest, CursorSeesWhatAppearsBehindIt_NotWhatAppearsBefore) {
  auto cursor = numbers_->from(20);
  numbers_->set(5, "before");
  numbers_->set(25, "behind");
  cursor.next();
  EXPECT_EQ(keysFrom(cursor), "25 30 ");
}

TEST_F(CollectionTest, CursorWhoseNextElementVanishes_SkipsIt) {
  auto cursor = numbers_->begin();
  numbers_->del(20);
  cursor.next();
  EXPECT_EQ(cursor.key(), 30);
}

TEST_F(CollectionTest, CursorWhoseElementIsReplaced_GoesOnBehindIt) {
  auto cursor = numbers_->begin();
  numbers_->set(10, "again");
  cursor.next();
  EXPECT_EQ(cursor.key(), 20);
}

TEST_F(CollectionTest, CursorWhenEverythingVanishes_IsAtTheEnd) {
  auto cursor = numbers_->begin();
  for (int key : {10, 20, 30}) numbers_->del(key);
  cursor.next();
  EXPECT_FALSE(cursor);
}

TEST_F(CollectionTest, CopiedCursors_WalkOnTheirOwn) {
  auto first = numbers_->begin();
  auto second = first;
  second.next();
  EXPECT_EQ(first.key(), 10);
  EXPECT_EQ(second.key(), 20);
}

TEST_F(CollectionTest, SubscriberThrows_ChangeIsMade) {
  Kor::Subscription ill = numbers_->subscribe([](int) { throw std::runtime_error("ill"); });
  EXPECT_THROW(numbers_->set(40, "made"), std::runtime_error);
  EXPECT_THROW(numbers_->del(10), std::runtime_error);
  EXPECT_EQ(keysFrom(numbers_->begin()), "20 30 40 ");
  EXPECT_EQ(numbers_->version(), 5u);
}

TEST(CollectionLifetimeTest, KeyThatLivesInTheElement_MayNameItsOwnChange) {
  struct Named {
    std::string name;
  };
  Kor::Collection<std::string, Named> byName;
  std::string log;
  Kor::Subscription subscription = byName.subscribe([&](const std::string& key) { log += key + " "; });
  const std::string longName(100, 'x');
  byName.set(longName, {longName});
  byName.set(byName.find(longName)->name, {"replaced, and not short enough to be inline"});
  byName.set(longName, {longName});
  EXPECT_TRUE(byName.del(byName.find(longName)->name));
  EXPECT_EQ(log, longName + " " + longName + " " + longName + " " + longName + " ");
}

TEST(CollectionLifetimeTest, Values_AreReleasedWhenTheyGo) {
  struct Value final : Zavro::Counted {};
  Zavro::Ptr<Value> value = Zavro::makePtr<Value>();
  {
    Kor::Collection<int, Zavro::Ptr<Value>> values;
    values.set(1, value);
    values.set(2, value);
    EXPECT_EQ(value->useCount(), 3u);
    values.del(1);
    EXPECT_EQ(value->useCount(), 2u);
    values.set(2, nullptr);
    EXPECT_EQ(value->useCount(), 1u);
    values.set(3, value);
  }
  EXPECT_EQ(value->useCount(), 1u);
}

TEST(CollectionLifetimeTest, ValueWhoseEndChangesTheCollection_DoesSoAfterItsOwnChange) {
  using Values = Kor::Collection<int, std::shared_ptr<void>>;
  Values values;
  auto removesSeven = [&] { return std::shared_ptr<void>(nullptr, [&](void*) { values.del(7); }); };
  values.set(7, nullptr);
  values.set(1, removesSeven());
  std::string log;
  Kor::Subscription subscription = values.subscribe([&](int key) { log += std::to_string(key) + " "; });
  values.set(1, nullptr);
  EXPECT_EQ(log, "1 7 ");
  values.set(7, nullptr);
  values.set(1, removesSeven());
  values.del(1);
  EXPECT_EQ(log, "1 7 7 1 1 7 ");
  EXPECT_TRUE(values.empty());
}

TEST(CollectionCursorTest, Value_IsTheOneUnderTheKeyNow) {
  Kor::Collection<int, std::string> collection;
  collection.set(1, "a");
  collection.set(2, "b");
  auto at = collection.begin();
  ASSERT_NE(at.value(), nullptr);
  EXPECT_EQ(*at.value(), "a");
  collection.set(1, "c");
  EXPECT_EQ(*at.value(), "c");
  collection.del(1);
  EXPECT_EQ(at.value(), nullptr);
  at.next();
  EXPECT_EQ(*at.value(), "b");
}

}  // namespace
