// Which lines are said of many that are like each other, and what is said of the others.
#include "runtime/Thinning.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace Runtime {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
constexpr uint64_t kWhile = Thinning::kWhileMs;

class ThinningTest : public testing::Test {
 protected:
  bool admits(uint64_t nowMs, const Likeness& likeness, const std::string& text = "x") {
    return thinning_.admits(nowMs, likeness, {Severity::error, "Source/0", text});
  }
  // How many of so many lines are said.
  unsigned admitted(uint64_t nowMs, const Likeness& likeness, unsigned lines) {
    unsigned said = 0;
    for (unsigned i = 0; i < lines; ++i) said += admits(nowMs, likeness, fmt::format("line {}", i)) ? 1 : 0;
    return said;
  }
  static std::vector<std::string> told(const std::vector<LogLine>& lines) {
    std::vector<std::string> texts;
    for (const LogLine& line : lines) {
      texts.push_back(fmt::format("{} {} {}", static_cast<int>(line.severity), line.label, line.text));
    }
    return texts;
  }

  Thinning thinning_;
};

TEST_F(ThinningTest, LinesOfOneKind_AsManyAsItsBound_TheRestIsToldOnceTheWhileIsOver) {
  EXPECT_EQ(admitted(1000, {"a", ""}, 100), Thinning::kOfKind);
  EXPECT_EQ(thinning_.leftOut(), 40u);
  EXPECT_EQ(thinning_.nextMs(), 1000 + kWhile);
  EXPECT_THAT(thinning_.over(1000 + kWhile - 1), IsEmpty());
  EXPECT_THAT(told(thinning_.over(1000 + kWhile)),
              ElementsAre("0 Source/0 40 more like this in the last 60 s left out, the last: line 99"));
  EXPECT_THAT(thinning_.over(1000 + 2 * kWhile), IsEmpty());
  EXPECT_EQ(thinning_.nextMs(), Thinning::kNever);
}

TEST_F(ThinningTest, KindsDoNotCountForEachOther) {
  EXPECT_EQ(admitted(0, {"a", ""}, 100), Thinning::kOfKind);
  EXPECT_EQ(admitted(0, {"b", ""}, 100), Thinning::kOfKind);
}

TEST_F(ThinningTest, OneSubject_HasItsOwnBound_AndLeavesTheOthersTheRest) {
  EXPECT_EQ(admitted(0, {"a", "k1"}, 1000), Thinning::kOfSubject);
  EXPECT_EQ(admitted(0, {"a", "k2"}, 2), 2u);
  EXPECT_EQ(admitted(0, {"a", ""}, 1000), Thinning::kOfKind - Thinning::kOfSubject - 2);
  EXPECT_THAT(told(thinning_.over(kWhile)),
              ElementsAre("0 Source/0 995 more like this in the last 60 s left out, the last: line 999",
                          "0 Source/0 947 more like this in the last 60 s left out, the last: line 999"));
}

TEST_F(ThinningTest, AnyNumberOfSubjects_TakesNoMoreRoomThanTheirKindsBound) {
  unsigned said = 0;
  for (int i = 0; i < 10'000; ++i) said += admits(0, {"a", std::to_string(i)}) ? 1 : 0;
  EXPECT_EQ(said, Thinning::kOfKind);
  EXPECT_EQ(told(thinning_.over(kWhile)).size(), 1u) << "those that were never said are counted together";
}

TEST_F(ThinningTest, NextWhile_BeginsWithItsFirstLine) {
  admitted(0, {"a", "k"}, 6);
  EXPECT_TRUE(admits(kWhile, {"a", "k"})) << "although the last while has not been asked for";
  EXPECT_EQ(thinning_.nextMs(), 0u);
  EXPECT_THAT(told(thinning_.over(kWhile)),
              ElementsAre("0 Source/0 1 more like this in the last 60 s left out, the last: line 5"));
  EXPECT_EQ(thinning_.nextMs(), 2 * kWhile);
}

TEST_F(ThinningTest, NothingLeftOut_NothingTold) {
  admitted(0, {"a", "k"}, Thinning::kOfSubject);
  EXPECT_THAT(thinning_.over(kWhile), IsEmpty());
  EXPECT_EQ(thinning_.leftOut(), 0u);
}

TEST_F(ThinningTest, AtTheEnd_WhilesThatAreNotOverAreToldWithTheirLength) {
  admitted(1000, {"a", "k"}, 7);
  EXPECT_THAT(told(thinning_.all(13'400)),
              ElementsAre("0 Source/0 2 more like this in the last 12 s left out, the last: line 6"));
}

}  // namespace
}  // namespace Runtime
