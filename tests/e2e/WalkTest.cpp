// What a manager reads: one cluster, as one expected tree, by every kind of request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "e2e/Daemon.h"
#include "e2e/Reports.h"

namespace E2e {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kNoSuchObject = "No Such Object available on this agent at this OID";
constexpr const char* kNoSuchInstance = "No Such Instance currently exists at this OID";

// One daemon for all tests of the suite: none of them changes its state.
class Walk : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    reports() = {{{1, 2}, {"reachable", 1001}},       {{1, 3}, {"degraded", 2147483647}},
                 {{3, 5}, {"unreachable", 3005}},     {{3, 7}, {"disabled"}},
                 {{5, 1}, {"initializing"}},          {{5, 3}, {"unknown", 2147483648}},
                 {{0, 0}, {"reachable", 4294967295}}, {{255, 255}, {"reachable"}}};
    daemon_ = new Daemon;
    daemon_->stateIs(documentOf(reports())).start();
  }
  static void TearDownTestSuite() {
    delete daemon_;
    daemon_ = nullptr;
  }
  static Reports& reports() {
    static Reports all;
    return all;
  }
  static std::vector<Varbind> tree() { return treeOf(reports()); }
  static const Manager& manager() { return daemon_->manager(); }

  static inline Daemon* daemon_ = nullptr;
};

TEST_F(Walk, WholeSubtree_IsTheExpectedTree) {
  // Behind the last row there is nothing that this manager may see.
  EXPECT_EQ(manager().walk(),
            walkOf(tree()) +
                "reach.5.255.255 = No more variables left in this MIB View (It is past the end of "
                "the MIB tree)\n");
}

TEST_F(Walk, BulkWalk_IsTheSameTree) { EXPECT_THAT(manager().bulkWalk(), StartsWith(walkOf(tree()))); }

TEST_F(Walk, Version1_IsTheSameTree) {
  Manager old(daemon_->address(), {"-v1", "-c", "public"});
  EXPECT_THAT(old.walk(), StartsWith(walkOf(tree())));
}

TEST_F(Walk, OneColumn_EndsWithTheColumn) {
  std::string lines;
  for (const Varbind& varbind : tree()) {
    if (varbind.name.starts_with("reach.4.")) lines += varbind.line();
  }
  EXPECT_EQ(manager().walk("reach.4"), lines);
}

TEST_F(Walk, OneMember_EndsWithItsRows) {
  EXPECT_EQ(manager().walk("reach.4.3"), "reach.4.3.5 = INTEGER: 5\nreach.4.3.7 = INTEGER: 6\n");
}

TEST_F(Walk, GetOfEveryInstance_IsItsValue) {
  for (const Varbind& varbind : tree()) EXPECT_EQ(manager().get({varbind.name}), varbind.line());
}

TEST_F(Walk, GetNextFromEveryInstance_IsTheOneBehindIt) {
  std::vector<Varbind> all = tree();
  for (size_t i = 0; i + 1 < all.size(); ++i) EXPECT_EQ(manager().getNext({all[i].name}), all[i + 1].line());
}

TEST_F(Walk, GetNextFromTheLastInstance_IsTheEnd) {
  EXPECT_EQ(
      manager().getNext({"reach.5.255.255"}),
      "reach.5.255.255 = No more variables left in this MIB View (It is past the end of the MIB tree)\n");
}

TEST_F(Walk, GetOfAllInstancesInDescendingOrder_EachHasItsOwnValue) {
  std::vector<Varbind> all = tree();
  std::reverse(all.begin(), all.end());
  Names names;
  for (const Varbind& varbind : all) names.push_back(varbind.name);
  EXPECT_EQ(manager().get(names), walkOf(all));
}

TEST_F(Walk, GetNextFromAllInstancesInDescendingOrder_EachHasItsOwnSuccessor) {
  std::vector<Varbind> all = tree();
  Names names;
  std::vector<Varbind> expected;
  for (size_t i = all.size() - 1; i-- > 0;) {
    names.push_back(all[i].name);
    expected.push_back(all[i + 1]);
  }
  EXPECT_EQ(manager().getNext(names), walkOf(expected));
}

TEST_F(Walk, GetOfTheSameInstanceTwice_TwoAnswers) {
  EXPECT_EQ(manager().get({"reach.4.5.1", "reach.4.1.2", "reach.4.5.1"}),
            "reach.4.5.1 = INTEGER: 2\nreach.4.1.2 = INTEGER: 3\nreach.4.5.1 = INTEGER: 2\n");
}

TEST_F(Walk, GetOfPresentAndAbsentRowsMixed_EachHasItsOwnAnswer) {
  EXPECT_EQ(manager().get({"reach.4.5.3", "reach.4.5.2", "reach.4.1.2", "reach.9.1.2"}),
            std::string("reach.4.5.3 = INTEGER: 1\nreach.4.5.2 = ") + kNoSuchInstance +
                "\nreach.4.1.2 = INTEGER: 3\nreach.9.1.2 = " + kNoSuchObject + "\n");
}

// What a GETNEXT asks from, and the instance that it is to answer with.
struct Step {
  const char* from;
  const char* to;
  friend std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.from << " to " << step.to;
  }
};

class GetNext : public Walk, public testing::WithParamInterface<Step> {};

TEST_P(GetNext, AnswersWithTheNextInstance) {
  EXPECT_THAT(manager().getNext({GetParam().from}), StartsWith(std::string(GetParam().to) + " = "));
}

INSTANTIATE_TEST_SUITE_P(Partial, GetNext,
                         testing::Values(Step{"tables", "reach.3.0.0"}, Step{"reach", "reach.3.0.0"},
                                         Step{"reach.1", "reach.3.0.0"}, Step{"reach.2", "reach.3.0.0"},
                                         Step{"reach.2.5.3", "reach.3.0.0"}, Step{"reach.3", "reach.3.0.0"},
                                         Step{"reach.4", "reach.4.0.0"}, Step{"reach.4.0", "reach.4.0.0"},
                                         Step{"reach.4.1", "reach.4.1.2"}, Step{"reach.4.2", "reach.4.3.5"},
                                         Step{"reach.4.3", "reach.4.3.5"}, Step{"reach.4.4", "reach.4.5.1"},
                                         Step{"reach.4.6", "reach.4.255.255"},
                                         Step{"reach.4.255", "reach.4.255.255"},
                                         Step{"reach.4.256", "reach.5.0.0"}, Step{"baif", "reach.3.0.0"},
                                         Step{"baif.2.7", "reach.3.0.0"}));

INSTANTIATE_TEST_SUITE_P(
    AbsentRow, GetNext,
    testing::Values(Step{"reach.4.1.0", "reach.4.1.2"}, Step{"reach.4.1.4", "reach.4.3.5"},
                    Step{"reach.4.3.6", "reach.4.3.7"}, Step{"reach.4.3.8", "reach.4.5.1"},
                    Step{"reach.4.255.254", "reach.4.255.255"}, Step{"reach.4.256.0", "reach.5.0.0"}));

INSTANTIATE_TEST_SUITE_P(OverLong, GetNext,
                         testing::Values(Step{"reach.4.1.2.0", "reach.4.1.3"},
                                         Step{"reach.4.1.3.9.9", "reach.4.3.5"},
                                         Step{"reach.4.3.6.1", "reach.4.3.7"},
                                         Step{"reach.4.255.255.1", "reach.5.0.0"}));

INSTANTIATE_TEST_SUITE_P(
    BigIndex, GetNext,
    testing::Values(Step{"reach.4.1.2147483647", "reach.4.3.5"}, Step{"reach.4.1.2147483648", "reach.4.3.5"},
                    Step{"reach.4.1.4294967295", "reach.4.3.5"}, Step{"reach.4.2147483647", "reach.5.0.0"},
                    Step{"reach.4.2147483648.0", "reach.5.0.0"}, Step{"reach.4.4294967295", "reach.5.0.0"},
                    Step{"reach.4.4294967295.4294967295", "reach.5.0.0"},
                    Step{"reach.4294967295.1.2", "reach.4294967295.1.2"},
                    Step{"baif.3.4294967295", "reach.3.0.0"}));

// What a GET asks for, and what is wrong with it.
class Get : public Walk, public testing::WithParamInterface<Step> {};

TEST_P(Get, NamesWhatIsMissing) {
  EXPECT_EQ(manager().get({GetParam().from}), std::string(GetParam().from) + " = " + GetParam().to + "\n");
}

INSTANTIATE_TEST_SUITE_P(NoSuchColumn, Get,
                         testing::Values(Step{"reach.0.1.2", kNoSuchObject},
                                         Step{"reach.1.1.2", kNoSuchObject},
                                         Step{"reach.2.1.2", kNoSuchObject},
                                         Step{"reach.6.1.2", kNoSuchObject},
                                         Step{"reach.4294967295.1.2", kNoSuchObject},
                                         Step{"baif.1.7", kNoSuchObject}, Step{"baif.4.7", kNoSuchObject}));

INSTANTIATE_TEST_SUITE_P(
    NoSuchRow, Get,
    testing::Values(Step{"reach.4.1.1", kNoSuchInstance}, Step{"reach.4.2.1", kNoSuchInstance},
                    Step{"reach.4.1", kNoSuchInstance}, Step{"reach.4.1.2.0", kNoSuchInstance},
                    Step{"reach.4.256.2", kNoSuchInstance},
                    Step{"reach.4.4294967295.4294967295", kNoSuchInstance},
                    Step{"reach.4.2147483648.0", kNoSuchInstance}, Step{"baif.2.0", kNoSuchInstance},
                    Step{"baif.3.4294967295", kNoSuchInstance}));

TEST_F(Walk, GetBulkOverTheEndOfAColumn_GoesOnInTheNextColumn) {
  EXPECT_EQ(manager().getBulk(0, 3, {"reach.4.5.3"}),
            "reach.4.255.255 = INTEGER: 3\nreach.5.0.0 = Timeticks: (0) 0:00:00.00\n"
            "reach.5.1.2 = Timeticks: (0) 0:00:00.00\n");
}

TEST_F(Walk, GetBulkWithNonRepeatersAndSeveralColumns_IsRowByRow) {
  EXPECT_EQ(manager().getBulk(1, 2, {".1.3.6.1.4.1", "reach.4.3", "reach.3.3"}),
            "reach.3.0.0 = INTEGER: -1\n"
            "reach.4.3.5 = INTEGER: 5\nreach.3.3.5 = INTEGER: 3005\n"
            "reach.4.3.7 = INTEGER: 6\nreach.3.3.7 = INTEGER: 0\n");
}

TEST_F(Walk, GetBulkOverTheEnd_EndsOnce) {
  EXPECT_THAT(
      manager().getBulk(0, 10, {"reach.5.5.3"}),
      AllOf(
          StartsWith("reach.5.255.255 = Timeticks: (0) 0:00:00.00\nreach.5.255.255 = No more variables left"),
          Not(HasSubstr("reach.5.0.0"))));
}

TEST_F(Walk, SetByAReader_IsRefused) {
  EXPECT_THAT(manager().set("reach.4.1.2", 3), HasSubstr("Reason: noAccess"));
  EXPECT_EQ(manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
}

TEST_F(Walk, OtherCommunity_NoAnswer) {
  Manager stranger(daemon_->address(), {"-v2c", "-c", "private"});
  EXPECT_THAT(stranger.get({"reach.4.1.2"}), StartsWith("Timeout: No Response"));
}

TEST_F(Walk, OutsideTheServedTables_OnlyTheSystemGroupIsSeen) {
  EXPECT_THAT(manager().walk(".1.3"),
              AllOf(StartsWith(".1.3.6.1.2.1.1.1.0 = STRING: "), HasSubstr("reach.3.0.0"),
                    Not(HasSubstr(".1.3.6.1.2.1.2.")), Not(HasSubstr(".1.3.6.1.6."))));
}

TEST_F(Walk, MonitorsView_TablesOfTheControlSocketAreTheSame) {
  nlohmann::json rows =
      nlohmann::json::parse(daemon_->ctl({"tables", "--json"}).out).at("veldaTrelReachabilityTable");
  std::string lines;
  for (const nlohmann::json& row : rows) {
    lines += "reach.4." + row.at("srcId").dump() + "." + row.at("destId").dump() +
             " = INTEGER: " + row.at("state").dump() + "\n";
  }
  EXPECT_EQ(manager().walk("reach.4"), lines);
}

TEST(WalkOfNothing, EmptyCluster_BothTablesAreEmpty) {
  Daemon daemon;
  daemon.stateIs("{}").start();
  EXPECT_THAT(daemon.manager().walk(),
              AnyOf(EndsWith(kNoSuchObject + std::string("\n")), HasSubstr("No more variables left")));
  EXPECT_THAT(daemon.manager().getBulk(0, 5, {"baif.2"}), Not(HasSubstr("reach.")));
  EXPECT_EQ(daemon.manager().get({"reach.4.1.2"}), std::string("reach.4.1.2 = ") + kNoSuchInstance + "\n");
}

TEST(WalkOfMuch, FullMeshOfSixtyMembers_EveryRowOnceAndInOrder) {
  Reports reports = fullMesh(60);
  Daemon daemon;
  daemon.stateIs(documentOf(reports)).start();
  EXPECT_THAT(daemon.manager().bulkWalk(), StartsWith(walkOf(treeOf(reports))));
}

}  // namespace
}  // namespace E2e
