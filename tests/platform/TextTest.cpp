#include "platform/kor/TextForm.h"

#include <gtest/gtest.h>

#include "tests/support/Thrown.h"

namespace {

struct Link final : Zavro::Counted {
  std::string text() const { return "(up)"; }
};

TEST(TextTest, TypesWithATextForm_AndPointersToThem_Format) {
  Zavro::Ptr<const Link> link = Zavro::makePtr<Link>();
  EXPECT_EQ(fmt::format("{}", *link), "(up)");
  EXPECT_EQ(fmt::format("{:>6}|", link), "  (up)|");
  EXPECT_EQ(Kor::toText(Zavro::Ptr<Link>()), "None");
  EXPECT_EQ(Kor::toText(true), "true");
  EXPECT_EQ(Kor::toText(-7), "-7");
}

TEST(TextTest, Optional_ShowsItsValueOrNone) {
  EXPECT_EQ(Kor::optText(std::optional<int>(5)), "Optional( 5 )");
  EXPECT_EQ(Kor::optText(std::optional<int>()), "None");
  EXPECT_EQ(Kor::optText(Zavro::makePtr<Link>()), "Optional( (up) )");
  EXPECT_EQ(Kor::optText(Zavro::Ptr<Link>()), "None");
}

TEST(TextTest, U32FromText_TakesDecimalDigitsOnly) {
  EXPECT_EQ(Kor::u32FromText("0"), 0u);
  EXPECT_EQ(Kor::u32FromText("007"), 7u);
  EXPECT_EQ(Kor::u32FromText("4294967295"), 4294967295u);
  for (const char* bad : {"", "4294967296", "-1", "+1", " 1", "1 ", "0x1", "1.0", "one"}) {
    EXPECT_THROW(Kor::u32FromText(bad), Kor::ParseException) << bad;
  }
  EXPECT_EQ(thrown<Kor::ParseException>([] { Kor::u32FromText("7up"); }),
            "found \"7up\", expected an unsigned 32-bit number");
}

TEST(TextTest, DoubleFromText_TakesFiniteDecimalNumbers) {
  EXPECT_EQ(Kor::doubleFromText("0"), 0);
  EXPECT_EQ(Kor::doubleFromText("-2.5"), -2.5);
  EXPECT_EQ(Kor::doubleFromText("1e3"), 1000);
  for (const char* bad : {"", "inf", "-inf", "nan", "1e999", "1,5", "1 ", " 1", "+1", "0x10", "1.5s"}) {
    EXPECT_THROW(Kor::doubleFromText(bad), Kor::ParseException) << bad;
  }
  EXPECT_EQ(thrown<Kor::ParseException>([] { Kor::doubleFromText("soon"); }),
            "found \"soon\", expected a decimal number");
}

// Reads "(a=<n>, b=<n>, c=<n>)" and returns the numbers.
std::string readComposite(std::string_view text) {
  using Kor::AttrPlace;
  std::string numbers;
  for (auto [name, place] :
       {std::pair{"a", AttrPlace::first}, {"b", AttrPlace::inner}, {"c", AttrPlace::last}}) {
    Kor::desAttrPre(text, name, place);
    numbers += fmt::format("{} ", Kor::readU32(text));
    Kor::desAttrPost(text, place);
  }
  return numbers;
}

TEST(TextTest, CompositeIsRead_BlanksAroundItsPartsOrNot) {
  EXPECT_EQ(readComposite("(a=1, b=2, c=3)"), "1 2 3 ");
  EXPECT_EQ(readComposite("(a=1,b=2,c=3)"), "1 2 3 ");
  EXPECT_EQ(readComposite("  ( a=1 ,  b=2 , c=3 )  "), "1 2 3 ");
}

TEST(TextTest, MalformedComposite_SaysWhatWasFoundAndWhatWasExpected) {
  auto error = [](const char* text) { return thrown<Kor::ParseException>([text] { readComposite(text); }); };
  EXPECT_EQ(error(""), "found \"\", expected \"(\"");
  EXPECT_EQ(error("a=1, b=2, c=3)"), "found \"a=1, b=2, c=3)\", expected \"(\"");
  EXPECT_EQ(error("(b=1, b=2, c=3)"), "found \"b=1, b=2, c=3)\", expected \"a=\"");
  EXPECT_EQ(error("(a 1)"), "found \"a 1)\", expected \"a=\"");
  EXPECT_EQ(error("(a=x)"), "found \"x)\", expected an unsigned 32-bit number");
  EXPECT_EQ(error("(a=1)"), "found \")\", expected \",\"");
  EXPECT_EQ(error("(a=1, (b=2, c=3)"), "found \"(b=2, c=3)\", expected \"b=\"");
  EXPECT_EQ(error("(a=1, b=2, c=3,"), "found \",\", expected \")\"");
  EXPECT_EQ(error("(a=1, b=2, c=3"), "found \"\", expected \")\"");
  EXPECT_EQ(error("(a=1, b=2, c=3))"), "found \")\", expected nothing behind \")\"");
}

}  // namespace
