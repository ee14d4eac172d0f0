#include <gmock/gmock.h>

#include "platform/trel/MemberId.h"
#include "platform/trel/Mode.h"
#include "platform/trel/Reachability.h"
#include "platform/trel/Topology.h"
#include "tests/support/Reflection.h"

namespace {

using testing::ElementsAre;
using Trel::MemberId;
using Trel::ReachabilityState;

TEST(MemberIdTest, EveryId_HasItsDecimalText_AndIsReadBack) {
  for (unsigned id = 0; id <= 255; ++id) {
    MemberId member(static_cast<uint8_t>(id));
    EXPECT_EQ(member.id(), id);
    EXPECT_EQ(member.text(), std::to_string(id));
    EXPECT_EQ(MemberId::fromString(member.text()), member);
    EXPECT_EQ(fmt::format("{}", member), std::to_string(id));
  }
}

TEST(MemberIdTest, LeadingZeros_AreDigitsToo) {
  EXPECT_EQ(MemberId::fromString("03"), MemberId(3));
  EXPECT_EQ(MemberId::fromString("0000000000000000000000000000000000000255"), MemberId(255));
}

TEST(MemberIdTest, AnyOtherText_IsMemberZero) {
  const std::string fortyDigits(40, '7');
  for (std::string_view text :
       {std::string_view(), std::string_view(""), std::string_view("256"), std::string_view("999"),
        std::string_view("+3"), std::string_view("-3"), std::string_view(" 3"), std::string_view("3 "),
        std::string_view("3a"), std::string_view("a3"), std::string_view("0x3"), std::string_view("3.0"),
        std::string_view("3\0", 2), std::string_view("\xd9\xa3"), std::string_view("three"),
        std::string_view(fortyDigits)}) {
    EXPECT_EQ(MemberId::fromString(text), MemberId()) << text;
  }
}

TEST(MemberIdTest, OrderIsThatOfTheNumbers) {
  EXPECT_LT(MemberId(9), MemberId(10));
  EXPECT_LT(MemberId(127), MemberId(128));
  EXPECT_LT(MemberId(), MemberId(255));
}

TEST(ModeTest, IsOnUntilTheHostSaysOtherwise) {
  EXPECT_TRUE(Trel::trelMode());
  Trel::trelModeIs(false);
  EXPECT_FALSE(Trel::trelMode());
  Trel::trelModeIs(true);
  EXPECT_TRUE(Trel::trelMode());
}

TEST(ReachabilityTest, States_AreNumberedInOrder_AndNamed) {
  const std::vector<std::string> names = {"unknown",  "initializing", "reachable",
                                          "degraded", "unreachable",  "disabled"};
  ASSERT_EQ(names.size(), Kor::kNames<ReachabilityState::State>.size());
  for (uint8_t number = 0; number < names.size(); ++number) {
    auto state = static_cast<ReachabilityState::State>(number);
    EXPECT_EQ(Kor::nameOf(state), names[number]);
    EXPECT_EQ(Kor::named<Trel::ReachabilityState::State>(names[number]), state);
  }
  EXPECT_EQ(ReachabilityState::unknown, 0);
  EXPECT_EQ(ReachabilityState::disabled, 5);
}

TEST(ReachabilityTest, NumbersWithoutAName_ReadAsNumbers_UnknownNamesAsNothing) {
  EXPECT_EQ(Kor::nameOf(static_cast<ReachabilityState::State>(6)), "6");
  EXPECT_EQ(Kor::nameOf(static_cast<ReachabilityState::State>(254)), "254");
  for (const char* name : {"", "Reachable", "reachable ", "up", "2"}) {
    EXPECT_EQ(Kor::named<Trel::ReachabilityState::State>(name), std::nullopt) << name;
  }
}

TEST(ReachabilityTest, State_IsARecordWithATextForm) {
  auto known = Zavro::makePtr<const ReachabilityState>(ReachabilityState::reachable,
                                                       Lanix::IntfId("Backplane1/2"), 1700000000000000000u);
  EXPECT_EQ(known->text(), "(state=reachable, intf=Backplane1/2, lastChange=1700000000000000000)");
  auto unknown = Zavro::makePtr<const ReachabilityState>(ReachabilityState::unknown, std::nullopt, 0u);
  EXPECT_EQ(unknown->text(), "(state=unknown, intf=None, lastChange=0)");
  EXPECT_EQ(known->useCount(), 1u);
}

TEST(ReachabilityTest, TypeInformation) {
  auto state =
      Zavro::makePtr<const ReachabilityState>(ReachabilityState::degraded, Lanix::IntfId("Backplane3"), 7u);
  EXPECT_EQ(state->korType().name(), "Trel::ReachabilityState");
  EXPECT_THAT(attributeNames(state->korType()), ElementsAre("state", "backplaneChannelIntfId", "lastChange"));
  EXPECT_EQ(Kor::attribute(*state, "state"), "degraded");
  EXPECT_EQ(Kor::attribute(*state, "backplaneChannelIntfId"), "Optional( Backplane3 )");
  EXPECT_EQ(Kor::attribute(*state, "lastChange"), "7");

  auto status = Zavro::makePtr<Trel::ReachabilityStatus>("3");
  status->reachabilityStatus().set(MemberId(5), state);
  EXPECT_EQ(status->korType().name(), "Trel::ReachabilityStatus");
  EXPECT_THAT(attributeNames(status->korType()), ElementsAre("name", "reachabilityStatus"));
  EXPECT_EQ(Kor::attribute(*status, "name"), "3");
  EXPECT_EQ(Kor::attribute(*status, "reachabilityStatus"), "1");
}

TEST(TopologyTest, MembersHoldTheirNeighbours_AndAreNamedByTheirId) {
  auto config = Zavro::makePtr<Trel::TopologyConfig>("topologyConfig");
  auto member = Zavro::makePtr<Trel::TopoConfig>(MemberId(1));
  member->neighbor().set(MemberId(2), Lanix::IntfId("Backplane1/2"));
  config->topoConfig().set(MemberId(1), member);
  EXPECT_EQ(member->name(), "1");
  const Trel::TopologyConfig& read = *config;
  EXPECT_EQ(*(*read.topoConfig().find(MemberId(1)))->neighbor().find(MemberId(2)),
            Lanix::IntfId("Backplane1/2"));
  EXPECT_EQ(config->korType().name(), "Trel::TopologyConfig");
  EXPECT_THAT(attributeNames(config->korType()), ElementsAre("name", "topoConfig"));
  EXPECT_EQ(Kor::attribute(*config, "topoConfig"), "1");
  EXPECT_EQ(member->korType().name(), "Trel::TopoConfig");
  EXPECT_THAT(attributeNames(member->korType()), ElementsAre("name", "neighbor"));
  EXPECT_EQ(Kor::attribute(*member, "neighbor"), "1");
}

}  // namespace
