// The backplane interface table, whose index takes every value of 32 bits: the reply carries the row's true
// index, a walk neither loops nor skips.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Links.h"

namespace E2e {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class LinkWalk : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    daemon_ = new Daemon;
    daemon_->stateIs(documentOf(kLinks)).start();
  }
  static void TearDownTestSuite() {
    delete daemon_;
    daemon_ = nullptr;
  }
  static std::vector<Varbind> tree() { return treeOf(kLinks); }
  static const Manager& manager() { return daemon_->manager(); }

  static inline const Links kLinks = {{0, {0, 255}},          {1, {1, 2}},          {1001, {1, 3}},
                                      {2147483647, {2, 1}},   {2147483648, {2, 3}}, {2147483649, {3, 1}},
                                      {4294967294, {255, 0}}, {4294967295, {3, 2}}};
  static inline Daemon* daemon_ = nullptr;
};

TEST_F(LinkWalk, Walk_EveryRowOnceWithItsTrueIndex) {
  EXPECT_THAT(manager().walk(), StartsWith(walkOf(tree())));
}

TEST_F(LinkWalk, GetNextFromAbsentIndexes_IsTheNextGreaterRow) {
  EXPECT_EQ(manager().getNext(
                {"baif.2", "baif.2.2", "baif.2.2147483646", "baif.2.2147483650", "baif.2.4294967293"}),
            "baif.2.0 = INTEGER: 0\nbaif.2.1001 = INTEGER: 1\nbaif.2.2147483647 = INTEGER: 2\n"
            "baif.2.4294967294 = INTEGER: 255\nbaif.2.4294967294 = INTEGER: 255\n");
}

TEST_F(LinkWalk, GetNextFromOverLongIndexes_IsTheRowBehind) {
  EXPECT_EQ(manager().getNext({"baif.2.0.0", "baif.2.2147483648.7", "baif.2.4294967295.0"}),
            "baif.2.1 = INTEGER: 1\nbaif.2.2147483649 = INTEGER: 3\nbaif.3.0 = INTEGER: 255\n");
}

TEST_F(LinkWalk, GetBulkOverTheLastIndexes_GoesOnInTheNextColumn) {
  EXPECT_EQ(manager().getBulk(0, 4, {"baif.2.2147483649"}),
            "baif.2.4294967294 = INTEGER: 255\nbaif.2.4294967295 = INTEGER: 3\n"
            "baif.3.0 = INTEGER: 255\nbaif.3.1 = INTEGER: 2\n");
}

TEST_F(LinkWalk, GetOfAbsentIndexes_NoSuchInstance) {
  for (const char* name : {"baif.2.2", "baif.2.2147483650", "baif.3.4294967293", "baif.2", "baif.2.0.0"}) {
    EXPECT_THAT(manager().get({name}), HasSubstr(" = No Such Instance")) << name;
  }
}

}  // namespace
}  // namespace E2e
