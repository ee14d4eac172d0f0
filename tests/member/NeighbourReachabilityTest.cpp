// Every transition between the six states, and what does not change the state.
#include "member/NeighbourReachability.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>

namespace Member {
namespace {

class ReachabilityTest : public testing::Test {
 protected:
  static constexpr uint64_t kStartNs = 1'000'000'000'000;
  static constexpr uint64_t kStepNs = 1'000'000'000;

  // One step for each character: a second passes, then an echo is answered (a), lost (l) or not sent (n), or
  // the carrier goes down (d) or up (u), the interface is switched off (o) or missing (m). Returns the states
  // after each step, by first letter (D for disabled, R reachable, G degraded, U unreachable, I, ? unknown).
  std::string after(std::string_view steps) {
    std::string states;
    for (char step : steps) {
      clock_.advanceNs(kStepNs);
      take(step);
      states += letter();
    }
    return states;
  }
  // A machine that is in the state to begin with, by the letters above.
  void startIn(char state) {
    if (state == 'I') after("u");
    if (state == 'R') after("uaaa");
    if (state == 'G') after("uaaalla");
    if (state == 'U') after("d");
    if (state == 'D') after("o");
    ASSERT_EQ(letter(), std::string(1, state));
  }
  // As often as that; the states of all steps.
  std::string times(std::string_view steps, int count) {
    std::string states;
    for (int i = 0; i < count; ++i) states += after(steps);
    return states;
  }
  void anew() { reachability_.emplace(settings_, clock_); }
  std::string letter() const { return {"?IRGUD"[reachability_->state()]}; }
  uint64_t lastChange() const { return (reachability_->lastChangeNs() - kStartNs) / kStepNs; }

  static constexpr std::string_view kBadToGood = "U?IGR";

  Zavro::ManualClock clock_{kStartNs};
  NeighbourReachability::Settings settings_{true, 3, 3, 6, 2};
  std::optional<NeighbourReachability> reachability_{std::in_place, settings_, clock_};

 private:
  void take(char step) {
    switch (step) {
      case 'a':
        return reachability_->echoIs(Echo::answered);
      case 'l':
        return reachability_->echoIs(Echo::lost);
      case 'n':
        return reachability_->echoIs(Echo::notSent);
      case 'd':
        return reachability_->carrierIs(Carrier::down);
      case 'u':
        return reachability_->carrierIs(Carrier::up);
      case 'o':
        return reachability_->carrierIs(Carrier::switchedOff);
      case 'm':
        return reachability_->carrierIs(Carrier::missing);
      default:
        FAIL() << step;
    }
  }
};

TEST_F(ReachabilityTest, OtherSettings_WhatIsKnownStays_AndTheyCountFromThenOn) {
  startIn('R');
  EXPECT_EQ(after("ll"), "RR");
  uint64_t changed = lastChange();
  settings_.lossesDown = 4;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(letter(), "R");
  EXPECT_EQ(lastChange(), changed);
  EXPECT_EQ(after("ll"), "RU") << "four in a row";
}

TEST_F(ReachabilityTest, SmallerWindow_WhatFallsOutOfItIsForgotten) {
  startIn('G');
  EXPECT_EQ(after("aaa"), "GGG");
  settings_.window = 3;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(after("a"), "R") << "the losses lie further back";
}

TEST_F(ReachabilityTest, SwitchedOffBySettings_AndOnAgain_ItBeginsWithTheCarrierThatThereIs) {
  startIn('R');
  settings_.enabled = false;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(letter(), "D");
  EXPECT_FALSE(reachability_->probing());
  EXPECT_EQ(after("aaa"), "DDD");
  settings_.enabled = true;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(letter(), "I");
  EXPECT_TRUE(reachability_->probing());
  EXPECT_EQ(after("aaa"), "IIR");
  settings_.enabled = false;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(after("d"), "D");
  settings_.enabled = true;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(letter(), "U");
}

TEST_F(ReachabilityTest, SwitchedOnBySettings_NothingIsKnownOfTheInterface_Unknown) {
  settings_.enabled = false;
  anew();
  EXPECT_EQ(letter(), "D");
  settings_.enabled = true;
  reachability_->settingsIs(settings_);
  EXPECT_EQ(letter(), "?");
}

TEST_F(ReachabilityTest, NothingIsKnown_Unknown_AndEchoesDoNotCount) {
  EXPECT_EQ(letter(), "?");
  EXPECT_FALSE(reachability_->probing());
  EXPECT_EQ(reachability_->lastChangeNs(), kStartNs);
  EXPECT_EQ(after("aaaalll"), "???????");
}

TEST_F(ReachabilityTest, Carrier_CountsAtOnceInEveryState) {
  for (char state : {'?', 'I', 'R', 'G', 'U', 'D'}) {
    for (auto [step, expected] : {std::pair{"d", "U"}, {"m", "U"}, {"o", "D"}}) {
      anew();
      startIn(state);
      EXPECT_EQ(after(step), expected) << state << step;
      EXPECT_FALSE(reachability_->probing());
      EXPECT_EQ(after("aaa"), std::string(3, *expected)) << "an echo without carrier counted";
      EXPECT_EQ(after("u"), *step == 'd' ? "U" : "I") << state << step;
      EXPECT_TRUE(reachability_->probing());
    }
  }
}

TEST_F(ReachabilityTest, CarrierIsToldAgain_NothingChanges) {
  startIn('R');
  EXPECT_EQ(after("uuau"), "RRRR");
}

TEST_F(ReachabilityTest, Initializing_AnswersInARow_Reachable) { EXPECT_EQ(after("uaaa"), "IIIR"); }

TEST_F(ReachabilityTest, Initializing_LossesInARow_Unreachable) { EXPECT_EQ(after("ulll"), "IIIU"); }

TEST_F(ReachabilityTest, Initializing_NeitherInARow_Initializing) {
  EXPECT_EQ(after("uaallaalla"), "IIIIIIIIII");
}

TEST_F(ReachabilityTest, AnswersBeforeCarrierWasLost_DoNotCountAfterIt) {
  EXPECT_EQ(after("uaaduaaa"), "IIIUUUUR");
  EXPECT_EQ(after("llmulll"), "RRUIIIU");
}

TEST_F(ReachabilityTest, Reachable_LossesInARow_UnreachableWithoutADetour) {
  startIn('R');
  EXPECT_EQ(after("lll"), "RRU");
}

TEST_F(ReachabilityTest, Reachable_OneLossAmongTheLast_Reachable) {
  startIn('R');
  EXPECT_EQ(after("laaaaaalaaaaaa"), "RRRRRRRRRRRRRR");
}

TEST_F(ReachabilityTest, Reachable_LossesAmongTheLast_DegradedOnceItAnswersAgain) {
  startIn('R');
  EXPECT_EQ(after("lla"), "RRG");
  startIn('G');
}

TEST_F(ReachabilityTest, Degraded_NoneOfTheLastWasLost_Reachable) {
  startIn('R');
  // Of six echoes, the last loss leaves the window with the sixth answer after it.
  EXPECT_EQ(after("lalaaaaaa"), "RRRGGGGGR");
}

TEST_F(ReachabilityTest, Degraded_LossesInARow_Unreachable) {
  startIn('G');
  EXPECT_EQ(after("lalll"), "GGGGU");
}

TEST_F(ReachabilityTest, Unreachable_AnswersInARow_ReachableNotDegraded) {
  startIn('R');
  EXPECT_EQ(after("lllaaaa"), "RRUUURR");
}

TEST_F(ReachabilityTest, EchoesFlap_StaysUnreachable) {
  startIn('U');
  EXPECT_EQ(after("ullla"), "UUUUU");
  EXPECT_EQ(after("alaallaalalaa"), std::string(13, 'U'));
  EXPECT_EQ(after("a"), "R");
}

// Each change would be written, and notified by every agent.
TEST_F(ReachabilityTest, CarrierFlaps_StaysUnreachableFromTheFirstTimeOn) {
  startIn('R');
  EXPECT_EQ(after("duaaduaduldu"), std::string(12, 'U'));
  EXPECT_EQ(lastChange(), 5u);
  EXPECT_EQ(after("aaa"), "UUR");
}

TEST_F(ReachabilityTest, SwitchedOnOrThereAgain_InitializingUnlessThereIsNoCarrierFirst) {
  EXPECT_EQ(after("ouou"), "DIDI");
  EXPECT_EQ(after("mumu"), "UIUI");
  EXPECT_EQ(after("oduaaa"), "DUUUUR");
  EXPECT_EQ(after("mduaaa"), "UUUUUR");
}

TEST_F(ReachabilityTest, CarrierIsBackButEchoesCannotBeSent_Unknown) {
  startIn('U');
  EXPECT_EQ(after("unnnaaa"), "UUU?IIR");
}

TEST_F(ReachabilityTest, EchoesCannotBeSent_UnknownAfterSomeInARow) {
  for (char state : {'I', 'R', 'G'}) {
    anew();
    startIn(state);
    EXPECT_EQ(after("nnn"), std::string(2, state) + "?") << state;
    EXPECT_TRUE(reachability_->probing()) << "it would never be found out that they can be sent again";
  }
}

TEST_F(ReachabilityTest, EchoesCanBeSentAgain_InitializingThenCounted) {
  EXPECT_EQ(after("unnnaaa"), "III?IIR");
  EXPECT_EQ(after("nnnlll"), "RR?IIU");
}

TEST_F(ReachabilityTest, EchoesNotSent_AreNoLosses) {
  startIn('R');
  EXPECT_EQ(after("nnannannaaa"), std::string(11, 'R'));
  EXPECT_EQ(after("llnlla"), "RRRRRG") << "two and two losses, not three in a row";
}

TEST_F(ReachabilityTest, EchoesNotSent_DoNotMakeLossesOld) {
  startIn('R');
  EXPECT_EQ(after("llannanna"), "RRGGGGGGG");
  EXPECT_EQ(after("aaa"), "GGR");
}

TEST_F(ReachabilityTest, SwitchedOffInTheConfiguration_AlwaysDisabled) {
  settings_.enabled = false;
  anew();
  EXPECT_EQ(letter(), "D");
  EXPECT_EQ(after("uaaalllnnndmou"), std::string(14, 'D'));
  EXPECT_FALSE(reachability_->probing());
  EXPECT_EQ(reachability_->lastChangeNs(), kStartNs);
}

TEST_F(ReachabilityTest, LastChange_IsWhenTheStateChangedAndNotWhenItWasConfirmed) {
  after("u");
  EXPECT_EQ(lastChange(), 1u);
  after("aa");
  EXPECT_EQ(lastChange(), 1u);
  after("a");
  EXPECT_EQ(lastChange(), 4u);
  after("aaaaaalaaa");
  EXPECT_EQ(lastChange(), 4u);
  after("d");
  EXPECT_EQ(lastChange(), 15u);
  after("md");
  EXPECT_EQ(lastChange(), 15u) << "missing and without carrier are both unreachable";
}

TEST_F(ReachabilityTest, OneOfEach_CountsAtOnce) {
  settings_ = {true, 1, 1, 1, 1};
  anew();
  EXPECT_EQ(after("ualanal"), "IRUR?RU");
}

// Half of the answers lost used to change the state every few seconds, for as long as it lasted.
TEST_F(ReachabilityTest, ComesAndGoes_FourTimesAtOnceThenOnceAMinute) {
  startIn('U');
  EXPECT_EQ(after("uaaalllaaalllaaalllaaalll"), "UUURRRUUURRRUUURRRUUURRRU");
  EXPECT_EQ(times("aaalll", 6), std::string(36, 'U')) << "until a minute after the first time";
  EXPECT_EQ(after("aaalll"), "UURRRU");
  EXPECT_EQ(times("aaalll", 9), std::string(54, 'U'));
  EXPECT_EQ(after("aaalll"), "UURRRU");
}

TEST_F(ReachabilityTest, HeldBack_ItIsSaid_AndLastChangeIsWhenTheShownStateChanged) {
  startIn('U');
  after("uaaalllaaalllaaalllaaa");
  EXPECT_FALSE(reachability_->heldBack());
  after("lll");
  EXPECT_EQ(lastChange(), 26u);
  EXPECT_FALSE(reachability_->heldBack());
  EXPECT_EQ(after("aaa"), "UUU");
  EXPECT_TRUE(reachability_->heldBack());
  EXPECT_EQ(lastChange(), 26u);
  clock_.advanceNs(35 * kStepNs);
  EXPECT_EQ(after("a"), "R") << "a minute after it came up first";
  EXPECT_FALSE(reachability_->heldBack());
  EXPECT_EQ(lastChange(), 65u);
}

TEST_F(ReachabilityTest, HeldBackAndLostAgain_NothingIsHeldBack) {
  for (const char* loss : {"lll", "d", "m"}) {
    SCOPED_TRACE(loss);
    anew();
    startIn('U');
    after("uaaalllaaalllaaalllaaalllaaal");
    EXPECT_TRUE(reachability_->heldBack()) << "one loss counts for nothing";
    after(loss);
    EXPECT_FALSE(reachability_->heldBack());
  }
}

TEST_F(ReachabilityTest, WhatIsWorse_CountsAtOnceHoweverOftenItChanged) {
  startIn('U');
  after("uaaalllaaalllaaalllaaa");
  EXPECT_EQ(after("d"), "U");
  EXPECT_EQ(after("uaaad"), "UUUUU");
  clock_.advanceNs(60 * kStepNs);
  EXPECT_EQ(after("uaaalll"), "UUURRRU");
}

TEST_F(ReachabilityTest, AQuietTime_AllCountAtOnceAgain) {
  startIn('U');
  after("uaaalllaaalllaaalllaaalllaaa");
  clock_.advanceNs(300 * kStepNs);
  EXPECT_EQ(after("lllaaalllaaalllaaalllaaa"), "UUUUURRRUUURRRUUURRRUUUR");
}

TEST_F(ReachabilityTest, DeviceIsMissingAndThereInTurns_StaysUnreachable) {
  EXPECT_EQ(after("mumumumumumu"), "UIUIUIUIUUUU");
}

TEST_F(ReachabilityTest, OperatorSwitchesItOffAndOn_NothingIsHeldBack) {
  startIn('U');
  after("uaaalllaaalllaaalllaaalllaaa");
  ASSERT_TRUE(reachability_->heldBack());
  EXPECT_EQ(after("ouaaalll"), "DIIIRRRU");
  for (int i = 0; i < 20; ++i) EXPECT_EQ(after("ou"), "DI");
}

// Whatever echoes and carrier do for an hour, with some patience as well as with none.
TEST_F(ReachabilityTest, AnyInputs_ChangesForTheBetterAreBounded_AndANeighbourThatAnswersIsReachable) {
  for (unsigned seed = 0; seed < 50; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    settings_ = seed % 2 == 0 ? NeighbourReachability::Settings{true, 1, 1, 2, 1}
                              : NeighbourReachability::Settings{true, 3, 3, 6, 2};
    anew();
    constexpr int kHour = 3600;
    constexpr std::string_view kSteps = "aaaaallllnnndumu";
    int better = 0;
    for (int i = 0; i < kHour; ++i) {
      char before = letter()[0];
      after(kSteps.substr(random() % kSteps.size(), 1));
      if (kBadToGood.find(letter()[0]) > kBadToGood.find(before) && before != 'I') ++better;
    }
    EXPECT_LE(better, 4 + 60);
    EXPECT_GT(better, 30);
    after("u" + std::string(70, 'a'));
    EXPECT_EQ(letter(), "R");
  }
}

// The clock of a machine without a battery begins with 1970, and is set when a time server answers.
TEST_F(ReachabilityTest, ClockIsSet_ChangesAreToldInTheNewTime) {
  after("uaaa");
  constexpr uint64_t kYearNs = 31'536'000'000'000'000;
  after("aa");
  for (uint64_t set : {50 * kYearNs, uint64_t{1}}) {
    clock_.utcNsIs(kStartNs + set);
    reachability_->lookAtClock();
    EXPECT_EQ(reachability_->lastChangeNs(), kStartNs + set - 2 * kStepNs);
  }
  clock_.utcNsIs(kStepNs);
  reachability_->lookAtClock();
  EXPECT_EQ(reachability_->lastChangeNs(), 0u) << "1970 is the first year that there is";
}

// Each would be a new row.
TEST_F(ReachabilityTest, ClockIsAdjustedSlowly_TimesStay) {
  after("uaaa");
  uint64_t before = reachability_->lastChangeNs();
  for (int i = 0; i < 9; ++i) {
    clock_.utcNsIs(clock_.utcNs() + 100'000'000);
    reachability_->lookAtClock();
  }
  EXPECT_EQ(reachability_->lastChangeNs(), before);
}

// After a restart: what the process before found holds until this one finds out otherwise.

TEST_F(ReachabilityTest, EarlierStateIsFoundAgain_NothingChanged) {
  const std::pair<NeighbourReachability::State, std::string_view> kFound[] = {
      {NeighbourReachability::State::reachable, "aaaaaaaa"},
      {NeighbourReachability::State::unreachable, "llllllll"},
      {NeighbourReachability::State::degraded, "alalalal"}};
  for (auto [state, steps] : kFound) {
    anew();
    after("u");
    reachability_->earlierIs(state, kStartNs - 7);
    std::string letters = after(steps);
    EXPECT_EQ(letters, std::string(letters.size(), letters[0]));
    EXPECT_EQ(reachability_->state(), state);
    EXPECT_EQ(reachability_->lastChangeNs(), kStartNs - 7);
  }
}

TEST_F(ReachabilityTest, EarlierStateIsNotFoundAgain_ChangesAsIfItHadBeenFoundHere) {
  after("u");
  reachability_->earlierIs(NeighbourReachability::State::reachable, kStartNs - 7);
  EXPECT_EQ(after("lll"), "RRU");
  EXPECT_EQ(lastChange(), 4u);
  anew();
  after("u");
  reachability_->earlierIs(NeighbourReachability::State::unreachable, kStartNs - 7);
  EXPECT_EQ(after("aaa"), "UUR");
  anew();
  after("u");
  reachability_->earlierIs(NeighbourReachability::State::degraded, kStartNs - 7);
  EXPECT_EQ(after("a"), "G") << "it would be so again after two losses";
  EXPECT_EQ(after(std::string(settings_.window, 'a')).back(), 'R');
}

TEST_F(ReachabilityTest, EarlierStateComesLate_WhatWasFoundHereCounts_AndSinceWhenIfItIsTheSame) {
  after("uaaa");
  reachability_->earlierIs(NeighbourReachability::State::unreachable, kStartNs - 7);
  EXPECT_EQ(letter(), "R");
  EXPECT_EQ(lastChange(), 4u);
  reachability_->earlierIs(NeighbourReachability::State::reachable, kStartNs - 7);
  EXPECT_EQ(reachability_->lastChangeNs(), kStartNs - 7);
  after("d");
  reachability_->earlierIs(NeighbourReachability::State::reachable, kStartNs - 7);
  EXPECT_EQ(letter(), "U");
}

TEST_F(ReachabilityTest, EarlierStateThatSaysNothing_IsNotTakenOver) {
  after("u");
  for (auto state : {NeighbourReachability::State::unknown, NeighbourReachability::State::disabled})
    reachability_->earlierIs(state, kStartNs - 7);
  EXPECT_EQ(letter(), "I");
  EXPECT_EQ(lastChange(), 1u);
}

TEST_F(ReachabilityTest, EarlierStateIsOfAClockAhead_IsNotInTheFuture) {
  after("u");
  reachability_->earlierIs(NeighbourReachability::State::reachable, kStartNs + 1000 * kStepNs);
  EXPECT_EQ(lastChange(), 1u);
}

TEST_F(ReachabilityTest, StateChangesBetweenAClocksSettingAndTheNextLook_TimeOfTheChangeIsRight) {
  after("u");
  clock_.utcNsIs(clock_.utcNs() + 3'600'000'000'000);
  after("aaaaaaaa");
  ASSERT_EQ(reachability_->state(), NeighbourReachability::State::reachable);
  uint64_t changedNs = reachability_->lastChangeNs();
  reachability_->lookAtClock();
  EXPECT_EQ(reachability_->lastChangeNs(), changedNs);
  EXPECT_LE(changedNs, clock_.utcNs());
}

TEST_F(ReachabilityTest, EarlierStateIsFoundAfterAClocksSetting_ItsTimeStays) {
  clock_.utcNsIs(clock_.utcNs() + 3'600'000'000'000);
  uint64_t earlierNs = clock_.utcNs() - 60'000'000'000;
  reachability_->earlierIs(reachability_->state(), earlierNs);
  reachability_->lookAtClock();
  EXPECT_EQ(reachability_->lastChangeNs(), earlierNs);
}

}  // namespace
}  // namespace Member
