// What is known of each link, and what is said to be wrong with it.
#include "health/Links.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <string>

namespace Health {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Trel::MemberId;
using enum Trel::ReachabilityState::State;
using State = Trel::ReachabilityState::State;

Lanix::IntfId port(int from, int to) { return Lanix::IntfId(fmt::format("Backplane{}/{}", from, to)); }
MemberId id(int member) { return MemberId(static_cast<uint8_t>(member)); }

class LinksTest : public testing::Test {
 protected:
  static constexpr uint64_t kSecond = 1'000'000'000;

  void wire(int from, int to) { links.wiredIs(id(from), id(to), port(from, to)); }
  void unwire(int from, int to) { links.wiredIs(id(from), id(to), std::nullopt); }
  void report(int from, int to, State state, std::optional<Lanix::IntfId> interface = {}) {
    links.reportIs(id(from), id(to),
                   Zavro::makePtr<const Trel::ReachabilityState>(state, std::move(interface), now));
  }
  void reportsNoMore(int from, int to) { links.reportIs(id(from), id(to), nullptr); }
  void index(int from, int to, uint32_t ifIndex) { links.ifIndexIs(port(from, to), ifIndex); }
  // All that one member says of a link that is well.
  void end(int from, int to, State state = reachable) {
    wire(from, to);
    index(from, to, static_cast<uint32_t>(from * 1000 + to));
    report(from, to, state, port(from, to));
  }
  void well(int a, int b) {
    end(a, b);
    end(b, a);
  }

  // "1-2 ok", in order, a second later.
  std::vector<std::string> look() {
    now += kSecond;
    links.look(now);
    std::vector<std::string> all;
    for (const auto& [pair, link] : links.all())
      all.push_back(fmt::format("{}-{} {}", pair.first.id(), pair.second.id(), Kor::nameOf(link.verdict)));
    return all;
  }
  const Link& link(int low, int high) const { return links.all().at({id(low), id(high)}); }
  size_t count(LinkVerdict verdict) const { return links.counts().at(static_cast<size_t>(verdict)); }

  uint64_t now = 1'700'000'000 * kSecond;
  Links links;
};

TEST_F(LinksTest, BothEndsAgree_IsOk_LowerMemberFirst) {
  well(2, 1);
  report(2, 1, degraded, port(2, 1));
  uint64_t reported = now;
  EXPECT_THAT(look(), ElementsAre("1-2 ok"));
  const Link& one = link(1, 2);
  EXPECT_EQ(*one.low.interface(), port(1, 2));
  EXPECT_EQ(one.low.ifIndex, 1002);
  EXPECT_EQ(one.high.ifIndex, 2001);
  EXPECT_EQ(one.low.state(), reachable);
  EXPECT_EQ(one.high.state(), degraded);
  EXPECT_EQ(one.high.report->lastChangeNs(), reported);
  EXPECT_EQ(one.sinceUtcNs, now);
  EXPECT_EQ(one.changes, 0);
  EXPECT_EQ(count(LinkVerdict::ok), 1);
}

TEST_F(LinksTest, WhatIsNotDecidedYet_OrDisabledAtBothEnds_IsNoFault) {
  well(1, 2);
  for (State other : {unknown, initializing, unrecognized, reachable}) {
    report(1, 2, other, port(1, 2));
    EXPECT_THAT(look(), ElementsAre("1-2 ok")) << Kor::nameOf(other);
  }
  report(1, 2, disabled);
  report(2, 1, disabled);
  EXPECT_THAT(look(), ElementsAre("1-2 ok"));
}

TEST_F(LinksTest, Down_WhereOneEndSaysUnreachable_AndNoneThatItCarries) {
  well(1, 2);
  report(1, 2, unreachable, port(1, 2));
  for (State other : {unreachable, unknown, initializing, disabled, unrecognized}) {
    report(2, 1, other, port(2, 1));
    EXPECT_THAT(look(), ElementsAre("1-2 down")) << Kor::nameOf(other);
  }
  // Its member is gone, with all that it says.
  reportsNoMore(2, 1);
  unwire(2, 1);
  EXPECT_THAT(look(), ElementsAre("1-2 down"));
}

TEST_F(LinksTest, StatesDiffer_WhereOneEndSaysThatItCarries_AndTheOtherThatItDoesNot) {
  well(1, 2);
  for (State mine : {reachable, degraded}) {
    for (State other : {unreachable, disabled}) {
      report(1, 2, mine, port(1, 2));
      report(2, 1, other, port(2, 1));
      EXPECT_THAT(look(), ElementsAre("1-2 statesDiffer"));
      report(1, 2, other, port(1, 2));
      report(2, 1, mine, port(2, 1));
      EXPECT_THAT(look(), ElementsAre("1-2 statesDiffer"));
    }
  }
}

TEST_F(LinksTest, OneSided_WhereTheOtherEndIsNotInTheTopology_OrDoesNotReport) {
  end(1, 2);
  EXPECT_THAT(look(), ElementsAre("1-2 oneSided"));
  end(2, 1);
  reportsNoMore(2, 1);
  EXPECT_THAT(look(), ElementsAre("1-2 oneSided"));
  end(2, 1);
  unwire(2, 1);
  EXPECT_THAT(look(), ElementsAre("1-2 oneSided"));
  end(2, 1);
  EXPECT_THAT(look(), ElementsAre("1-2 ok"));
  // Nobody reports of any link.
  reportsNoMore(1, 2);
  reportsNoMore(2, 1);
  EXPECT_THAT(look(), ElementsAre("1-2 ok"));
}

TEST_F(LinksTest, Miswired_WhereANeighbourIsReportedAtAnotherInterfaceThanTheTopologyGivesIt) {
  well(1, 2);
  well(1, 3);
  report(1, 2, reachable, port(1, 3));
  report(1, 3, reachable, port(1, 2));
  EXPECT_THAT(look(), ElementsAre("1-2 miswired", "1-3 miswired"));
  // An interface that is not named is no other one.
  report(1, 2, reachable);
  report(1, 3, reachable, port(1, 3));
  EXPECT_THAT(look(), ElementsAre("1-2 ok", "1-3 ok"));
}

TEST_F(LinksTest, SharedIndex_IsSaidOfEachThatHasIt_UntilOneIsLeft) {
  well(1, 2);
  well(1, 3);
  well(2, 3);
  look();
  index(3, 2, 1002);
  EXPECT_THAT(look(), ElementsAre("1-2 sharedIndex", "1-3 ok", "2-3 sharedIndex"));
  index(3, 1, 1002);
  EXPECT_THAT(look(), ElementsAre("1-2 sharedIndex", "1-3 sharedIndex", "2-3 sharedIndex"));
  index(3, 2, 7);
  index(1, 2, 8);
  EXPECT_THAT(look(), ElementsAre("1-2 ok", "1-3 ok", "2-3 ok"));
  // Both ends of one link.
  index(2, 1, 8);
  EXPECT_THAT(look(), ElementsAre("1-2 sharedIndex", "1-3 ok", "2-3 ok"));
}

TEST_F(LinksTest, OneInterfaceTowardTwoNeighbours_SharesItsIndex) {
  well(1, 2);
  well(1, 3);
  links.wiredIs(id(1), id(3), port(1, 2));
  report(1, 3, reachable, port(1, 2));
  EXPECT_THAT(look(), ElementsAre("1-2 sharedIndex", "1-3 sharedIndex"));
}

TEST_F(LinksTest, NoIndex_WhereAnInterfaceHasNone_OrIsNotKnown) {
  well(1, 2);
  index(2, 1, 0);
  EXPECT_THAT(look(), ElementsAre("1-2 noIndex"));
  EXPECT_EQ(link(1, 2).high.ifIndex, 0);
  index(2, 1, 5);
  EXPECT_THAT(look(), ElementsAre("1-2 ok"));
  // Neither is in the topology: the reports name the interfaces.
  unwire(1, 2);
  unwire(2, 1);
  EXPECT_THAT(look(), ElementsAre("1-2 ok"));
  EXPECT_EQ(link(1, 2).high.ifIndex, 5);
  report(2, 1, reachable);
  EXPECT_THAT(look(), ElementsAre("1-2 noIndex"));
}

TEST_F(LinksTest, TheCauseCountsMore_AndWhatCarriesNothingMoreThanABadDescription) {
  well(1, 2);
  index(1, 2, 0);
  index(2, 1, 77);
  well(2, 3);
  index(2, 3, 77);
  EXPECT_EQ(look().front(), "1-2 sharedIndex");
  reportsNoMore(2, 1);
  EXPECT_EQ(look().front(), "1-2 oneSided");
  unwire(2, 1);
  report(2, 1, unreachable);
  EXPECT_EQ(look().front(), "1-2 statesDiffer");
  report(1, 2, unknown, port(1, 2));
  EXPECT_EQ(look().front(), "1-2 down");
  report(1, 2, unknown, port(1, 3));
  EXPECT_EQ(look().front(), "1-2 miswired");
}

TEST_F(LinksTest, VerdictsAndStatesSayWhenAndHowOftenTheyChanged) {
  well(1, 2);
  look();
  uint64_t first = now;
  report(1, 2, reachable, port(1, 2));
  look();
  EXPECT_EQ(link(1, 2).sinceUtcNs, first);
  EXPECT_EQ(link(1, 2).low.changes, 0);
  // States count each time, verdicts by what they were at a look.
  report(1, 2, unreachable, port(1, 2));
  report(1, 2, reachable, port(1, 2));
  look();
  EXPECT_EQ(link(1, 2).sinceUtcNs, first);
  EXPECT_EQ(link(1, 2).changes, 0);
  EXPECT_EQ(link(1, 2).low.changes, 2);
  EXPECT_EQ(link(1, 2).high.changes, 0);
  report(1, 2, unreachable, port(1, 2));
  look();
  EXPECT_EQ(link(1, 2).sinceUtcNs, now);
  EXPECT_EQ(link(1, 2).changes, 1);
  reportsNoMore(1, 2);
  look();
  EXPECT_EQ(link(1, 2).changes, 2);
  EXPECT_EQ(link(1, 2).low.changes, 4);
}

TEST_F(LinksTest, ALinkThatNobodyNamesIsGone_AndBeginsAnew) {
  well(1, 2);
  look();
  report(1, 2, degraded);
  look();
  for (auto [from, to] : {std::pair(1, 2), std::pair(2, 1)}) {
    unwire(from, to);
    reportsNoMore(from, to);
  }
  EXPECT_THAT(look(), IsEmpty());
  EXPECT_EQ(count(LinkVerdict::ok), 0);
  well(1, 2);
  look();
  EXPECT_EQ(link(1, 2).sinceUtcNs, now);
  EXPECT_EQ(link(1, 2).low.changes, 0);
}

TEST_F(LinksTest, AMemberIsNoNeighbourOfItself) {
  well(1, 1);
  EXPECT_THAT(look(), IsEmpty());
}

}  // namespace
}  // namespace Health
