// What becomes of keys and their values, usable or not.
#include "kelstore/etcd/Decoder.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/Random.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class DecoderTest : public testing::Test {
 protected:
  Decoder::Decoded decode(std::vector<Change> changes, bool whole = false) {
    Decoder::Decoded decoded = decoder_.decode({1, std::move(changes), whole}, state_);
    std::vector<Path> changed;
    state_ = state_.with(decoded.changes, changed);
    return decoded;
  }
  Decoder::Decoded put(const std::string& key, const std::string& value, int64_t lease = 0) {
    return decode({{"p/" + key, value, lease}});
  }
  Decoder::Decoded del(const std::string& key) { return decode({{"p/" + key, std::nullopt, 0}}); }
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

  Snapshot state_;
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
  auto decoded = decode({{"p/interfaces/a", R"({"ifIndex": 1})", 0},
                         {"p/interfaces/a", std::nullopt, 0},
                         {"p/interfaces/a", R"({"ifIndex": 2})", 0}});
  EXPECT_THAT(decoded.changes, ElementsAre(Pair(a_, Interface{2})));
}

TEST_F(DecoderTest, BadValue_IsSetAside_AndOthersAreTaken) {
  auto decoded = decode({{"p/interfaces/a", R"({"ifIndex": -1})", 0},
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

TEST_F(DecoderTest, ValueHasAMemberTwice_IsSetAside_AndTheLastGoodOneStays) {
  put("interfaces/a", R"({"ifIndex": 7})");
  put("interfaces/a", R"({"ifIndex": 8, "ifIndex": 9})");
  EXPECT_EQ(decoder_.setAsideCount(), 1u);
  EXPECT_EQ(*state_.find(a_), Value(Interface{7}));
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
  auto decoded = decode({{"p/interfaces/a", "", 0, 1'000'000}});
  EXPECT_THAT(decoded.changes, IsEmpty());
  EXPECT_TRUE(decoded.unusable.affect(a_));
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
  auto decoded = decode({{"p/members/1/processors/1", R"({"load": 1})", 77},
                         {"p/members/1/processors/2", std::nullopt, 0},
                         {"p/members/2/processors/2", std::nullopt, 0},
                         {"p/topology/3/4", R"({"intf": "a"})", 9}});
  EXPECT_THAT(decoded.members, UnorderedElementsAre(Pair("1", 77), Pair("2", 0)));
}

// Packed forms.

class PackedKeysTest : public DecoderTest {
 protected:
  Decoder::Decoded figures(const std::string& loads, int64_t lease = 0) {
    return put("members/1/figures",
               R"({"bootTime": 1, "clock": 11, "users": 0, "processes": 0, "memorySize": 0, "loads": )" +
                   loads + "}",
               lease);
  }
  Decoder::Decoded own(const std::string& index, int load) {
    return put("members/1/processors/" + index, fmt::format(R"({{"load": {}}})", load));
  }
  // The loads of member 1, by processor.
  std::string loads() const {
    std::string text;
    state_.forEach(Kind::processor, [&](const Path& path, const Value& value) {
      text += fmt::format("{}={} ", path.second(), value.get<Processor>().load);
    });
    return text;
  }
};

TEST_F(PackedKeysTest, WhatItGivesNoMore_IsWithdrawn) {
  figures(R"({"1": 10, "2": 20})");
  EXPECT_EQ(loads(), "1=10 2=20 ");
  figures(R"({"2": 21})");
  EXPECT_EQ(loads(), "2=21 ");
  del("members/1/figures");
  EXPECT_EQ(state_.size(), 0u);
}

TEST_F(PackedKeysTest, WrongPart_ItsLastGoodValueStays_AndTheKeyIsSetAside) {
  figures(R"({"1": 10, "2": 20, "3": 30})");
  EXPECT_TRUE(figures(R"({"1": "x", "2": 21})").unusable.affect({Kind::processor, "1", "1"}));
  EXPECT_EQ(loads(), "1=10 2=21 ");
  EXPECT_THAT(lines(), ElementsAre("0 key p/members/1/figures: loads/1: found \"x\", expected an integer "
                                   "from -32768 to 32767"));
  EXPECT_EQ(decoder_.setAsideCount(), 1u);
  figures(R"({"2": 22})");
  EXPECT_EQ(loads(), "2=22 ");
  EXPECT_EQ(decoder_.setAsideCount(), 0u);
}

TEST_F(PackedKeysTest, ElementIsThereTwice_AllOfItStays) {
  const Path load{Kind::processor, "1", "1"};
  auto figures = [](const std::string& loads) {
    return R"({"clock": 5, "users": 1, "processes": 2, "memorySize": 3, "loads": {)" + loads + "}}";
  };
  put("members/1/figures", figures(R"("1": 7)"), 4);
  put("members/1/figures", figures(R"("1": 8, "1": 9)"), 4);
  EXPECT_EQ(decoder_.setAsideCount(), 1u);
  ASSERT_NE(state_.find(load), nullptr);
  EXPECT_EQ(state_.find(load)->get<Processor>().load, 7);
}

TEST_F(PackedKeysTest, AllOfItIsWrong_AllOfItStays) {
  figures(R"({"1": 10})");
  put("members/1/figures", "{");
  put("members/1/figures", "[]");
  decode({{"p/members/1/figures", "", 0, 1'000'000}});
  EXPECT_EQ(loads(), "1=10 ");
  EXPECT_EQ(state_.size(), 2u);
  del("members/1/figures");
  EXPECT_EQ(state_.size(), 0u);
}

// Which of the two keys comes first, and when, does not matter.
TEST_F(PackedKeysTest, PathHasAKeyOfItsOwnToo_ThePackedFormCounts_WhileItGivesThePath) {
  own("1", 1);
  figures(R"({"1": 10})");
  EXPECT_EQ(loads(), "1=10 ");
  own("1", 2);
  own("2", 2);
  EXPECT_EQ(loads(), "1=10 2=2 ");
  figures(R"({"2": 20})");
  EXPECT_EQ(loads(), "1=2 2=20 ");
  del("members/1/processors/2");
  EXPECT_EQ(loads(), "1=2 2=20 ");
  del("members/1/figures");
  EXPECT_EQ(loads(), "1=2 ");
}

TEST_F(PackedKeysTest, PublisherOfTheOldFormIsReplaced_InOneRevision) {
  own("1", 1);
  decode({{"p/members/1/figures",
           R"({"clock": 1, "users": 0, "processes": 0, "memorySize": 0, "loads": {"1": 10}})", 0},
          {"p/members/1/processors/1", std::nullopt, 0}});
  EXPECT_EQ(loads(), "1=10 ");
}

TEST_F(PackedKeysTest, AllKeysAreReadAgain_WhatIsWrongStays_UntilTheFormIsGone) {
  figures(R"({"1": 10, "2": 20})");
  auto decoded = decode({{"p/members/1/figures", "{", 0}}, true);
  EXPECT_TRUE(decoded.unusable.affect({Kind::processor, "1", "1"}));
  EXPECT_EQ(loads(), "1=10 2=20 ");
  figures(R"({"2": 21})");
  EXPECT_EQ(loads(), "2=21 ");
  decode({{"p/members/1/processors/2", R"({"load": 5})", 0}}, true);
  EXPECT_EQ(loads(), "2=5 ") << "the packed form is not there any more";
}

TEST_F(PackedKeysTest, OnlyWhatHasALease_GoesOn) {
  const Path system{Kind::system, "1", ""};
  EXPECT_THAT(figures("{}", 77).goingOn, ElementsAre(Pair(system, true)));
  EXPECT_THAT(figures("{}").goingOn, ElementsAre(Pair(system, false)));
  EXPECT_THAT(del("members/1/figures").goingOn, ElementsAre(Pair(system, false)));
}

// Two decoders: one gets changes one by one, the other one all keys at once, as after a listing.
TEST_F(PackedKeysTest, RandomChanges_TheStateDependsOnTheKeysAlone) {
  for (uint64_t seed = 0; seed < 300; ++seed) {
    Support::Random random(seed);
    decoder_ = Decoder(KeySpace("p"), limits());
    state_ = {};
    std::map<std::string, std::string> keys;
    for (int step = 0; step < 30; ++step) {
      std::string index = std::to_string(1 + random.below(3));
      std::string key = random.percent(50) ? "members/1/figures" : "members/1/processors/" + index;
      if (random.percent(25)) {
        keys.erase(key);
        del(key);
        continue;
      }
      std::string load = std::to_string(random.below(100));
      std::string given;
      for (int i = 1; i <= 3; ++i) {
        if (random.percent(50)) given += fmt::format(R"({}"{}": {})", given.empty() ? "" : ", ", i, load);
      }
      keys[key] =
          key.ends_with("figures")
              ? R"({"clock": 1, "users": 0, "processes": 0, "memorySize": 0, "loads": {)" + given + "}}"
              : R"({"load": )" + load + "}";
      put(key, keys[key]);
    }
    std::vector<Change> all;
    for (const auto& [key, value] : keys) all.push_back({"p/" + key, value, 0});
    Decoder other(KeySpace("p"), limits());
    std::vector<Path> changed;
    Snapshot expected = Snapshot().with(other.decode({1, all, true}, {}).changes, changed);
    EXPECT_THAT(differences(expected, state_), IsEmpty()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace Kelstore::Etcd
