// What is known of each member, moment by moment.
#include "health/Members.h"

#include <gmock/gmock.h>

#include <string>

namespace Health {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Trel::MemberId;
using Source = MemberFacts::Source;

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kStart = 1'700'000'000 * kSecond;

class MembersTest : public testing::Test {
 protected:
  MembersTest() { facts.nowUtcNs = kStart; }

  void look(uint64_t afterSeconds = 1) {
    facts.nowUtcNs += afterSeconds * kSecond;
    members.look(facts);
  }
  void publishes(uint8_t id, MemberFacts member = {}) { facts.there[MemberId(id)] = member; }
  void goes(uint8_t id) { facts.there.erase(MemberId(id)); }
  void expects(uint8_t id, const std::string& name = "") { facts.expected[MemberId(id)] = name; }

  // "1 present", in order.
  std::vector<std::string> states() const {
    std::vector<std::string> all;
    for (const auto& [id, member] : members.all()) all.push_back(id.text() + " " + Kor::nameOf(member.state));
    return all;
  }
  const Member& member(uint8_t id) const { return members.all().at(MemberId(id)); }

  Facts facts;
  Members members;
};

TEST_F(MembersTest, WhoPublishesIsPresent) {
  look();
  EXPECT_THAT(states(), IsEmpty());
  publishes(2);
  publishes(1);
  look();
  EXPECT_THAT(states(), ElementsAre("1 present", "2 present"));
  EXPECT_EQ(member(1).sinceUtcNs, kStart + 2 * kSecond);
  EXPECT_EQ(member(1).changes, 0);
  look();
  EXPECT_EQ(member(1).sinceUtcNs, kStart + 2 * kSecond);
}

TEST_F(MembersTest, WhoIsGoneIsLost_UntilItIsBack) {
  publishes(1);
  look();
  goes(1);
  look();
  EXPECT_THAT(states(), ElementsAre("1 lost"));
  EXPECT_EQ(member(1).sinceUtcNs, kStart + 2 * kSecond);
  look(86400);
  EXPECT_THAT(states(), ElementsAre("1 lost"));
  publishes(1);
  look();
  EXPECT_THAT(states(), ElementsAre("1 present"));
  EXPECT_EQ(member(1).changes, 2);
}

TEST_F(MembersTest, WhoIsWiredButWasNeverThereIsExpected) {
  facts.wired = {MemberId(1), MemberId(3)};
  publishes(1);
  look();
  EXPECT_THAT(states(), ElementsAre("1 present", "3 expected"));
  facts.wired.clear();
  look();
  EXPECT_THAT(states(), ElementsAre("1 present"));
}

TEST_F(MembersTest, WhereItIsSaidWhoBelongsToTheCluster_OthersAreUnexpected) {
  expects(1);
  expects(2, "spare");
  facts.wired = {MemberId(1), MemberId(9)};
  publishes(1);
  publishes(7);
  look();
  EXPECT_THAT(states(), ElementsAre("1 present", "2 expected", "7 unexpected"));
  EXPECT_EQ(member(2).name, "spare");
  goes(7);
  look();
  EXPECT_THAT(states(), ElementsAre("1 present", "2 expected"));
  goes(1);
  facts.expected.erase(MemberId(1));
  look();
  EXPECT_THAT(states(), ElementsAre("2 expected"));
}

TEST_F(MembersTest, OldValuesAreHeld_ThenStale) {
  publishes(1, {Source::held});
  look();
  EXPECT_THAT(states(), ElementsAre("1 held"));
  publishes(1, {Source::stale});
  look();
  EXPECT_THAT(states(), ElementsAre("1 stale"));
  EXPECT_EQ(member(1).changes, 1);
}

TEST_F(MembersTest, ValuesThatAreWithdrawnForTheirAgeAreNoLoss) {
  publishes(1);
  publishes(2);
  look();
  goes(2);
  look();
  goes(1);
  facts.blind = true;
  look();
  EXPECT_THAT(states(), ElementsAre("1 stale", "2 lost"));
  facts.blind = false;
  look();
  EXPECT_THAT(states(), ElementsAre("1 lost", "2 lost"));
}

TEST_F(MembersTest, WhoSaysNothingForTooLongIsSilent) {
  publishes(1, {Source::current, kStart + 30 * kSecond});
  publishes(2);
  look(29);
  EXPECT_THAT(states(), ElementsAre("1 present", "2 present"));
  look(1);
  EXPECT_THAT(states(), ElementsAre("1 silent", "2 present"));
  publishes(1, {Source::current, facts.nowUtcNs + 30 * kSecond});
  look(1);
  EXPECT_THAT(states(), ElementsAre("1 present", "2 present"));
}

TEST_F(MembersTest, TheLastKnownNameStays) {
  expects(1, "given");
  look();
  EXPECT_EQ(member(1).name, "given");
  publishes(1);
  facts.names[MemberId(1)] = "own";
  look();
  EXPECT_EQ(member(1).name, "own");
  goes(1);
  facts.names.clear();
  look();
  EXPECT_EQ(member(1).name, "own");
}

TEST_F(MembersTest, ALostMemberGoes_WhenOthersAreSaidToBelongToTheCluster) {
  publishes(1);
  publishes(2);
  look();
  goes(1);
  goes(2);
  expects(2);
  look();
  EXPECT_THAT(states(), ElementsAre("2 lost"));
}

}  // namespace
}  // namespace Health
