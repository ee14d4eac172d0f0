#include "platform/kor/Type.h"

#include <gmock/gmock.h>

#include "tests/support/Reflection.h"
#include "tests/support/Thrown.h"

namespace {

using testing::ElementsAre;

class Lamp final : public Kor::Object {
 public:
  int watts = 40;
  int switched = 0;
  bool lit() const { return switched % 2 == 1; }
  void flip() { ++switched; }

  static const Kor::Type& type() {
    static const Kor::Type type = Kor::TypeBuilder<Lamp>("Test::Lamp")
                                      .attribute("lit", &Lamp::lit)
                                      .attribute(
                                          "watts", [](const Lamp& lamp) { return lamp.watts; },
                                          [](Lamp& lamp, std::string_view text) {
                                            lamp.watts = static_cast<int>(Kor::u32FromText(text));
                                          })
                                      .operation("flip", &Lamp::flip)
                                      .operation("reset", [](Lamp& lamp) { lamp.switched = 0; })
                                      .question("power", [](const Lamp& l) { return l.lit() ? l.watts : 0; })
                                      .build();
    return type;
  }
  const Kor::Type& korType() const override { return type(); }
};

class TypeTest : public testing::Test {
 protected:
  Zavro::Ptr<Lamp> lamp_ = Zavro::makePtr<Lamp>();
};

TEST_F(TypeTest, Type_ListsItsMembersInDeclarationOrder) {
  EXPECT_EQ(Lamp::type().name(), "Test::Lamp");
  EXPECT_THAT(attributeNames(Lamp::type()), ElementsAre("lit", "watts"));
  EXPECT_THAT(settableNames(Lamp::type()), ElementsAre("watts"));
  EXPECT_THAT(operationNames(Lamp::type()), ElementsAre("flip", "reset", "power"));
  EXPECT_FALSE(Lamp::type().newEntityForDir);
}

TEST_F(TypeTest, Attributes_AreReadAndSetByName) {
  EXPECT_EQ(Kor::attribute(*lamp_, "watts"), "40");
  Kor::attributeIs(*lamp_, "watts", "60");
  EXPECT_EQ(Kor::attribute(*lamp_, "watts"), "60");
  EXPECT_EQ(Kor::attribute(*lamp_, "lit"), "false");
}

TEST_F(TypeTest, TextThatCannotBeTaken_LeavesTheAttributeAsItWas) {
  EXPECT_THROW(Kor::attributeIs(*lamp_, "watts", "bright"), Kor::ParseException);
  EXPECT_EQ(lamp_->watts, 40);
}

TEST_F(TypeTest, Operations_AreInvokedByName) {
  Kor::invoke(*lamp_, "flip");
  EXPECT_TRUE(lamp_->lit());
  Kor::invoke(*lamp_, "reset");
  EXPECT_FALSE(lamp_->lit());
}

TEST_F(TypeTest, Questions_AreTheOperationsThatAreAskedOfAnObjectThatStaysAsItIs) {
  Kor::invoke(*lamp_, "flip");
  EXPECT_EQ(Kor::ask(*lamp_, "power"), "40");
  Kor::invoke(*lamp_, "power");
  EXPECT_EQ(thrown<Kor::NoSuchMemberException>([this] { Kor::ask(*lamp_, "flip"); }),
            "Test::Lamp's operation \"flip\" may change the object");
  EXPECT_EQ(lamp_->switched, 1);
  EXPECT_EQ(thrown<Kor::NoSuchMemberException>([this] { Kor::ask(*lamp_, "x"); }),
            "Test::Lamp has no operation \"x\"");
}

TEST_F(TypeTest, UnknownNames_AreRefusedWithTypeAndName) {
  auto error = [](auto call) { return thrown<Kor::NoSuchMemberException>(call); };
  EXPECT_EQ(error([this] { Kor::attribute(*lamp_, "Watts"); }), "Test::Lamp has no attribute \"Watts\"");
  EXPECT_EQ(error([this] { Kor::attribute(*lamp_, "flip"); }), "Test::Lamp has no attribute \"flip\"");
  EXPECT_EQ(error([this] { Kor::attributeIs(*lamp_, "", "1"); }), "Test::Lamp has no attribute \"\"");
  EXPECT_EQ(error([this] { Kor::attributeIs(*lamp_, "lit", "true"); }),
            "Test::Lamp's attribute \"lit\" cannot be set");
  EXPECT_EQ(error([this] { Kor::invoke(*lamp_, "watts"); }), "Test::Lamp has no operation \"watts\"");
}

// Its type information is that of another class.
class Candle final : public Kor::Object {
 public:
  const Kor::Type& korType() const override { return Lamp::type(); }
};

TEST(TypeDeathTest, TypeInformationOfAnotherClass_EndsTheProcess) {
  auto candle = Zavro::makePtr<Candle>();
  const char* kAssertion = "Assertion `self && \"type information of another class\"' failed";
  EXPECT_DEATH(Kor::attribute(*candle, "watts"), kAssertion);
  EXPECT_DEATH(Kor::attributeIs(*candle, "watts", "60"), kAssertion);
  EXPECT_DEATH(Kor::invoke(*candle, "flip"), kAssertion);
}

}  // namespace
