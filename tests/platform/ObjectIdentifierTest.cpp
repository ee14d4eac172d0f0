#include "platform/snmp/ObjectIdentifier.h"

#include <gmock/gmock.h>

namespace {

using Snmp::ObjectIdentifier;
using Ids = std::vector<uint32_t>;

std::string dotted(size_t subIds) {
  std::string text = "1";
  for (size_t i = 1; i < subIds; ++i) text += ".1";
  return text;
}

TEST(ObjectIdentifierTest, KeepsAnyText) {
  EXPECT_EQ(ObjectIdentifier().text(), "");
  EXPECT_EQ(ObjectIdentifier("no oid").text(), "no oid");
  EXPECT_EQ(ObjectIdentifier("1.3"), ObjectIdentifier("1.3"));
  EXPECT_NE(ObjectIdentifier("1.3"), ObjectIdentifier(".1.3"));
}

TEST(ObjectIdentifierTest, CopiesShareTheText) {
  ObjectIdentifier one("1.3.6.1.2.1.25.2.1.4");
  ObjectIdentifier copy = one;
  EXPECT_EQ(&copy.text(), &one.text());
}

TEST(ObjectIdentifierTest, SubIds) {
  EXPECT_EQ(ObjectIdentifier("1.3.6.1.2.1.25.2.1.4").subIds(), (Ids{1, 3, 6, 1, 2, 1, 25, 2, 1, 4}));
  EXPECT_EQ(ObjectIdentifier(".1.3").subIds(), (Ids{1, 3}));
  EXPECT_EQ(ObjectIdentifier("0.0").subIds(), (Ids{0, 0}));
  EXPECT_EQ(ObjectIdentifier("01.003").subIds(), (Ids{1, 3}));
  EXPECT_EQ(ObjectIdentifier("1.3.4294967295").subIds(), (Ids{1, 3, 4294967295u}));
}

TEST(ObjectIdentifierTest, RootArcs) {
  EXPECT_TRUE(ObjectIdentifier("0.39").subIds());
  EXPECT_FALSE(ObjectIdentifier("0.40").subIds());
  EXPECT_TRUE(ObjectIdentifier("1.39").subIds());
  EXPECT_FALSE(ObjectIdentifier("1.40").subIds());
  EXPECT_TRUE(ObjectIdentifier("2.40").subIds());
  EXPECT_TRUE(ObjectIdentifier("2.999").subIds());
  EXPECT_FALSE(ObjectIdentifier("3.0").subIds());
}

TEST(ObjectIdentifierTest, TwoTo128SubIds) {
  EXPECT_FALSE(ObjectIdentifier(dotted(1)).subIds());
  EXPECT_EQ(ObjectIdentifier(dotted(2)).subIds()->size(), 2u);
  EXPECT_EQ(ObjectIdentifier(dotted(128)).subIds()->size(), 128u);
  EXPECT_FALSE(ObjectIdentifier(dotted(129)).subIds());
  EXPECT_FALSE(ObjectIdentifier(dotted(100000)).subIds());
}

TEST(ObjectIdentifierTest, MalformedText_SpellsNone) {
  for (const char* text : {"",     ".",     "..",    "1",       "1.",
                           ".1.",  "1..3",  "1.3.",  "..1.3",   "1.3.4294967296",
                           "1.-3", "1.+3",  "1. 3",  " 1.3",    "1.3 ",
                           "1,3",  "1.3.x", "iso.3", "1.3.0x6", "1.3.99999999999999999999"}) {
    EXPECT_FALSE(ObjectIdentifier(text).subIds()) << text;
  }
  EXPECT_FALSE(ObjectIdentifier(std::string("1.3\0.6", 6)).subIds());
}

}  // namespace
