#include "platform/kor/Dir.h"

#include <gmock/gmock.h>

#include <csignal>

#include "tests/support/Reflection.h"
#include "tests/support/Thrown.h"

namespace {

using testing::ElementsAre;

class Member final : public Kor::Entity {
 public:
  using Entity::Entity;
  static const Kor::Type& type() {
    static const Kor::Type type =
        Kor::TypeBuilder<Member>("Test::Member")
            .newEntityForDir([](const std::string& name, const std::vector<std::string>& arguments) {
              if (!arguments.empty())
                throw Kor::NewEntityArgumentsException("Test::Member takes no arguments");
              return Zavro::makePtr<Member>(name);
            })
            .build();
    return type;
  }
  const Kor::Type& korType() const override { return type(); }
};

std::string namesFrom(Kor::Dir::ConstIterator iterator) {
  std::string names;
  for (; iterator; iterator.next()) names += iterator.key() + " ";
  return names;
}

class DirTest : public testing::Test {
 protected:
  DirTest() {
    for (const char* name : {"9", "10", "2"}) dir_->entityPtrIs(Zavro::makePtr<Member>(name));
  }
  Zavro::Ptr<Kor::Dir> dir_ = Zavro::makePtr<Kor::Dir>("members");
};

TEST_F(DirTest, Entities_AreFoundByName_AndWalkedInOrderOfNames) {
  EXPECT_EQ(dir_->entityPtr("10")->name(), "10");
  EXPECT_EQ(dir_->entityPtr("1"), nullptr);
  EXPECT_EQ(dir_->entityPtr(""), nullptr);
  EXPECT_EQ(namesFrom(dir_->entityPtrIteratorConst()), "10 2 9 ");
  EXPECT_EQ(namesFrom(dir_->entityPtrIteratorConst("2")), "2 9 ");
  EXPECT_EQ(namesFrom(dir_->entityPtrIteratorConst("11")), "2 9 ");
  EXPECT_EQ(namesFrom(dir_->entityPtrIteratorConst("99")), "");
}

TEST_F(DirTest, EntityUnderAnotherName_KeepsItsOwn) {
  dir_->entityPtrIs("alias", Zavro::makePtr<Member>("7"));
  EXPECT_EQ(dir_->entityPtr("alias")->name(), "7");
  EXPECT_EQ(dir_->entityPtr("7"), nullptr);
}

TEST_F(DirTest, EntityIsReplaced_OldOneIsReleased) {
  Zavro::Ptr<Kor::Entity> old = dir_->entityPtr("2");
  EXPECT_EQ(old->useCount(), 2u);
  dir_->entityPtrIs(Zavro::makePtr<Member>("2"));
  EXPECT_EQ(old->useCount(), 1u);
  EXPECT_NE(dir_->entityPtr("2"), old);
}

TEST_F(DirTest, EntityIsRemoved_AndHandedBack) {
  Zavro::Ptr<Kor::Entity> removed = dir_->entityPtrDel("2");
  EXPECT_EQ(removed->name(), "2");
  EXPECT_EQ(removed->useCount(), 1u);
  EXPECT_EQ(dir_->entityPtrDel("2"), nullptr);
  EXPECT_EQ(namesFrom(dir_->entityPtrIteratorConst()), "10 9 ");
}

TEST_F(DirTest, RemovalByTheEntitysOwnName_IsNotified) {
  std::string log;
  Kor::Subscription subscription = dir_->entities().subscribe(
      [&](const std::string& name) { log += name + (dir_->entityPtr(name) ? " is there; " : " is gone; "); });
  dir_->entityPtrIs(Zavro::makePtr<Member>("3"));
  dir_->entityPtrDel(dir_->entityPtr("3")->name());
  dir_->entityPtrDel("nobody");
  EXPECT_EQ(log, "3 is there; 3 is gone; ");
}

TEST_F(DirTest, NewEntity_IsMadeByTheTypesConstructorAndFiled) {
  Zavro::Ptr<Kor::Entity> made = dir_->newEntity(Member::type(), "5");
  EXPECT_EQ(made->name(), "5");
  EXPECT_EQ(dir_->entityPtr("5"), made);
  EXPECT_EQ(made->useCount(), 2u);
}

TEST_F(DirTest, NewEntityWithArgumentsThatTheTypeRefuses_FilesNothing) {
  EXPECT_EQ(thrown<Kor::NewEntityArgumentsException>([this] { dir_->newEntity(Member::type(), "5", {"x"}); }),
            "Test::Member takes no arguments");
  EXPECT_EQ(dir_->entityPtr("5"), nullptr);
}

TEST_F(DirTest, NewEntityOfATypeThatDirectoriesDoNotMake_IsRefused) {
  EXPECT_EQ(thrown<Kor::NewEntityArgumentsException>([this] { dir_->newEntity(Kor::Dir::type(), "sub"); }),
            "Kor::Dir is not made by directories");
}

TEST_F(DirTest, TypeInformation) {
  EXPECT_EQ(dir_->korType().name(), "Kor::Dir");
  EXPECT_THAT(attributeNames(dir_->korType()), ElementsAre("name", "entityPtr"));
  EXPECT_EQ(Kor::attribute(*dir_, "name"), "members");
  EXPECT_EQ(Kor::attribute(*dir_, "entityPtr"), "3");
}

TEST(DirDeathTest, NullEntity_IsABug) {
  Zavro::Ptr<Kor::Dir> dir = Zavro::makePtr<Kor::Dir>("dir");
  EXPECT_EXIT(dir->entityPtrIs(nullptr), testing::KilledBySignal(SIGABRT),
              "Assertion `entity != nullptr' failed");
  EXPECT_EXIT(dir->entityPtrIs("x", nullptr), testing::KilledBySignal(SIGABRT),
              "Assertion `entity != nullptr' failed");
}

TEST(EntityAtTest, PathsLeadThroughDirectories_WrongOnesNowhere) {
  Zavro::Ptr<Kor::Dir> root = Zavro::makePtr<Kor::Dir>("");
  Zavro::Ptr<Kor::Dir> snmp = Zavro::makePtr<Kor::Dir>("snmp");
  Zavro::Ptr<Kor::Dir> trel = Zavro::makePtr<Kor::Dir>("trel");
  Zavro::Ptr<Member> leaf = Zavro::makePtr<Member>("trelMib");
  trel->entityPtrIs(leaf);
  snmp->entityPtrIs(trel);
  root->entityPtrIs(snmp);
  EXPECT_EQ(Kor::entityAt(*root, "snmp/trel/trelMib"), leaf);
  EXPECT_EQ(Kor::entityAt(*root, "snmp/trel"), trel);
  EXPECT_EQ(Kor::entityAt(*root, "snmp"), snmp);
  for (const char* wrong : {"", "/", "/snmp", "snmp/", "snmp//trel", "snmp/trel/trelMib/",
                            "snmp/trel/trelMib/x", "trel", "snmp/trelMib", "SNMP/trel/trelMib"}) {
    EXPECT_EQ(Kor::entityAt(*root, wrong), nullptr) << wrong;
  }
}

}  // namespace
