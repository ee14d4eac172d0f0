#include "platform/snmp/RegVoidCollByContext.h"

#include <gmock/gmock.h>

#include "platform/kor/Dir.h"
#include "tests/support/Reflection.h"

namespace {

using Kind = Snmp::OrderedTableIteratorCounterTypes;

class RegVoidTest : public testing::Test {
 protected:
  ~RegVoidTest() override { Kor::Entity::singletonDel(Snmp::RegVoidCollByContext::kTypeName); }
  Zavro::Ptr<Snmp::RegVoidCollByContext> records_ = Snmp::RegVoidCollByContext::singleton();
  Zavro::Ptr<Kor::Entity> object_ = Zavro::makePtr<Kor::Dir>("object");
};

TEST_F(RegVoidTest, IsASingleton) {
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton(), records_);
  EXPECT_EQ(Kor::Entity::singletonIs("Snmp::RegVoidCollByContext"), records_);
}

TEST_F(RegVoidTest, Record_PointsAtItsObject_PerContextAndTable) {
  Snmp::RegVoid* record = records_->addRegVoid("", "table", object_);
  EXPECT_EQ(record->object(), object_);
  EXPECT_EQ(records_->regVoid("", "table"), record);
  EXPECT_EQ(records_->regVoid("blue", "table"), nullptr);
  EXPECT_EQ(records_->regVoid("", "other"), nullptr);
  EXPECT_NE(records_->addRegVoid("blue", "table", object_), record);
  EXPECT_EQ(records_->size(), 2u);
}

TEST_F(RegVoidTest, RecordsStayWhereTheyAre_WhileOthersComeAndGo) {
  Snmp::RegVoid* record = records_->addRegVoid("", "table50", object_);
  for (int i = 0; i < 100; ++i) {
    if (i != 50) records_->addRegVoid("", "table" + std::to_string(i), object_);
  }
  for (int i = 0; i < 50; ++i) records_->delRegVoid("", "table" + std::to_string(i));
  EXPECT_EQ(records_->regVoid("", "table50"), record);
}

TEST_F(RegVoidTest, DeletedRecord_ReleasesItsObject) {
  records_->addRegVoid("", "table", object_);
  EXPECT_EQ(object_->useCount(), 2u);
  records_->delRegVoid("", "table");
  records_->delRegVoid("", "table");
  EXPECT_EQ(object_->useCount(), 1u);
  EXPECT_EQ(records_->size(), 0u);
}

TEST_F(RegVoidTest, AddedAgain_ReplacesTheObjectAndStartsCountingAnew) {
  records_->addRegVoid("", "table", object_)->counters().orderedIterCntrsInc(Kind::advanced, 7);
  Zavro::Ptr<Kor::Entity> other = Zavro::makePtr<Kor::Dir>("other");
  Snmp::RegVoid* record = records_->addRegVoid("", "table", other);
  EXPECT_EQ(record->object(), other);
  EXPECT_EQ(record->counters().orderedIterCntr(Kind::advanced), 0u);
  EXPECT_EQ(object_->useCount(), 1u);
  EXPECT_EQ(records_->size(), 1u);
}

TEST_F(RegVoidTest, CounterKinds_AreNumberedAndCountOnTheirOwn) {
  const Kind kinds[] = {Kind::hintKeyNotFound, Kind::hintMatched, Kind::startedAtFirst,
                        Kind::nextAfterEnd,    Kind::reachedEnd,  Kind::advanced};
  Snmp::TableCounters counters;
  for (size_t number = 0; number < std::size(kinds); ++number) {
    EXPECT_EQ(static_cast<size_t>(kinds[number]), number);
    EXPECT_EQ(counters.orderedIterCntr(kinds[number]), 0u);
    counters.orderedIterCntrsInc(kinds[number], number + 1);
    counters.orderedIterCntrsInc(kinds[number], 1);
  }
  for (size_t number = 0; number < std::size(kinds); ++number) {
    EXPECT_EQ(counters.orderedIterCntr(kinds[number]), number + 2);
  }
}

TEST_F(RegVoidTest, TypeInformation) {
  records_->addRegVoid("", "table", object_);
  EXPECT_EQ(records_->korType().name(), "Snmp::RegVoidCollByContext");
  EXPECT_THAT(attributeNames(records_->korType()), testing::ElementsAre("name", "regVoid"));
  EXPECT_EQ(Kor::attribute(*records_, "name"), "regVoidCollByContext");
  EXPECT_EQ(Kor::attribute(*records_, "regVoid"), "1");
}

}  // namespace
