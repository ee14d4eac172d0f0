// What becomes of keys and their values, usable or not.
#include "kelstore/etcd/Decoder.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class DecoderTest : public testing::Test {
 protected:
  Decoder::Decoded put(const std::string& key, const std::string& value, int64_t lease = 0) {
    return decoder_.decode({{"p/" + key, value, lease}});
  }
  Decoder::Decoded del(const std::string& key) { return decoder_.decode({{"p/" + key, std::nullopt, 0}}); }
  static Limits limits() {
    Limits limits;
    limits.remembered = 50;
    return limits;
  }
  std::vector<std::string> lines() {
    std::vector<std::string> texts;
    for (const Line& line : decoder_.takeLines())
      texts.push_back(fmt::format("{} {}", line.level, line.text));
    return texts;
  }

  Decoder decoder_{KeySpace("p"), limits()};
  const Path a_{Kind::interface, "a", {}};
};

TEST_F(DecoderTest, KeyOfTheStateModel_BecomesItsPathAndValue) {
  EXPECT_THAT(put("interfaces/a", R"({"ifIndex": 7})").changes, ElementsAre(Pair(a_, Interface{7})));
  EXPECT_THAT(put("sysname", R"("cluster")").changes,
              ElementsAre(Pair(Path{Kind::sysname, {}, {}}, Value(std::string("cluster")))));
  EXPECT_THAT(put("members/1/storage/%2Fvar", R"({"allocationUnits": 1, "size": 2, "free": 3})").changes,
              ElementsAre(Pair(Path{Kind::storage, "1", "/var"}, Storage{1, 2, 3})));
  EXPECT_THAT(del("interfaces/a").changes, ElementsAre(Pair(a_, std::nullopt)));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DecoderTest, KeyChangesSeveralTimes_TheLastCounts) {
  auto decoded = decoder_.decode({{"p/interfaces/a", R"({"ifIndex": 1})", 0},
                                  {"p/interfaces/a", std::nullopt, 0},
                                  {"p/interfaces/a", R"({"ifIndex": 2})", 0}});
  EXPECT_THAT(decoded.changes, ElementsAre(Pair(a_, Interface{2})));
}

TEST_F(DecoderTest, BadValue_IsSetAside_AndOthersAreTaken) {
  auto decoded = decoder_.decode({{"p/interfaces/a", R"({"ifIndex": -1})", 0},
                                  {"p/interfaces/b", R"({"ifIndex": 2})", 0},
                                  {"p/interfaces/c", "{", 0},
                                  {"p/interfaces/d", "", 0}});
  EXPECT_THAT(decoded.changes, ElementsAre(Pair(Path{Kind::interface, "b", {}}, Interface{2})));
  const std::string range = "ifIndex: found -1, expected an integer from 0 to 4294967295";
  const std::string syntax =
      "1:2: syntax error while parsing object key - unexpected end of input; expected string literal";
  const std::string nothing = "1:1: found nothing, expected a JSON value";
  EXPECT_THAT(decoder_.setAside(), ElementsAre(Pair("p/interfaces/a", range), Pair("p/interfaces/c", syntax),
                                               Pair("p/interfaces/d", nothing)));
  EXPECT_THAT(lines(), ElementsAre("0 key p/interfaces/a: " + range, "0 key p/interfaces/c: " + syntax,
                                   "0 key p/interfaces/d: " + nothing));
}

TEST_F(DecoderTest, BadValueStays_IsToldOnce_UntilItIsGoodOrGone) {
  put("interfaces/a", "x");
  EXPECT_THAT(lines(), testing::SizeIs(1));
  put("interfaces/a", "x");
  EXPECT_THAT(lines(), IsEmpty());
  put("interfaces/a", "y");
  EXPECT_THAT(lines(), testing::SizeIs(1));
  put("interfaces/a", R"({"ifIndex": 1})");
  EXPECT_THAT(decoder_.setAside(), IsEmpty());
  put("interfaces/a", "y");
  EXPECT_THAT(lines(), testing::SizeIs(1));
  EXPECT_THAT(del("interfaces/a").changes, ElementsAre(Pair(a_, std::nullopt)));
  EXPECT_THAT(decoder_.setAside(), IsEmpty());
}

TEST_F(DecoderTest, BadKey_IsSetAside_UntilItIsGone) {
  EXPECT_THAT(put("members/300/system", "{}").changes, IsEmpty());
  EXPECT_THAT(put("interfaces/Backplane1/1", R"({"ifIndex": 1})").changes, IsEmpty());
  EXPECT_THAT(put("interfaces/%61", R"({"ifIndex": 1})").changes, IsEmpty());
  EXPECT_TRUE(decoder_.setAside().contains("p/members/300/system"));
  EXPECT_TRUE(decoder_.setAside().contains("p/interfaces/%61"));
  EXPECT_THAT(del("interfaces/%61").changes, IsEmpty()) << "which is another key's path";
  EXPECT_FALSE(decoder_.setAside().contains("p/interfaces/%61"));
}

TEST_F(DecoderTest, ValueThatIsTooLarge_IsSetAsideWithItsSize) {
  auto decoded = decoder_.decode({{"p/interfaces/a", "", 0, 1'000'000}});
  EXPECT_THAT(decoded.changes, IsEmpty());
  EXPECT_THAT(decoded.unusable, ElementsAre(a_));
  EXPECT_THAT(lines(),
              ElementsAre("0 key p/interfaces/a: found a value of 1000000 bytes, expected at most 4096"));
  put("interfaces/a", R"({"ifIndex": 1})");
  EXPECT_EQ(decoder_.setAsideCount(), 0u);
}

TEST_F(DecoderTest, UnknownMemberOfAValue_IsIgnoredWithOneWarning) {
  EXPECT_THAT(put("interfaces/a", R"({"ifIndex": 1, "colour": 2})").changes,
              ElementsAre(Pair(a_, Interface{1})));
  EXPECT_THAT(lines(), ElementsAre("1 key p/interfaces/a: colour: unknown member, ignored"));
  put("interfaces/a", R"({"ifIndex": 2, "colour": 2})");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DecoderTest, WrongThroughout_TwentyLinesAndTheirNumber) {
  for (int i = 0; i < 100; ++i) put(fmt::format("interfaces/i{}", i), "x");
  auto told = lines();
  ASSERT_EQ(told.size(), 21u);
  EXPECT_EQ(told.back(), "0 80 more like these");
  EXPECT_EQ(decoder_.setAsideCount(), 100u);
}

TEST_F(DecoderTest, MoreIsWrongThanIsRemembered_AllOfItIsCounted) {
  for (int i = 0; i < 100; ++i) put(fmt::format("interfaces/i{}", i), "x");
  EXPECT_EQ(decoder_.setAside().size(), 50u);
  EXPECT_EQ(decoder_.setAsideCount(), 100u);
  lines();
  put("interfaces/i99", "x");
  EXPECT_THAT(lines(), IsEmpty()) << "it was told";
  for (int i = 0; i < 99; ++i) put(fmt::format("interfaces/i{}", i), R"({"ifIndex": 1})");
  EXPECT_EQ(decoder_.setAsideCount(), 1u);
  del("interfaces/i99");
  EXPECT_EQ(decoder_.setAsideCount(), 0u);
}

TEST_F(DecoderTest, MembersWhoseKeysChange_AreToldWithTheirLease) {
  auto decoded = decoder_.decode({{"p/members/1/processors/1", R"({"load": 1})", 77},
                                  {"p/members/1/processors/2", std::nullopt, 0},
                                  {"p/members/2/processors/2", std::nullopt, 0},
                                  {"p/topology/3/4", R"({"intf": "a"})", 9}});
  EXPECT_THAT(decoded.members, UnorderedElementsAre(Pair("1", 77), Pair("2", 0)));
}

}  // namespace
}  // namespace Kelstore::Etcd
