// What a manager reads: one cluster, as one expected tree over all five tables, by every kind of request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Hosts.h"
#include "tests/e2e/Links.h"

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
    auto document = nlohmann::json::parse(documentOf(reports()));
    document.merge_patch(nlohmann::json::parse(documentOf(kLinks)));
    document.merge_patch(nlohmann::json::parse(hostsDocument()));
    daemon_ = new Daemon;
    daemon_->stateIs(document.dump()).start();
  }
  static void TearDownTestSuite() {
    delete daemon_;
    daemon_ = nullptr;
  }
  static Reports& reports() {
    static Reports all;
    return all;
  }
  // The tables in the order of their OIDs.
  static std::vector<Varbind> tree() {
    std::vector<Varbind> all = treeOf(kLinks);
    for (const std::vector<Varbind>& table : {treeOf(reports()), hostsTree()}) {
      all.insert(all.end(), table.begin(), table.end());
    }
    return all;
  }
  static const Manager& manager() { return daemon_->manager(); }

  static inline const Links kLinks = {{0, {0, 255}},          {1, {1, 2}},          {1001, {1, 3}},
                                      {2147483647, {2, 1}},   {2147483648, {2, 3}}, {2147483649, {3, 1}},
                                      {4294967294, {255, 0}}, {4294967295, {3, 2}}};
  static inline Daemon* daemon_ = nullptr;
};

TEST_F(Walk, WholeSubtree_IsTheExpectedTree) {
  // Behind the last row there is nothing that this manager may see.
  EXPECT_EQ(
      manager().walk(),
      walkOf(tree()) +
          "stor.7.2.100 = No more variables left in this MIB View (It is past the end of the MIB tree)\n");
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
  EXPECT_EQ(manager().getNext({"stor.7.2.100"}),
            "stor.7.2.100 = No more variables left in this MIB View (It is past the end of the MIB tree)\n");
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

INSTANTIATE_TEST_SUITE_P(
    Partial, GetNext,
    testing::Values(Step{"tables", "baif.2.0"}, Step{"baif", "baif.2.0"}, Step{"sys", "sys.2.1"},
                    Step{"sys.1.7", "sys.2.1"}, Step{"sys.3.2", "sys.3.255"}, Step{"proc", "proc.3.1.1"},
                    Step{"proc.2.1.1", "proc.3.1.1"}, Step{"proc.3.2", "proc.3.2.0"},
                    Step{"stor", "stor.3.1.1"}, Step{"stor.4.2", "stor.4.2.1"},
                    Step{"stor.4.3", "stor.5.1.1"}, Step{"reach", "reach.3.0.0"},
                    Step{"reach.1", "reach.3.0.0"}, Step{"reach.2", "reach.3.0.0"},
                    Step{"reach.2.5.3", "reach.3.0.0"}, Step{"reach.3", "reach.3.0.0"},
                    Step{"reach.4", "reach.4.0.0"}, Step{"reach.4.0", "reach.4.0.0"},
                    Step{"reach.4.1", "reach.4.1.2"}, Step{"reach.4.2", "reach.4.3.5"},
                    Step{"reach.4.3", "reach.4.3.5"}, Step{"reach.4.4", "reach.4.5.1"},
                    Step{"reach.4.6", "reach.4.255.255"}, Step{"reach.4.255", "reach.4.255.255"},
                    Step{"reach.4.256", "reach.5.0.0"}, Step{"baif.2.7", "baif.2.1001"}));

INSTANTIATE_TEST_SUITE_P(
    AbsentRow, GetNext,
    testing::Values(Step{"reach.4.1.0", "reach.4.1.2"}, Step{"reach.4.1.4", "reach.4.3.5"},
                    Step{"reach.4.3.6", "reach.4.3.7"}, Step{"reach.4.3.8", "reach.4.5.1"},
                    Step{"reach.4.255.254", "reach.4.255.255"}, Step{"reach.4.256.0", "reach.5.0.0"},
                    Step{"proc.3.1.2", "proc.3.1.4294967295"}, Step{"proc.3.254.9", "proc.3.255.1"},
                    Step{"stor.5.1.32", "stor.5.1.100"}, Step{"stor.5.2.101", "stor.6.1.1"}));

INSTANTIATE_TEST_SUITE_P(
    OverLong, GetNext,
    testing::Values(Step{"reach.4.1.2.0", "reach.4.1.3"}, Step{"reach.4.1.3.9.9", "reach.4.3.5"},
                    Step{"reach.4.3.6.1", "reach.4.3.7"}, Step{"reach.4.255.255.1", "reach.5.0.0"},
                    Step{"sys.4.1.0", "sys.4.2"}, Step{"proc.3.1.4294967295.0", "proc.3.2.0"}));

INSTANTIATE_TEST_SUITE_P(
    BigIndex, GetNext,
    testing::Values(Step{"reach.4.1.2147483647", "reach.4.3.5"}, Step{"reach.4.1.2147483648", "reach.4.3.5"},
                    Step{"reach.4.1.4294967295", "reach.4.3.5"}, Step{"reach.4.2147483647", "reach.5.0.0"},
                    Step{"reach.4.2147483648.0", "reach.5.0.0"}, Step{"reach.4.4294967295", "reach.5.0.0"},
                    Step{"reach.4.4294967295.4294967295", "reach.5.0.0"},
                    Step{"reach.4294967295.1.2", "sys.2.1"}, Step{"baif.3.4294967295", "reach.3.0.0"},
                    Step{"sys.2.4294967295", "sys.3.1"}, Step{"proc.3.1.2147483648", "proc.3.1.4294967295"},
                    Step{"proc.3.4294967295.0", "stor.3.1.1"},
                    Step{"stor.3.1.2147483647", "stor.3.1.2147483648"},
                    Step{"stor.3.1.4294967295", "stor.3.2.1"}));

// What a GET asks for, and what is wrong with it.
class Get : public Walk, public testing::WithParamInterface<Step> {};

TEST_P(Get, NamesWhatIsMissing) {
  EXPECT_EQ(manager().get({GetParam().from}), std::string(GetParam().from) + " = " + GetParam().to + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    NoSuchColumn, Get,
    testing::Values(Step{"reach.0.1.2", kNoSuchObject}, Step{"reach.1.1.2", kNoSuchObject},
                    Step{"reach.2.1.2", kNoSuchObject}, Step{"reach.6.1.2", kNoSuchObject},
                    Step{"reach.4294967295.1.2", kNoSuchObject}, Step{"baif.1.7", kNoSuchObject},
                    Step{"baif.4.7", kNoSuchObject}, Step{"sys.1.1", kNoSuchObject},
                    Step{"sys.7.1", kNoSuchObject}, Step{"proc.1.1.1", kNoSuchObject},
                    Step{"proc.2.1.1", kNoSuchObject}, Step{"proc.4.1.1", kNoSuchObject},
                    Step{"stor.1.1.31", kNoSuchObject}, Step{"stor.2.1.31", kNoSuchObject},
                    Step{"stor.8.1.31", kNoSuchObject}));

INSTANTIATE_TEST_SUITE_P(
    NoSuchRow, Get,
    testing::Values(Step{"reach.4.1.1", kNoSuchInstance}, Step{"reach.4.2.1", kNoSuchInstance},
                    Step{"reach.4.1", kNoSuchInstance}, Step{"reach.4.1.2.0", kNoSuchInstance},
                    Step{"reach.4.256.2", kNoSuchInstance},
                    Step{"reach.4.4294967295.4294967295", kNoSuchInstance},
                    Step{"reach.4.2147483648.0", kNoSuchInstance}, Step{"baif.2.2", kNoSuchInstance},
                    Step{"baif.3.4294967293", kNoSuchInstance}, Step{"sys.2.3", kNoSuchInstance},
                    Step{"sys.2", kNoSuchInstance}, Step{"sys.2.1.0", kNoSuchInstance},
                    Step{"proc.3.1", kNoSuchInstance}, Step{"proc.3.1.2", kNoSuchInstance},
                    Step{"stor.4.2.2147483648", kNoSuchInstance}, Step{"stor.4.255.1", kNoSuchInstance}));

TEST_F(Walk, GetBulkOverTheEndOfAColumn_GoesOnInTheNextColumn) {
  EXPECT_EQ(manager().getBulk(0, 3, {"reach.4.5.3"}),
            "reach.4.255.255 = INTEGER: 3\nreach.5.0.0 = Timeticks: (0) 0:00:00.00\n"
            "reach.5.1.2 = Timeticks: (0) 0:00:00.00\n");
}

TEST_F(Walk, GetBulkWithNonRepeatersAndSeveralColumns_IsRowByRow) {
  EXPECT_EQ(manager().getBulk(1, 2, {".1.3.6.1.4.1", "reach.4.3", "reach.3.3"}),
            "baif.2.0 = INTEGER: 0\n"
            "reach.4.3.5 = INTEGER: 5\nreach.3.3.5 = INTEGER: 3005\n"
            "reach.4.3.7 = INTEGER: 6\nreach.3.3.7 = INTEGER: 0\n");
}

TEST_F(Walk, GetBulkOverTheEnd_EndsOnce) {
  EXPECT_THAT(manager().getBulk(0, 10, {"stor.7.2.31"}),
              AllOf(StartsWith("stor.7.2.100 = INTEGER: 5000000\nstor.7.2.100 = No more variables left"),
                    Not(HasSubstr("stor.7.1.1"))));
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
                    HasSubstr("sys.2.1 "), Not(HasSubstr(".1.3.6.1.2.1.2.")), Not(HasSubstr(".1.3.6.1.6."))));
}

TEST_F(Walk, MonitorsView_TablesOfTheControlSocketAreTheSame) {
  nlohmann::json tables = nlohmann::json::parse(daemon_->ctl({"tables", "--json"}).out);
  // Of each table one column, under the names of its row's members.
  struct {
    const char* table;
    const char* column;
    std::vector<const char*> index;
    const char* value;
    const char* type;
  } const columns[] = {
      {"veldaTrelBaIfTable", "baif.3", {"ifIndex"}, "remoteMemberId", "INTEGER"},
      {"veldaTrelReachabilityTable", "reach.4", {"srcId", "destId"}, "state", "INTEGER"},
      {"veldaTrelHrSystemTable", "sys.5", {"memberId"}, "processes", "Gauge32"},
      {"veldaTrelProcessorTable", "proc.3", {"memberId", "index"}, "load", "INTEGER"},
      {"veldaTrelStorageTable", "stor.6", {"memberId", "index"}, "size", "INTEGER"},
  };
  for (const auto& [table, column, index, value, type] : columns) {
    std::string lines;
    for (const nlohmann::json& row : tables.at(table)) {
      lines += column;
      for (const char* part : index) lines += "." + row.at(part).dump();
      lines += std::string(" = ") + type + ": " + row.at(value).dump() + "\n";
    }
    EXPECT_EQ(manager().walk(column), lines);
  }
}

// The dates in the form that DateAndTime has in print.
TEST_F(Walk, MonitorsView_ReadsAsTheTools) {
  std::string expected = R"(veldaTrelHrSystemTable:
  memberId  upTime   date                     numUsers    processes   memorySize
         1  8640050  2026-1-1,0:0:1.2,+0:0             1         107     8388608
         2      100  2106-2-7,6:28:16.0,+0:0  2147483648  4294967295  4294967295
       255        0  1970-1-1,0:0:0.0,+0:0             0           0           0

veldaTrelProcessorTable:
  memberId  index       load
         1           1      -1
         1  4294967295     100
         2           0   32767
         2  2147483648  -32768
       255           1       0

veldaTrelStorageTable:
)";
  EXPECT_THAT(daemon_->ctl({"tables", "--raw"}).out, AllOf(HasSubstr(expected), HasSubstr("  /größe ")));
}

TEST(WalkOfNothing, EmptyCluster_AllTablesAreEmpty) {
  Daemon daemon;
  daemon.stateIs("{}").start();
  EXPECT_THAT(daemon.manager().walk(),
              AnyOf(EndsWith(kNoSuchObject + std::string("\n")), HasSubstr("No more variables left")));
  EXPECT_THAT(daemon.manager().getBulk(0, 5, {"baif.2"}), Not(AnyOf(HasSubstr("reach."), HasSubstr("sys."))));
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
