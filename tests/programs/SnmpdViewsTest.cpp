// Whether managers of a stock snmpd may read the tables.
#include "programs/trelctl/SnmpdViews.h"

#include <gmock/gmock.h>

#include "programs/trelsnmpd/SnmpdConf.h"
#include "tests/support/TempDir.h"

namespace TrelCtl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kStock =
    "view   systemonly  included   .1.3.6.1.2.1.1\n"
    "view   systemonly  included   .1.3.6.1.2.1.25.1\n"
    "rocommunity  public default -V systemonly\n";

SnmpdViews viewsOf(const std::string& conf) {
  Support::TempDir directory;
  return viewsIn(Trelsnmpd::readSnmpdConf(directory.write("conf", conf), directory.file("none")));
}

TEST(SnmpdViewsTest, StockConfiguration_ItsViewLacksTheTablesUntilTheyAreAdded) {
  SnmpdViews stock = viewsOf(kStock);
  EXPECT_TRUE(stock.anybody);
  EXPECT_THAT(stock.without, ElementsAre("systemonly"));
  EXPECT_THAT(viewsOf(kStock + ("view systemonly included " + kTablesSubtree)).without, IsEmpty());
}

TEST(SnmpdViewsTest, SubtreesAboveAndBelow_InclusionAndExclusion) {
  auto without = [](const std::string& views) { return viewsOf(views + "\nrouser ops priv -V v").without; };
  for (const char* subtree : {".1", "1.3.6.1", ".iso.3.6.1.4", ".1.3.6.1.4.1.32473.3.1.2"})
    EXPECT_THAT(without("view v included " + std::string(subtree)), IsEmpty()) << subtree;
  for (const char* subtree : {".1.3.6.1.4.1.3247", ".1.3.6.1.2.1", ".1.3.6.1.4.1.32473.30", ".2"})
    EXPECT_THAT(without("view v included " + std::string(subtree)), ElementsAre("v")) << subtree;
  EXPECT_THAT(without("view v included .1\nview v excluded .1.3.6.1.4"), ElementsAre("v"));
  EXPECT_THAT(without("view v included .1\nview v excluded .1.3.6.1.6"), IsEmpty());
  EXPECT_THAT(without("view v included .1\nview v excluded " + kTablesSubtree + ".1.2"), IsEmpty());
  EXPECT_THAT(without("view other included .1"), ElementsAre("v"));
}

TEST(SnmpdViewsTest, WithoutAView_EverythingMayBeRead_WithoutACommunityNothing) {
  EXPECT_TRUE(viewsOf("rocommunity ops 10.0.0.0/8").anybody);
  EXPECT_THAT(viewsOf("rocommunity ops 10.0.0.0/8").without, IsEmpty());
  EXPECT_FALSE(viewsOf("# rocommunity ops\nmaster agentx\n").anybody);
  EXPECT_THAT(viewsOf("access g \"\" any noauth exact v none none\n").without, ElementsAre("v"));
}

TEST(SnmpdViewsTest, IncludedFiles_CountInTheirPlace) {
  Support::TempDir directory;
  directory.write("a.conf", "view systemonly included .1.3.6.1.4.1\n");
  directory.write("b.txt", "rocommunity x default -V nowhere\n");
  std::string conf = directory.write("main", kStock + ("includeDir " + directory.path().string()));
  SnmpdViews views = viewsIn(Trelsnmpd::readSnmpdConf(conf));
  EXPECT_TRUE(views.anybody);
  EXPECT_THAT(views.without, IsEmpty());
}

TEST(SnmpdViewsTest, NoConfiguration_IsSaid) {
  EXPECT_THAT(viewsIn(Trelsnmpd::readSnmpdConf("/none")).unread, "/none: No such file or directory");
}

}  // namespace
}  // namespace TrelCtl
