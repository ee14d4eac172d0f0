// When a neighbour is asked for echoes, and what is told of it.
#include "member/Neighbour.h"

#include <gmock/gmock.h>

#include "tests/member/ManualProbe.h"
#include "tests/support/TraceLog.h"

namespace Member {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Device kUp{4, true, true};
constexpr Device kDown{4, true, false};

class NeighbourTest : public testing::Test {
 protected:
  static NeighbourConfig config() {
    NeighbourConfig config{2, "Backplane1/2", "bp2", "10.0.0.2", {}};
    config.probe.intervalMs = 500;
    config.probe.timeoutMs = 300;
    return config;
  }
  std::string state() const { return Kor::nameOf(neighbour_.reachability().state()); }
  size_t asked() const { return probe_->asked.size(); }

  Zavro::ManualClock clock_{1'000'000'000'000};
  Runtime::ManualIo io_{clock_};
  std::shared_ptr<ManualProbe> probe_ = std::make_shared<ManualProbe>();
  int changes_ = 0;
  TraceLog trace_{{"Member"}};
  Neighbour neighbour_{config(), probe_, io_, clock_, [this] { ++changes_; }};
};

TEST_F(NeighbourTest, NothingIsKnownOfTheDevice_NothingIsAsked) {
  io_.advance(5000);
  EXPECT_EQ(asked(), 0u);
  EXPECT_EQ(state(), "unknown");
}

TEST_F(NeighbourTest, Carrier_AskedAtOnceAndInIntervals) {
  neighbour_.deviceIs(kUp);
  io_.advance(499);
  EXPECT_THAT(probe_->asked, ElementsAre("10.0.0.2 on bp2 within 300"));
  io_.advance(1);
  EXPECT_EQ(asked(), 2u);
  io_.advance(500);
  EXPECT_EQ(asked(), 3u);
  EXPECT_EQ(state(), "reachable");
  EXPECT_EQ(changes_, 2);
  EXPECT_THAT(trace_.lines(), ElementsAre("Member/1 member 2 is initializing on bp2, it was unknown",
                                          "Member/1 member 2 is reachable on bp2, it was initializing"));
}

TEST_F(NeighbourTest, AnotherIntervalIsConfigured_ItCountsAtOnce_AndTheStateStays) {
  neighbour_.deviceIs(kUp);
  io_.advance(2000);
  ASSERT_EQ(state(), "reachable");
  int before = changes_;
  NeighbourConfig slower = config();
  slower.probe.intervalMs = 10000;
  slower.probe.timeoutMs = 200;
  neighbour_.configIs(slower);
  EXPECT_EQ(state(), "reachable");
  EXPECT_EQ(changes_, before);
  io_.work();
  probe_->asked.clear();
  io_.advance(9999);
  EXPECT_EQ(asked(), 0u);
  io_.advance(1);
  EXPECT_THAT(probe_->asked, ElementsAre("10.0.0.2 on bp2 within 200"));
}

TEST_F(NeighbourTest, SwitchedOffInANewConfiguration_ItIsToldAndNothingIsAsked) {
  neighbour_.deviceIs(kUp);
  io_.advance(2000);
  int before = changes_;
  NeighbourConfig off = config();
  off.probe.counting.enabled = false;
  neighbour_.configIs(off);
  EXPECT_EQ(state(), "disabled");
  EXPECT_EQ(changes_, before + 1);
  probe_->asked.clear();
  io_.advance(5000);
  EXPECT_EQ(asked(), 0u);
}

TEST_F(NeighbourTest, DeviceIsToldAgain_IntervalsStayAsTheyAre) {
  neighbour_.deviceIs(kUp);
  for (int i = 0; i < 10; ++i) {
    io_.advance(100);
    neighbour_.deviceIs(kUp);
  }
  EXPECT_EQ(asked(), 3u);
}

TEST_F(NeighbourTest, NoCarrier_NothingIsAskedAndTheStateIsToldAtOnce) {
  for (auto [device, expected] : {std::pair<std::optional<Device>, const char*>{kDown, "unreachable"},
                                  {std::nullopt, "unreachable"},
                                  {Device{4, false, true}, "disabled"}}) {
    neighbour_.deviceIs(kUp);
    io_.advance(2000);
    ASSERT_EQ(state(), "reachable");
    size_t before = asked();
    neighbour_.deviceIs(device);
    EXPECT_EQ(state(), expected);
    io_.advance(5000);
    EXPECT_EQ(asked(), before);
  }
}

TEST_F(NeighbourTest, AnswerToAnEchoOfBeforeTheCarrierWasLost_DoesNotCount) {
  neighbour_.deviceIs(kUp);
  io_.advance(500);  // two answers
  probe_->hanging = true;
  io_.advance(500);
  neighbour_.deviceIs(kDown);
  neighbour_.deviceIs(kUp);
  probe_->hanging = false;
  io_.hungReturn();
  io_.advance(1000);
  EXPECT_EQ(state(), "unreachable") << "one answer was the old link's";
  io_.advance(500);
  EXPECT_EQ(state(), "reachable");
}

TEST_F(NeighbourTest, AnotherDeviceOfTheName_StartsAnew) {
  neighbour_.deviceIs(kUp);
  io_.advance(500);
  neighbour_.deviceIs(Device{9, true, true});
  EXPECT_EQ(neighbour_.device()->index, 9u);
}

TEST_F(NeighbourTest, EchoThatIsWaitedFor_IsNotAskedForAgain) {
  probe_->hanging = true;
  neighbour_.deviceIs(kUp);
  io_.advance(60000);
  EXPECT_EQ(asked(), 1u);
  probe_->hanging = false;
  io_.hungReturn();
  io_.advance(500);
  EXPECT_EQ(asked(), 3u) << "the one that was waited for, and the next one";
}

TEST_F(NeighbourTest, EchoDoesNotComeToItsEnd_ItCannotBeFoundOutUntilItDoes) {
  neighbour_.deviceIs(kUp);
  io_.advance(2000);
  ASSERT_EQ(state(), "reachable");
  probe_->hanging = true;
  io_.advance(2000);
  EXPECT_EQ(state(), "reachable");
  io_.advance(60000);
  EXPECT_EQ(state(), "unknown");
  EXPECT_EQ(trace_.count("Member/0 member 2: an echo does not come to its end"), 1u);
  probe_->hanging = false;
  io_.hungReturn();
  io_.advance(2000);
  EXPECT_EQ(state(), "reachable");
}

TEST_F(NeighbourTest, EchoesAreLost_Unreachable) {
  neighbour_.deviceIs(kUp);
  io_.advance(2000);
  probe_->answer = false;
  io_.advance(1500);
  EXPECT_EQ(state(), "unreachable");
}

TEST_F(NeighbourTest, ItsStateChangesTooOften_ToldOnceThatItStays) {
  neighbour_.deviceIs(kUp);
  for (int i = 0; i < 100; ++i) {
    probe_->answer = true;
    io_.advance(1500);
    probe_->answer = false;
    io_.advance(1500);
  }
  EXPECT_EQ(state(), "unreachable");
  EXPECT_LE(changes_, 2 * (4 + 5) + 1) << "five minutes";
  size_t told = trace_.count(
      "Member/1 member 2 stays unreachable on bp2 for up to a minute: its state changes too often");
  EXPECT_GE(told, 1u);
  EXPECT_LE(told, 5u);
}

TEST_F(NeighbourTest, EchoesCannotBeSent_ToldOnceAndWhenTheyCanAgain) {
  probe_->answer = absl::UnknownError("echo to 10.0.0.2 on bp2: Operation not permitted");
  neighbour_.deviceIs(kUp);
  io_.advance(60000);
  EXPECT_EQ(state(), "unknown");
  EXPECT_EQ(trace_.count("Member/0 member 2: echo to 10.0.0.2 on bp2: Operation not permitted"), 1u);
  probe_->answer = true;
  io_.advance(2000);
  EXPECT_EQ(state(), "reachable");
  EXPECT_EQ(trace_.count("Member/1 member 2: echoes have results again"), 1u);
}

TEST_F(NeighbourTest, EveryOtherEchoCannotBeSent_ToldOnce) {
  neighbour_.deviceIs(kUp);
  for (int i = 0; i < 100; ++i) {
    probe_->answer = absl::UnknownError("echo to 10.0.0.2 on bp2: No buffer space available");
    io_.advance(500);
    probe_->answer = true;
    io_.advance(500);
  }
  EXPECT_EQ(trace_.count("Member/0 member 2: echo to 10.0.0.2 on bp2: No buffer space available"), 1u);
  EXPECT_EQ(trace_.count("Member/1 member 2: echoes have results again"), 0u);
  io_.advance(2000);
  EXPECT_EQ(trace_.count("Member/1 member 2: echoes have results again"), 1u);
}

TEST_F(NeighbourTest, GoneWhileAnEchoIsWaitedFor_ItsAnswerHarmsNothing) {
  auto neighbour = std::make_unique<Neighbour>(config(), probe_, io_, clock_, [this] { ++changes_; });
  neighbour->deviceIs(kUp);
  int before = changes_;
  neighbour.reset();
  io_.advance(5000);
  EXPECT_EQ(changes_, before);
}

TEST(NeighbourOffTest, SwitchedOffInTheConfiguration_NothingIsAsked) {
  Zavro::ManualClock clock;
  Runtime::ManualIo io(clock);
  auto probe = std::make_shared<ManualProbe>();
  NeighbourConfig config{2, "Backplane1/2", "bp2", "10.0.0.2", {}};
  config.probe.counting.enabled = false;
  Neighbour neighbour(config, probe, io, clock, [] {});
  neighbour.deviceIs(kUp);
  io.advance(5000);
  EXPECT_THAT(probe->asked, IsEmpty());
  EXPECT_EQ(neighbour.reachability().state(), Trel::ReachabilityState::disabled);
  EXPECT_EQ(neighbour.device(), kUp);
}

}  // namespace
}  // namespace Member
