#include "platform/kor/Entity.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class Thing final : public Kor::Entity {
 public:
  using Entity::Entity;
  const Kor::Type& korType() const override {
    static const Kor::Type type("Test::Thing");
    return type;
  }
};

class SingletonTest : public testing::Test {
 protected:
  static constexpr const char* kType = "Test::Thing";
  SingletonTest() {
    Kor::Entity::singletonTypeIs(kType, [this] {
      ++made_;
      return Zavro::makePtr<Thing>("thing" + std::to_string(made_));
    });
  }
  ~SingletonTest() override { Kor::Entity::singletonDel(kType); }
  int made_ = 0;
};

TEST(EntityTest, HasItsNameForever_AndReadsAsIt) {
  Zavro::Ptr<Thing> thing = Zavro::makePtr<Thing>("3");
  EXPECT_EQ(thing->name(), "3");
  EXPECT_EQ(thing->text(), "3");
  EXPECT_EQ(fmt::format("{}", thing), "3");
}

TEST(EntityTest, Exceptions_NameTheTypeAndTheAttribute) {
  EXPECT_STREQ(Kor::MutatorReinstantiationException("Test::Row", "load").what(),
               "Test::Row exists with another load");
  EXPECT_STREQ(Kor::NullArgumentException("trelHrStorageTable").what(),
               "null argument for trelHrStorageTable");
}

TEST_F(SingletonTest, DoesNotExist_UntilItIsAskedFor) {
  EXPECT_EQ(Kor::Entity::singletonExists(kType), nullptr);
  EXPECT_EQ(Kor::Entity::singletonExists("Test::Unheard"), nullptr);
  EXPECT_EQ(made_, 0);
}

TEST_F(SingletonTest, IsMadeOnceAndReused) {
  Zavro::Ptr<Kor::Entity> thing = Kor::Entity::singletonIs(kType);
  EXPECT_EQ(thing->name(), "thing1");
  EXPECT_EQ(Kor::Entity::singletonIs(kType), thing);
  EXPECT_EQ(Kor::Entity::singletonExists(kType), thing);
  EXPECT_EQ(made_, 1);
  EXPECT_EQ(thing->useCount(), 2u);
}

TEST_F(SingletonTest, Forgotten_LivesOnWithItsHolders_AndIsMadeAnew) {
  Zavro::Ptr<Kor::Entity> old = Kor::Entity::singletonIs(kType);
  Kor::Entity::singletonDel(kType);
  EXPECT_EQ(old->useCount(), 1u);
  EXPECT_EQ(Kor::Entity::singletonExists(kType), nullptr);
  EXPECT_EQ(Kor::Entity::singletonIs(kType)->name(), "thing2");
}

TEST_F(SingletonTest, ForgettingWhatIsNotThere_DoesNothing) {
  Kor::Entity::singletonDel(kType);
  Kor::Entity::singletonDel("Test::Unheard");
  EXPECT_EQ(Kor::Entity::singletonExists(kType), nullptr);
}

TEST(SingletonDeathTest, UnknownType_IsABug) {
  EXPECT_EXIT(Kor::Entity::singletonIs("Test::Unheard"), testing::KilledBySignal(SIGABRT),
              "\\[typeName=Test::Unheard\\]");
}

}  // namespace
