// The backplane interface table's callbacks while the real pipeline moves interface indexes between member
// pairs, one slice of its work at a time.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>

#include "tests/pipelines/IfTableWorld.h"
#include "tests/snmp-modules/Callbacks.h"
#include "tests/snmp-modules/ModuleTest.h"
#include "tests/support/Random.h"

namespace SnmpTest {
namespace {

using testing::ElementsAre;

class MovingIndexTest : public ModuleTest {
 protected:
  MovingIndexTest() { world_.mib = Zavro::Ptr<TrelSnmp::TrelMib>(&mib()); }

  // The pair that holds the index, by GET: "(1,2)", or "none".
  std::string holder(uint32_t ifIndex) {
    auto value = [&](int column) {
      std::string answer = agent().get({fmt::format("1.1.{}.{}", column, ifIndex)});
      return answer.substr(answer.find('=') + 1);
    };
    std::string local = value(2);
    std::string remote = value(3);
    if (local.starts_with("i:") && remote.starts_with("i:")) {
      return fmt::format("({},{})", local.substr(2), remote.substr(2));
    }
    EXPECT_EQ(local + " " + remote, "noSuchInstance noSuchInstance");
    return "none";
  }
  // Who holds the indexes before the pipeline works on what happened, and after each of its slices.
  std::vector<std::string> holdersUntilDone(const std::vector<uint32_t>& indexes) {
    auto holders = [&] {
      std::string all;
      for (uint32_t ifIndex : indexes) all += (all.empty() ? "" : " ") + holder(ifIndex);
      return all;
    };
    std::vector<std::string> steps = {holders()};
    world_.scheduler.drain([&] { steps.push_back(holders()); });
    return steps;
  }

  TrelSnmp::Agent::IfTableWorld world_;
};

// Both pairs having been processed once, (1,2) has its turn before (2,1) again.
class TwoPairs : public MovingIndexTest {
 protected:
  TwoPairs() {
    world_.wires(1, 2, "Backplane1");
    world_.wires(2, 1, "Backplane2");
  }
  void start(const std::map<std::string, uint32_t>& indexes) {
    for (const auto& [intf, ifIndex] : indexes) world_.indexIs(intf, ifIndex);
    world_.startAndDrain();
  }
};

TEST_F(TwoPairs, IndexGoesToTheLaterPair_IsMissingForOneStep) {
  start({{"Backplane1", 10}, {"Backplane2", 11}});
  world_.indexDel("Backplane1");
  world_.indexIs("Backplane2", 10);
  EXPECT_THAT(holdersUntilDone({10, 11}), ElementsAre("(1,2) (2,1)", "none (2,1)", "(2,1) none"));
}

TEST_F(TwoPairs, IndexGoesToTheEarlierPair_IsNeverMissing) {
  start({{"Backplane2", 10}});
  world_.indexDel("Backplane2");
  world_.indexIs("Backplane1", 10);
  EXPECT_THAT(holdersUntilDone({10}), ElementsAre("(2,1)", "(1,2)", "(1,2)"));
}

TEST_F(TwoPairs, IndexOfAPairThatKeepsIt_ChangesHandsInOneStep) {
  start({{"Backplane1", 10}});
  world_.indexIs("Backplane2", 10);
  EXPECT_THAT(holdersUntilDone({10}), ElementsAre("(1,2)", "(2,1)"));
  world_.indexDel("Backplane1");
  EXPECT_THAT(holdersUntilDone({10}), ElementsAre("(2,1)", "(2,1)"));
}

TEST_F(TwoPairs, IndexesSwapped_OneIsMissingForOneStep_TheOtherNever) {
  start({{"Backplane1", 10}, {"Backplane2", 11}});
  world_.indexIs("Backplane1", 11);
  world_.indexIs("Backplane2", 10);
  EXPECT_THAT(holdersUntilDone({10, 11}), ElementsAre("(1,2) (2,1)", "none (1,2)", "(2,1) (1,2)"));
}

TEST_F(TwoPairs, InterfacesSwapped_OneIndexIsMissingForOneStep_TheOtherNever) {
  start({{"Backplane1", 10}, {"Backplane2", 11}});
  world_.wires(1, 2, "Backplane2");
  world_.wires(2, 1, "Backplane1");
  EXPECT_THAT(holdersUntilDone({10, 11}), ElementsAre("(1,2) (2,1)", "none (1,2)", "(2,1) (1,2)"));
}

// Rows that last, and among them some whose indexes move between pairs at random.
class ManyPairs : public MovingIndexTest {
 protected:
  ManyPairs() {
    for (uint8_t n = 0; n < kLasting; ++n) {
      wires(1, n, 10u * n);
      lasting_.push_back(10u * n);
    }
    for (uint8_t n = 0; n < kMoving; ++n) wires(2, n, movingIndex(n));
    world_.startAndDrain();
  }

  // Two of the moving links change their indexes with each other, or their interfaces.
  void swapSome() {
    int a = any();
    int b = (a + 1 + any() % (kMoving - 1)) % kMoving;
    std::string first = intfOf(a);
    std::string second = intfOf(b);
    if (random_.percent(50)) {
      uint32_t index = indexOf(first);
      world_.indexIs(first, indexOf(second));
      world_.indexIs(second, index);
    } else {
      world_.wires(2, static_cast<uint8_t>(a), second);
      world_.wires(2, static_cast<uint8_t>(b), first);
    }
  }
  // Something happens, and the pipeline gets a slice.
  void step() {
    swapSome();
    world_.scheduler.step();
  }

  static uint32_t movingIndex(int n) { return 20u * static_cast<uint32_t>(n) + 5; }
  bool lasts(uint32_t ifIndex) const { return ifIndex % 10 == 0; }

  static constexpr int kLasting = 20;
  static constexpr int kMoving = 8;
  static constexpr int kRounds = 30;
  std::vector<uint32_t> lasting_;

 private:
  void wires(uint8_t local, uint8_t remote, uint32_t ifIndex) {
    std::string intf = fmt::format("Backplane{}/{}", local, remote);
    world_.wires(local, remote, intf);
    world_.indexIs(intf, ifIndex);
  }
  int any() { return static_cast<int>(random_.below(kMoving)); }
  std::string intfOf(int n) const {
    return world_.member(2)->neighbor().find(Trel::MemberId(static_cast<uint8_t>(n)))->name();
  }
  uint32_t indexOf(const std::string& intf) const {
    return *world_.ifMib->ifIndexByIntfId().find(Lanix::IntfId(intf));
  }

  Support::Random random_{1};
};

TEST_F(ManyPairs, OneSwapAtATime_NoIndexIsMissingForMoreThanOneStep) {
  std::vector<int> missing(kMoving);
  bool everMissing = false;
  for (int round = 0; round < 10 * kRounds; ++round) {
    swapSome();
    world_.scheduler.drain([&] {
      for (int n = 0; n < kMoving; ++n) {
        auto& steps = missing[static_cast<size_t>(n)];
        steps = holder(movingIndex(n)) == "none" ? steps + 1 : 0;
        EXPECT_LE(steps, 1) << movingIndex(n) << " in round " << round;
        everMissing = everMissing || steps == 1;
      }
    });
    EXPECT_EQ(std::count(missing.begin(), missing.end(), 0), kMoving) << round;
  }
  EXPECT_TRUE(everMissing) << "this test needs steps between deletion and insertion";
}

TEST_F(ManyPairs, GetNextBetweenTheSteps_NoLoopNoRowTwice_RowsThatLastAreAllThere) {
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::string> found = agent().walk(kBaIfName, [&](const std::string&) { step(); });
    // The walk has made sure that each name is behind the one before.
    std::vector<std::string> lasting;
    for (const std::string& varbind : found) {
      ASSERT_NE(varbind, "endless");
      uint32_t ifIndex = static_cast<uint32_t>(std::stoul(varbind.substr(varbind.rfind('.') + 1)));
      if (lasts(ifIndex)) lasting.push_back(varbind);
    }
    std::vector<std::string> expected;
    for (int column : {2, 3}) {
      for (int n = 0; n < kLasting; ++n) {
        expected.push_back(fmt::format("1.1.{}.{}=i:{}", column, 10 * n, column == 2 ? 1 : n));
      }
    }
    EXPECT_EQ(lines(lasting), lines(expected)) << round;
    world_.scheduler.drain();
  }
}

TEST_F(ManyPairs, CallbacksBetweenTheSteps_NoLoopNoRowTwice_RowsThatLastAreAllThere) {
  for (int round = 0; round < kRounds; ++round) {
    DirectWalk walk(kBaIfName);
    std::vector<uint32_t> visited;
    for (std::string index = walk.first(); index != "end"; index = walk.next()) {
      visited.push_back(static_cast<uint32_t>(std::stoul(index)));
      auto row = mib().trelIfTable(visited.back());
      ASSERT_NE(row, nullptr);
      void* data = walk.makeData();
      step();
      // Whatever happened to the row meanwhile, what was found is answered.
      EXPECT_EQ(handle(&veldaTrelBaIfTable_handler, MODE_GET, {{2, data}, {3, data}}),
                fmt::format("0: i:{} i:{}", row->localMemberId(), row->remoteMemberId()));
      walk.freeData(data);
    }
    EXPECT_TRUE(std::is_sorted(visited.begin(), visited.end(), std::less_equal<>())) << round;
    std::vector<uint32_t> lasting;
    std::copy_if(visited.begin(), visited.end(), std::back_inserter(lasting),
                 [&](uint32_t ifIndex) { return lasts(ifIndex); });
    EXPECT_EQ(lasting, lasting_) << round;
    world_.scheduler.drain();
  }
}

}  // namespace
}  // namespace SnmpTest
