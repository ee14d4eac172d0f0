#include "mib-state/RowKeys.h"

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>

#include <set>
#include <unordered_set>

#include "tests/support/Thrown.h"

namespace {

using TrelSnmp::MemberIdPair;
using TrelSnmp::ProcessorKey;
using TrelSnmp::TrelHrStorageKey;

constexpr uint32_t kTop = 4294967295u;

template <class Key>
class PairKeyTest : public testing::Test {
 protected:
  // "(<first>=<a>, <second>=<b>)"
  static std::string spelled(const std::string& a, const std::string& b) {
    return fmt::format("({}={}, {}={})", Key::kFirst, a, Key::kSecond, b);
  }
};

using AllKeys = testing::Types<MemberIdPair, ProcessorKey, TrelHrStorageKey>;
TYPED_TEST_SUITE(PairKeyTest, AllKeys);

TYPED_TEST(PairKeyTest, Order_IsUnsignedAndLexicographic) {
  const std::vector<TypeParam> ascending = {
      {0, 0},      {0, 1},  {0, kTop},  {1, 4},          {1, 5},    {2, 0},    {2, 1},
      {9, 0},      {10, 0}, {255, 256}, {0x7fffffff, 0}, {kTop, 0}, {kTop, 1}, {kTop, 0x80000000u},
      {kTop, kTop}};
  for (size_t a = 0; a < ascending.size(); ++a) {
    for (size_t b = 0; b < ascending.size(); ++b) {
      EXPECT_EQ(ascending[a] <=> ascending[b], a <=> b) << ascending[a].text() << ascending[b].text();
      EXPECT_EQ(ascending[a] < ascending[b], a < b);
      EXPECT_EQ(ascending[a] == ascending[b], a == b);
      EXPECT_EQ(ascending[a] != ascending[b], a != b);
    }
  }
}

TYPED_TEST(PairKeyTest, Default_IsZeroAndZero) { EXPECT_EQ(TypeParam(), TypeParam(0, 0)); }

TYPED_TEST(PairKeyTest, Hash_AgreesWithEquality) {
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(std::vector<TypeParam>{
      {0, 0}, {0, 1}, {1, 0}, {1, 1}, {1, 5}, {5, 1}, {kTop, 0}, {0, kTop}, {kTop, kTop}}));
  absl::flat_hash_set<TypeParam> seen = {{1, 5}, {5, 1}, {1, 5}};
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_TRUE(seen.contains(TypeParam(5, 1)));
}

TYPED_TEST(PairKeyTest, Text_NamesBothParts_AndIsReadBack) {
  for (TypeParam key : {TypeParam(0, 0), TypeParam(3, 5), TypeParam(kTop, 0), TypeParam(1, kTop)}) {
    EXPECT_EQ(TypeParam::fromText(key.text()), key);
    EXPECT_EQ(fmt::format("{}", key), key.text());
    EXPECT_EQ(Kor::toText(key), key.text());
  }
  EXPECT_EQ(TypeParam(3, 5).text(), this->spelled("3", "5"));
  EXPECT_EQ(TypeParam::fromText(fmt::format(" ( {}=3 ,{}=5 ) ", TypeParam::kFirst, TypeParam::kSecond)),
            TypeParam(3, 5));
}

TYPED_TEST(PairKeyTest, Keys_AreFoundAgainInAHashedSet) {
  std::unordered_set<TypeParam> keys = {{0, 0}, {0, 1},    {1, 0},    {1, 2},
                                        {2, 1}, {kTop, 0}, {0, kTop}, {kTop, kTop}};
  EXPECT_TRUE(keys.contains({2, 1}));
  EXPECT_FALSE(keys.contains({2, 2}));
  EXPECT_EQ(keys.size(), 8u);
  // Some keys differ in the one part only, some in the other, some in which part is which.
  std::set<size_t> hashes;
  for (const auto& key : keys) hashes.insert(std::hash<TypeParam>()(key));
  EXPECT_EQ(hashes.size(), keys.size());
}

TYPED_TEST(PairKeyTest, PartsThatAreNoU32_AreRefused) {
  for (const char* bad : {"", "-1", "+1", "4294967296", "99999999999999999999", "0x1", "1.0", "x", " 1"}) {
    EXPECT_THROW(TypeParam::fromText(this->spelled(bad, "5")), Kor::ParseException) << bad;
    EXPECT_THROW(TypeParam::fromText(this->spelled("5", bad)), Kor::ParseException) << bad;
  }
}

TYPED_TEST(PairKeyTest, EveryBeginningOfAText_IsRefused) {
  std::string text = TypeParam(3, 5).text();
  for (size_t length = 0; length < text.size(); ++length) {
    EXPECT_THROW(TypeParam::fromText(text.substr(0, length)), Kor::ParseException) << text.substr(0, length);
  }
}

TYPED_TEST(PairKeyTest, MalformedText_IsRefused) {
  const std::string first(TypeParam::kFirst);
  const std::string second(TypeParam::kSecond);
  for (const std::string& bad :
       {first + "=3, " + second + "=5", "(" + second + "=5, " + first + "=3)", "(" + first + "=3)",
        "(" + first + "=3 " + second + "=5)", "(" + first + "=3, (" + second + "=5)",
        "(" + first + "=3) " + second + "=5)", "((" + first + "=3, " + second + "=5)",
        "(" + first + "=3, " + second + "=5))", "(" + first + "=3, " + second + "=5,",
        "(" + first + "=3, " + second + "=5, x=1)", "(" + first + " =3, " + second + "=5)",
        "(" + first + ":3, " + second + ":5)", "[" + first + "=3, " + second + "=5]", std::string("(3, 5)"),
        std::string("3.5")}) {
    EXPECT_THROW(TypeParam::fromText(bad), Kor::ParseException) << bad;
  }
}

TEST(KeysTest, PartsCarryTheirOwnNames) {
  EXPECT_EQ(MemberIdPair(3, 5).text(), "(firstId=3, secondId=5)");
  EXPECT_EQ(MemberIdPair(3, 5).firstId(), 3u);
  EXPECT_EQ(MemberIdPair(3, 5).secondId(), 5u);
  EXPECT_EQ(ProcessorKey(3, 5).text(), "(trelMemberId=3, processorIndex=5)");
  EXPECT_EQ(ProcessorKey(3, 5).trelMemberId(), 3u);
  EXPECT_EQ(ProcessorKey(3, 5).processorIndex(), 5u);
  EXPECT_EQ(TrelHrStorageKey(3, 5).text(), "(trelMemberId=3, hrStorageIndex=5)");
  EXPECT_EQ(TrelHrStorageKey(3, 5).trelMemberId(), 3u);
  EXPECT_EQ(TrelHrStorageKey(3, 5).hrStorageIndex(), 5u);
}

TEST(KeysTest, TextOfAnotherKey_IsRefused) {
  EXPECT_THROW(MemberIdPair::fromText(ProcessorKey(1, 2).text()), Kor::ParseException);
  EXPECT_THROW(TrelHrStorageKey::fromText(ProcessorKey(1, 2).text()), Kor::ParseException);
}

TEST(KeysTest, RefusalSaysWhatWasFoundAndExpected) {
  EXPECT_EQ(thrown<Kor::ParseException>([] { MemberIdPair::fromText("(firstId=3, second=5)"); }),
            "found \"second=5)\", expected \"secondId=\"");
}

}  // namespace
