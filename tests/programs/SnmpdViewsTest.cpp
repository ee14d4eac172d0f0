// Whether managers of a stock snmpd may read the tables.
#include "programs/trelctl/SnmpdViews.h"

#include <gmock/gmock.h>

#include "programs/trelsnmpd/MasterAddress.h"
#include "tests/support/TempDir.h"

namespace TrelCtl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kStock =
    "view   systemonly  included   .1.3.6.1.2.1.1\n"
    "view   systemonly  included   .1.3.6.1.2.1.25.1\n"
    "rocommunity  public default -V systemonly\n";

TEST(SnmpdViewsTest, StockConfiguration_ItsViewLacksTheTablesUntilTheyAreAdded) {
  SnmpdViews stock = viewsIn(kStock);
  EXPECT_TRUE(stock.anybody);
  EXPECT_THAT(stock.without, ElementsAre("systemonly"));
  EXPECT_THAT(viewsIn(kStock + ("view systemonly included " + kTablesSubtree)).without, IsEmpty());
}

TEST(SnmpdViewsTest, SubtreesAboveAndBelow_InclusionAndExclusion) {
  auto without = [](const std::string& views) { return viewsIn(views + "\nrouser ops priv -V v").without; };
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
  EXPECT_TRUE(viewsIn("rocommunity ops 10.0.0.0/8").anybody);
  EXPECT_THAT(viewsIn("rocommunity ops 10.0.0.0/8").without, IsEmpty());
  EXPECT_FALSE(viewsIn("# rocommunity ops\nmaster agentx\n").anybody);
  EXPECT_THAT(viewsIn("access g \"\" any noauth exact v none none\n").without, ElementsAre("v"));
}

TEST(SnmpdViewsTest, Files_InTheOrderInWhichTheyAreRead) {
  Support::TempDir directory;
  directory.write("a.conf", "view systemonly included .1.3.6.1.4.1\n");
  directory.write("b.txt", "rocommunity x default -V nowhere\n");
  std::string main = directory.write("main", kStock);
  SnmpdViews views = snmpdViews(Trelsnmpd::confFiles({main, directory.path(), {}}));
  EXPECT_TRUE(views.anybody);
  EXPECT_THAT(views.without, IsEmpty());
  EXPECT_THAT(snmpdViews({directory.file("none")}).unread, HasSubstr("none: No such file"));
}

}  // namespace
}  // namespace TrelCtl
