// Devices as messages describe them: kept by number, found by name.
#include <gtest/gtest.h>

#include "member/Links.h"

namespace Member {
namespace {

constexpr Device kUp1{1, true, true};
constexpr Device kUp2{2, true, true};

// Of a device: "2", "2 off" or "2 down"; "-" when there is none.
std::string shown(const LinkTable& table, const std::string& name) {
  auto device = table.find(name);
  if (!device) return "-";
  return std::to_string(device->index) + (!device->switchedOn ? " off" : device->carrier ? "" : " down");
}

TEST(LinkTableTest, BeforeTheListingEnds_NoneIsKnown) {
  LinkTable table;
  table.deviceIs("a", kUp1);
  EXPECT_FALSE(table.known());
  EXPECT_EQ(shown(table, "a"), "-");
  table.listingEnds();
  EXPECT_TRUE(table.known());
  EXPECT_EQ(shown(table, "a"), "1");
  EXPECT_EQ(shown(table, "b"), "-");
}

TEST(LinkTableTest, OnlyDifferences_AreNews) {
  LinkTable table;
  table.listingEnds();
  EXPECT_TRUE(table.deviceIs("a", kUp1));
  EXPECT_FALSE(table.deviceIs("a", kUp1));
  EXPECT_TRUE(table.deviceIs("a", {1, true, false}));
  EXPECT_EQ(shown(table, "a"), "1 down");
  EXPECT_TRUE(table.deviceIs("a", {1, false, false}));
  EXPECT_EQ(shown(table, "a"), "1 off");
  EXPECT_TRUE(table.deviceIsGone(1));
  EXPECT_FALSE(table.deviceIsGone(1));
  EXPECT_EQ(shown(table, "a"), "-");
}

TEST(LinkTableTest, Renamed_HasTheNewNameOnly) {
  LinkTable table;
  table.listingEnds();
  table.deviceIs("a", kUp1);
  EXPECT_TRUE(table.deviceIs("b", kUp1));
  EXPECT_EQ(shown(table, "a") + shown(table, "b"), "-1");
}

TEST(LinkTableTest, NameOfAnotherDevice_IsTheLastOnes) {
  LinkTable table;
  table.listingEnds();
  table.deviceIs("a", kUp1);
  table.deviceIs("a", kUp2);
  EXPECT_EQ(shown(table, "a"), "2");
}

TEST(LinkTableTest, ListedAgain_DevicesThatAreMissingAreGone) {
  LinkTable table;
  table.deviceIs("a", kUp1);
  table.deviceIs("b", kUp2);
  table.listingEnds();
  table.listingBegins();
  EXPECT_EQ(shown(table, "a") + shown(table, "b"), "12") << "known as they were, meanwhile";
  table.deviceIs("b", kUp2);
  table.listingEnds();
  EXPECT_EQ(shown(table, "a") + shown(table, "b"), "-2");
}

}  // namespace
}  // namespace Member
