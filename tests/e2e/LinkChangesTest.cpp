// The backplane interface table while links and interface indexes come, move and go, as a manager sees it: a
// state file is edited under a running daemon.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Links.h"
#include "tests/support/Random.h"

namespace E2e {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// Both columns of a row.
Names instancesOf(uint32_t ifIndex) {
  return {fmt::format("baif.2.{}", ifIndex), fmt::format("baif.3.{}", ifIndex)};
}

// The lines of a walk but for the one that says that there is no more.
std::string rowsOf(const std::string& walk) {
  std::istringstream in(walk);
  std::string rows;
  for (std::string line; std::getline(in, line);) {
    if (line.find(" = No ") == std::string::npos) rows += line + "\n";
  }
  return rows;
}

class LinkChanges : public testing::Test {
 protected:
  void start() {
    mark();
    daemon_.stateIs(documentOf(wiring_)).start();
  }
  // Replaces the file. One link, which nothing else has to do with, gets another index with every edit: when
  // that is served and nothing is left to be done, all that the file says is served.
  void edit() {
    mark();
    edit(documentOf(wiring_));
  }
  void edit(const std::string& document) {
    daemon_.dir().replace(Daemon::kStateName, document);
    ASSERT_TRUE(Support::waitUntil([this] { return isServed(marker_); })) << daemon_.process().err();
    daemon_.waitUntilReady();
  }

  // Gives the marking link its next index.
  void mark() {
    wiring_.links[kMarkingPair] = "Backplane254";
    wiring_.indexes["Backplane254"] = ++marker_;
  }

  // However it is asked for, the table has these rows and no others, besides the marking link's.
  testing::AssertionResult tableIs(Links rows) const {
    rows[marker_] = kMarkingPair;
    std::vector<Varbind> tree = treeOf(rows);
    std::string expected = walkOf(tree);
    Names all;
    for (const Varbind& varbind : tree) all.push_back(varbind.name);
    for (const std::string& answer :
         {rowsOf(manager().walk("baif")), rowsOf(manager().bulkWalk("baif")), manager().get(all)}) {
      if (answer != expected) return testing::AssertionFailure() << answer;
    }
    return testing::AssertionSuccess();
  }
  bool isServed(uint32_t ifIndex) const {
    return manager().get(instancesOf(ifIndex)).find(" = No Such Instance") == std::string::npos;
  }
  const Manager& manager() const { return daemon_.manager(); }

  Wiring wiring_;
  Daemon daemon_;

 private:
  static constexpr Pair kMarkingPair = {254, 255};

  uint32_t marker_ = 4'000'000'000;
};

TEST_F(LinkChanges, LinkBeforeItsIndex_RowComesWithTheIndex) {
  wiring_.links = {{{1, 2}, "Backplane1/2"}};
  start();
  EXPECT_TRUE(tableIs({}));
  wiring_.indexes["Backplane1/2"] = 10;
  edit();
  EXPECT_TRUE(tableIs({{10, {1, 2}}}));
}

TEST_F(LinkChanges, IndexBeforeItsLink_RowComesWithTheLink) {
  wiring_.indexes = {{"Backplane1/2", 10}};
  start();
  EXPECT_TRUE(tableIs({}));
  wiring_.links[{1, 2}] = "Backplane1/2";
  edit();
  EXPECT_TRUE(tableIs({{10, {1, 2}}}));
}

TEST_F(LinkChanges, IndexChanges_RowMoves) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}}, {{"Backplane1/2", 10}}};
  start();
  for (auto [before, after] : {std::pair{10u, 12u}, {12u, 2147483648u}, {2147483648u, 10u}}) {
    wiring_.indexes["Backplane1/2"] = after;
    edit();
    EXPECT_TRUE(tableIs({{after, {1, 2}}}));
    EXPECT_FALSE(isServed(before));
  }
}

TEST_F(LinkChanges, IndexVanishes_RowVanishes_WalkGoesOnAtTheNextGreaterIndex) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}, {{1, 3}, "Backplane1/3"}, {{1, 4}, "Backplane1/4"}},
             {{"Backplane1/2", 5}, {"Backplane1/3", 2147483648}, {"Backplane1/4", 2147483650}}};
  start();
  ASSERT_EQ(manager().getNext({"baif.3.5"}), "baif.3.2147483648 = INTEGER: 3\n");
  wiring_.indexes.erase("Backplane1/3");
  edit();
  EXPECT_EQ(manager().getNext({"baif.3.2147483648"}), "baif.3.2147483650 = INTEGER: 4\n");
  EXPECT_TRUE(tableIs({{5, {1, 2}}, {2147483650, {1, 4}}}));
}

TEST_F(LinkChanges, IndexesSwapped_BothRowsNameTheOther) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}, {{2, 1}, "Backplane2/1"}},
             {{"Backplane1/2", 10}, {"Backplane2/1", 11}}};
  start();
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(tableIs({{10, {1, 2}}, {11, {2, 1}}}));
    std::swap(wiring_.indexes["Backplane1/2"], wiring_.indexes["Backplane2/1"]);
    edit();
    EXPECT_TRUE(tableIs({{10, {2, 1}}, {11, {1, 2}}}));
    std::swap(wiring_.indexes["Backplane1/2"], wiring_.indexes["Backplane2/1"]);
    edit();
  }
}

TEST_F(LinkChanges, NeighbourRemoved_ItsRowGoes_OthersStay) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}, {{1, 3}, "Backplane1/3"}},
             {{"Backplane1/2", 10}, {"Backplane1/3", 11}}};
  start();
  wiring_.links.erase({1, 2});
  edit();
  EXPECT_TRUE(tableIs({{11, {1, 3}}}));
  EXPECT_FALSE(isServed(10));
}

TEST_F(LinkChanges, MemberLeavesTheTopology_ItsRowsGo_AndComeBackWithIt) {
  wiring_ = {{{{1, 2}, "Backplane1/2"},
              {{1, 3}, "Backplane1/3"},
              {{2, 1}, "Backplane2/1"},
              {{3, 1}, "Backplane3/1"}},
             {{"Backplane1/2", 12}, {"Backplane1/3", 13}, {"Backplane2/1", 21}, {"Backplane3/1", 31}}};
  Wiring whole = wiring_;
  start();
  std::erase_if(wiring_.links, [](const auto& link) { return link.first.first == 1; });
  edit();
  EXPECT_TRUE(tableIs({{21, {2, 1}}, {31, {3, 1}}}));
  wiring_.links = whole.links;
  edit();
  EXPECT_TRUE(tableIs({{12, {1, 2}}, {13, {1, 3}}, {21, {2, 1}}, {31, {3, 1}}}));
}

TEST_F(LinkChanges, InterfacesThatAreNoBackplaneChannels_AreIgnored) {
  wiring_ = {{{{1, 2}, "Ethernet4"}, {{1, 3}, "Backplane"}, {{1, 4}, "backplane1"}, {{1, 5}, "Backplane1/5"}},
             {{"Ethernet4", 4}, {"Backplane", 5}, {"backplane1", 6}, {"Backplane1/5", 10}}};
  start();
  EXPECT_TRUE(tableIs({{10, {1, 5}}}));
  wiring_.indexes["Ethernet4"] = 10;
  wiring_.indexes["Backplane"] = 7;
  edit();
  EXPECT_TRUE(tableIs({{10, {1, 5}}}));
  wiring_.links[{1, 5}] = "Ethernet4";
  edit();
  EXPECT_TRUE(tableIs({}));
  wiring_.links[{1, 2}] = "Backplane1/5";
  edit();
  EXPECT_TRUE(tableIs({{10, {1, 2}}}));
}

TEST_F(LinkChanges, LinkMovesToAnotherInterface_RowFollows) {
  wiring_ = {{{{1, 2}, "Backplane1"}}, {{"Backplane1", 10}, {"Backplane2", 20}}};
  start();
  wiring_.links[{1, 2}] = "Backplane2";
  edit();
  EXPECT_TRUE(tableIs({{20, {1, 2}}}));
}

TEST_F(LinkChanges, OneInterfaceOfSeveralLinks_AllAreProcessedInWalkOrder_LastHasTheRow) {
  wiring_.links = {{{3, 1}, "Backplane7"}, {{1, 9}, "Backplane7"}, {{1, 2}, "Backplane7"}};
  daemon_.with({"--trace", "TrelSnmpIfTableSm/7"});
  start();
  std::string before = daemon_.log();
  wiring_.indexes["Backplane7"] = 10;
  edit();
  EXPECT_TRUE(tableIs({{10, {3, 1}}}));

  std::istringstream log(daemon_.log().substr(before.size()));
  std::vector<std::string> processed;
  for (std::string line; std::getline(log, line);) {
    size_t at = line.find("localMemberId=");
    bool marking = line.find("localMemberId=254 ") != std::string::npos;
    if (line.find("trelIfTableStream = merge(") != std::string::npos && !marking) {
      processed.push_back(line.substr(at));
    }
  }
  EXPECT_THAT(processed, ElementsAre("localMemberId=1 remoteMemberId=2", "localMemberId=1 remoteMemberId=9",
                                     "localMemberId=3 remoteMemberId=1"));
}

// Two links, and the order in which they are processed when one edit touches both.
struct Order {
  Pair first;
  Pair second;
  friend std::ostream& operator<<(std::ostream& out, const Order& order) {
    return out << order.first.first << "to" << order.second.first;
  }
};

class IndexBetweenTwoPairs : public LinkChanges, public testing::WithParamInterface<Order> {
 protected:
  IndexBetweenTwoPairs() {
    for (const Pair& pair : {first(), second()}) wiring_.links[pair] = interfaceOf(pair);
  }
  static const Pair& first() { return GetParam().first; }
  static const Pair& second() { return GetParam().second; }
  static std::string interfaceOf(const Pair& pair) {
    return fmt::format("Backplane{}/{}", pair.first, pair.second);
  }
};
INSTANTIATE_TEST_SUITE_P(BothWays, IndexBetweenTwoPairs,
                         testing::Values(Order{{1, 2}, {2, 1}}, Order{{2, 1}, {1, 2}}),
                         [](const auto& order) { return testing::PrintToString(order.param); });

TEST_P(IndexBetweenTwoPairs, IndexMoves_RowNamesTheOtherPair) {
  wiring_.indexes = {{interfaceOf(first()), 10}};
  start();
  EXPECT_TRUE(tableIs({{10, first()}}));
  wiring_.indexes = {{interfaceOf(second()), 10}};
  edit();
  EXPECT_TRUE(tableIs({{10, second()}}));
}

TEST_P(IndexBetweenTwoPairs, IndexMovesAndItsFormerOwnerGetsAnother_BothRowsStand) {
  wiring_.indexes = {{interfaceOf(first()), 10}, {interfaceOf(second()), 11}};
  start();
  wiring_.indexes = {{interfaceOf(first()), 12}, {interfaceOf(second()), 10}};
  edit();
  EXPECT_TRUE(tableIs({{10, second()}, {12, first()}}));
  EXPECT_FALSE(isServed(11));
}

TEST_P(IndexBetweenTwoPairs, BothHaveIt_LaterTakesTheRow_EarliersWithdrawalChangesNothing) {
  wiring_.indexes = {{interfaceOf(first()), 10}};
  start();
  wiring_.indexes[interfaceOf(second())] = 10;
  edit();
  EXPECT_TRUE(tableIs({{10, second()}}));
  wiring_.indexes.erase(interfaceOf(first()));
  edit();
  EXPECT_TRUE(tableIs({{10, second()}}));
}

TEST_P(IndexBetweenTwoPairs, BothHaveItForAWhile_StatusSaysSo_BothRowsStandAfterwards) {
  wiring_.indexes = {{interfaceOf(first()), 10}, {interfaceOf(second()), 11}};
  start();
  wiring_.indexes[interfaceOf(second())] = 10;
  edit();
  EXPECT_TRUE(tableIs({{10, second()}}));
  ASSERT_EQ(daemon_.status().at("conflicts").size(), 1U);
  EXPECT_THAT(daemon_.status().at("conflicts")[0].at("conflict").get<std::string>(),
              HasSubstr("ifIndex 10 is given to several links"));
  wiring_.indexes[interfaceOf(second())] = 11;
  edit();
  EXPECT_TRUE(tableIs({{10, first()}, {11, second()}}));
  EXPECT_TRUE(daemon_.status().at("conflicts").empty());
}

TEST_P(IndexBetweenTwoPairs, BothHaveIt_EarlierLinkGoes_RowStays) {
  wiring_.indexes = {{interfaceOf(first()), 10}};
  start();
  wiring_.indexes[interfaceOf(second())] = 10;
  edit();
  wiring_.links.erase(first());
  edit();
  EXPECT_TRUE(tableIs({{10, second()}}));
}

TEST_F(LinkChanges, WrongValues_TheirRowsStayAsTheyWere_OthersChange) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}, {{1, 3}, "Backplane1/3"}, {{1, 4}, "Backplane1/4"}},
             {{"Backplane1/2", 10}, {"Backplane1/3", 11}, {"Backplane1/4", 12}}};
  start();
  wiring_.indexes["Backplane1/4"] = 14;
  mark();
  auto document = nlohmann::ordered_json::parse(documentOf(wiring_));
  document["interfaces"]["Backplane1/2"]["ifIndex"] = -1;
  document["topology"]["1"]["3"]["intf"] = 7;
  edit(document.dump(1));
  EXPECT_TRUE(tableIs({{10, {1, 2}}, {11, {1, 3}}, {14, {1, 4}}}));
  EXPECT_THAT(daemon_.errors(),
              testing::UnorderedElementsAre(HasSubstr("interfaces/\"Backplane1/2\"/ifIndex"),
                                            HasSubstr("topology/1/3/intf")));
}

TEST_F(LinkChanges, DocumentCutOff_AllRowsStay_RepairIsServed) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}, {{2, 1}, "Backplane2/1"}},
             {{"Backplane1/2", 10}, {"Backplane2/1", 20}}};
  start();
  std::string document = documentOf(wiring_);
  daemon_.dir().replace(Daemon::kStateName, document.substr(0, document.size() / 2));
  ASSERT_TRUE(Support::waitUntil([this] { return !daemon_.sourceError().empty(); }));
  EXPECT_TRUE(tableIs({{10, {1, 2}}, {20, {2, 1}}}));
  EXPECT_THAT(daemon_.errors(), ElementsAre(StartsWith("Kelstore/0 " + daemon_.stateFile() + ":")));
  wiring_.indexes["Backplane1/2"] = 12;
  edit();
  EXPECT_TRUE(tableIs({{12, {1, 2}}, {20, {2, 1}}}));
  EXPECT_EQ(daemon_.sourceError(), "");
}

TEST_F(LinkChanges, ManyEditsInQuickSuccession_SettleToTheLast) {
  wiring_ = {{{{1, 2}, "Backplane1/2"}, {{2, 1}, "Backplane2/1"}, {{3, 1}, "Backplane3/1"}},
             {{"Backplane1/2", 10}, {"Backplane2/1", 11}, {"Backplane3/1", 12}}};
  start();
  for (uint32_t i = 0; i < 300; ++i) {
    wiring_.indexes = {{"Backplane1/2", 10 + i % 3}, {"Backplane2/1", 10 + (i + 1) % 3}};
    if (i % 2 == 0) wiring_.indexes["Backplane3/1"] = 10 + (i + 2) % 3;
    daemon_.dir().replace(Daemon::kStateName, documentOf(wiring_));
  }
  wiring_.indexes = {{"Backplane1/2", 12}, {"Backplane2/1", 10}};
  edit();
  EXPECT_TRUE(tableIs({{10, {2, 1}}, {12, {1, 2}}}));
  EXPECT_THAT(daemon_.errors(), IsEmpty());
}

// Many links that never change, and among them some whose indexes move from one to the other with every edit.
class WalkWhileIndexesMove : public LinkChanges {
 protected:
  WalkWhileIndexesMove() {
    for (int member = 1; member <= kMembers; ++member) {
      for (int neighbour = 1; neighbour <= kMembers; ++neighbour) {
        if (neighbour != member)
          lasting_[static_cast<uint32_t>(member * 1000 + neighbour * 10)] = {member, neighbour};
      }
    }
    for (const auto& [ifIndex, pair] : lasting_) {
      std::string interface = fmt::format("Backplane{}/{}", pair.first, pair.second);
      wiring_.links[pair] = interface;
      wiring_.indexes[interface] = ifIndex;
    }
    for (int i = 1; i <= kMoving; ++i) {
      wiring_.links[{100 + i, 200}] = movingInterface(i);
      moving_.insert(static_cast<uint32_t>(i * 1000 + 5));
    }
    shuffle();
  }

  // Two out of three of the moving links have an index, each another one than before.
  void shuffle() {
    std::vector<int> order(kMoving);
    std::iota(order.begin(), order.end(), 1);
    random_.shuffle(order);
    for (int i = 0; i < kMoving; ++i) {
      std::string interface = movingInterface(order[static_cast<size_t>(i)]);
      if (i % 3 == 2) {
        wiring_.indexes.erase(interface);
      } else {
        wiring_.indexes[interface] = *std::next(moving_.begin(), i);
      }
    }
  }

  // What a manager finds that walks again and again while the indexes move, edit after edit.
  std::set<std::string> walksDuringMoves(std::string (Manager::*walk)(const std::string&) const) {
    std::set<std::string> found;
    std::jthread walker([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) found.insert((manager().*walk)("baif"));
    });
    for (size_t i = 0; i < kEdits && !HasFatalFailure(); ++i) {
      shuffle();
      edit();
    }
    walker.request_stop();
    walker.join();
    return found;
  }

  // Every line is a row or the end; no row comes twice or out of order; the rows that last are all there.
  void expectOrderly(const std::string& walk) const {
    std::istringstream in(walk);
    std::string lasting;
    std::pair<int, uint32_t> before{0, 0};
    for (std::string line; std::getline(in, line);) {
      int column = 0;
      uint32_t ifIndex = 0;
      int member = -1;
      if (std::sscanf(line.c_str(), "baif.%d.%u = INTEGER: %d", &column, &ifIndex, &member) != 3) {
        EXPECT_THAT(line, HasSubstr(" = No more variables left in this MIB View"));
        continue;
      }
      EXPECT_LT(before, std::pair(column, ifIndex)) << line;
      before = {column, ifIndex};
      if (lasting_.contains(ifIndex)) lasting += line + "\n";
      if (moving_.contains(ifIndex)) {
        EXPECT_TRUE(column == 2 ? member > 100 && member <= 100 + kMoving : member == 200) << line;
      }
    }
    EXPECT_EQ(lasting, walkOf(treeOf(lasting_)));
  }

  static constexpr size_t kEdits = 40;

 private:
  static constexpr int kMembers = 30;
  static constexpr int kMoving = 30;

  static std::string movingInterface(int i) { return fmt::format("Backplane{}", 1000 + i); }

  Links lasting_;
  std::set<uint32_t> moving_;  // in between the lasting ones
  Support::Random random_{1};
};

TEST_F(WalkWhileIndexesMove, NoLoopNoRowTwice_RowsThatLastAreAllThere) {
  start();
  for (auto walk : {&Manager::walk, &Manager::bulkWalk}) {
    std::set<std::string> walks = walksDuringMoves(walk);
    EXPECT_GT(walks.size(), kEdits / 4) << "hardly a walk saw an index move";
    for (const std::string& found : walks) expectOrderly(found);
  }
}

}  // namespace
}  // namespace E2e
