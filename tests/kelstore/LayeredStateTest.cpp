// Layers over one another, and the order and size of the steps in which changes are applied.
#include <gmock/gmock.h>

#include "tests/kelstore/World.h"

namespace Kelstore {
namespace {

std::string ifIndex(uint32_t value) {
  return R"({"interfaces": {"Backplane1/1": {"ifIndex": )" + std::to_string(value) + "}}}";
}

uint32_t shown(const World& world) {
  const uint32_t* value = world.mirror.ifMib()->ifIndexByIntfId().find(Lanix::IntfId("Backplane1/1"));
  return value == nullptr ? 0 : *value;
}

TEST(LayeredStateTest, LaterLayerWins_AndItsWithdrawalBringsTheEarlierBack) {
  World world(2);
  world.says(ifIndex(1), 0);
  world.says(ifIndex(2), 1);
  EXPECT_EQ(shown(world), 2u);
  EXPECT_EQ(world.says(ifIndex(3), 0), "");
  EXPECT_EQ(shown(world), 2u);
  EXPECT_EQ(world.says("{}", 1), "ifIndex[Backplane1/1]");
  EXPECT_EQ(shown(world), 3u);
  EXPECT_EQ(world.says("{}", 0), "-ifIndex[Backplane1/1]");
}

TEST(LayeredStateTest, WithdrawnValueEqualsTheEarlierOne_NothingIsNotified) {
  World world(2);
  world.says(ifIndex(7), 0);
  world.says(ifIndex(7), 1);
  EXPECT_EQ(shown(world), 7u);
  world.takeLog();
  EXPECT_EQ(world.says("{}", 1), "");
}

TEST(LayeredStateTest, MemberIsHeldByTwoLayers_ItStaysUntilBothWithdrawIt) {
  World world(2);
  world.says(R"({"members": {"3": {"processors": {"1": {"load": 1}}}}})", 0);
  world.says(R"({"members": {"3": {"processors": {"2": {"load": 2}}}}})", 1);
  EXPECT_EQ(world.says("{}", 0), "-3.cpu[1]");
  EXPECT_EQ(world.says("{}", 1), "-host[3]");
}

// A layer over that of World's first one, which claims the processors of member 3.
LayeredState::Layer claimingLayer(World& world) {
  return world.layers.addLayer(
      [](Kind kind, std::string_view first) { return kind == Kind::processor && first == "3"; });
}

TEST(LayeredStateTest, ClaimedPath_WhatLowerLayersSayThereDoesNotCount) {
  World world(1);
  LayeredState::Layer upper = claimingLayer(world);
  world.says(R"({"members": {"3": {"processors": {"1": {"load": 1}, "2": {"load": 1}}},
                             "4": {"processors": {"1": {"load": 1}}}}})",
             0);
  EXPECT_EQ(world.says(R"({"members": {"3": {"processors": {"2": {"load": 9}}}}})", upper),
            "host[3] host[4] 3.cpu[2] 4.cpu[1]");
  EXPECT_EQ((*world.host("3")->processorTable().find(2u))->load(), 9);
  EXPECT_EQ(world.says(R"({"members": {"3": {"processors": {}}}})", upper), "-3.cpu[2]");
}

TEST(LayeredStateTest, ClaimedElementOfALowerLayer_DoesNotAppear_WhatIsNotClaimedDoes) {
  World world(1);
  LayeredState::Layer upper = claimingLayer(world);
  world.submit(R"({"members": {"3": {"processors": {"1": {"load": 1}}}}})", 0);
  world.layers.settledIs(0);
  // That there are processors is not claimed, so the member is there, without the one.
  EXPECT_EQ(world.says("{}", upper), "host[3]");
  EXPECT_TRUE(world.host("3")->processorTable().empty());
  EXPECT_EQ(world.says("{}", 0), "-host[3]");
}

TEST(LayeredStateTest, LowestLayer_CountsWhereNoOtherSaysSomething) {
  World world(2);
  LayeredState::Layer lowest = world.layers.addLowestLayer();
  world.layers.settledIs(lowest);
  world.says(ifIndex(1), 0);
  world.says(ifIndex(2), 1);
  EXPECT_EQ(world.says(ifIndex(9), lowest), "");
  world.says("{}", 1);
  EXPECT_EQ(shown(world), 1u);
  world.says("{}", 0);
  EXPECT_EQ(shown(world), 9u);
}

TEST(LayeredStateTest, LayerAboveAClaim_WinsAsEver) {
  World world(1);
  LayeredState::Layer claiming = claimingLayer(world);
  LayeredState::Layer top = world.layers.addLayer();
  world.submit(R"({"members": {"3": {"processors": {"1": {"load": 1}}}}})", claiming);
  for (LayeredState::Layer layer : {LayeredState::Layer{0}, claiming}) world.layers.settledIs(layer);
  world.says(R"({"members": {"3": {"processors": {"1": {"load": 7}}}}})", top);
  EXPECT_EQ((*world.host("3")->processorTable().find(1u))->load(), 7);
}

TEST(LayeredStateTest, NothingIsMirroredBeforeEveryLayerSettled) {
  World world(2);
  EXPECT_EQ(world.says(ifIndex(1), 0), "");
  EXPECT_FALSE(world.layers.idle());
  world.submit(ifIndex(2), 1);
  EXPECT_EQ(world.drained(), "");
  world.layers.settledIs(1);
  EXPECT_EQ(world.drained(), "ifIndex[Backplane1/1]");
  EXPECT_EQ(shown(world), 2u);
  EXPECT_TRUE(world.layers.idle());
}

TEST(LayeredStateTest, MappingsOfALaterLayerComeBeforeStorageOfAnEarlier) {
  World world(2);
  world.says(R"({"members": {"1": {"storage": {"/": {"allocationUnits": 1, "size": 1, "free": 1}}}}})", 0);
  world.submit(
      R"({"storageMappings": {"mounts": {"/": {"index": 1, "type": "1.3", "description": "root"}}}})", 1);
  world.layers.settledIs(1);
  EXPECT_EQ(world.drained(), "mount[/] host[1] 1.storage[/]");
}

TEST(LayeredStateTest, TaskYieldsAfterEveryPath_EachStepAppliesOne) {
  World world;
  world.submit(R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}, "c": {"ifIndex": 3}}})");
  world.layers.settledIs(0);
  std::vector<std::string> steps;
  world.scheduler.drain([&] { steps.push_back(world.takeLog()); });
  EXPECT_THAT(steps, testing::ElementsAre("ifIndex[a]", "ifIndex[b]", "ifIndex[c]"));
}

TEST(LayeredStateTest, ChangesBetweenSteps_TheMirrorEndsAsTheLastSnapshotSays) {
  World world;
  world.submit(R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}, "c": {"ifIndex": 3}}})");
  world.layers.settledIs(0);
  world.scheduler.step();
  world.submit(R"({"interfaces": {"b": {"ifIndex": 9}}})");
  world.scheduler.drain();
  EXPECT_EQ(world.takeLog(), "ifIndex[a] -ifIndex[a] ifIndex[b]");
  EXPECT_EQ(world.mirror.ifMib()->ifIndexByIntfId().size(), 1u);
}

TEST(LayeredStateTest, ChangesComeFasterThanTheyAreApplied_APathThatKeepsChangingTakesNoMoreRoom) {
  World world;
  world.submit(R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}, "c": {"ifIndex": 3}}})");
  for (int i = 0; i < 1000; ++i) {
    world.submit(R"({"interfaces": {"b": {"ifIndex": )" + std::to_string(i) + "}}}");
    world.submit(R"({"interfaces": {"a": {"ifIndex": )" + std::to_string(i) + "}}}");
    ASSERT_LE(world.layers.pending(), 6u);
  }
  world.layers.settledIs(0);
  EXPECT_EQ(world.drained(), "ifIndex[a]");
  EXPECT_EQ(world.layers.pending(), 0u);
}

TEST(LayeredStateTest, ManyBatchesOfAllSizes_EveryPathIsApplied) {
  World world;
  std::string all;
  for (int i = 0; i < 300; ++i) {
    all += (all.empty() ? "" : ", ") + fmt::format(R"("i{}": {{"ifIndex": {}}})", i, i);
    if (i % 3 != 1) world.submit(R"({"interfaces": {)" + all + "}}");
    if (i % 7 == 0) world.scheduler.step();
    if (i == 5) world.layers.settledIs(0);
  }
  world.submit(R"({"interfaces": {)" + all + "}}");
  world.drained();
  EXPECT_EQ(world.mirror.ifMib()->ifIndexByIntfId().size(), 300u);
  for (uint32_t i = 0; i < 300; ++i) {
    const uint32_t* value =
        world.mirror.ifMib()->ifIndexByIntfId().find(Lanix::IntfId(fmt::format("i{}", i)));
    ASSERT_TRUE(value != nullptr && *value == i) << i;
  }
}

}  // namespace
}  // namespace Kelstore
