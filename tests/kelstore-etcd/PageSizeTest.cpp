// How many keys are asked for at once, after pages that came and pages that did not; and what of a server's
// refusals counts as a page that is too large.
#include "kelstore/etcd/PageSize.h"

#include <gtest/gtest.h>

#include "kelstore/etcd/RpcMessages.h"

namespace Kelstore::Etcd {
namespace {

TEST(PageSizeTest, PageIsTooLarge_MuchSmallerThenMoreAgain_UpToHalfOfWhatFailed) {
  PageSize size(1000);
  EXPECT_TRUE(size.failed(PageFailure::tooLarge));
  EXPECT_EQ(size.keys(), 125);
  size.worked();
  EXPECT_EQ(size.keys(), 250);
  size.worked();
  size.worked();
  EXPECT_EQ(size.keys(), 500);
  for (int i = 3; i < PageSize::kRaisedAfter; ++i) size.worked();
  EXPECT_EQ(size.keys(), 1000) << "after so many in a row larger ones are tried again";
}

TEST(PageSizeTest, OneKeyIsTooLarge_ThereIsNoHope) {
  PageSize size(8);
  EXPECT_TRUE(size.failed(PageFailure::late));
  EXPECT_EQ(size.keys(), 1);
  EXPECT_FALSE(size.failed(PageFailure::tooLarge));
}

TEST(PageSizeTest, PageFailsForAnotherReason_TheSameAgain_AFewTimes) {
  PageSize size(1000);
  for (int i = 0; i < PageSize::kRepeats; ++i) EXPECT_TRUE(size.failed(PageFailure::other));
  EXPECT_EQ(size.keys(), 1000);
  EXPECT_FALSE(size.failed(PageFailure::other));
}

// A server that has too much to do refuses with the code of a page that is too large, and smaller pages would
// be more requests.
TEST(PageFailureTest, RefusalsByCodeAndText) {
  using grpc::StatusCode;
  auto of = [](StatusCode code, const char* text) { return failureOf(grpc::Status(code, text)); };
  EXPECT_EQ(of(StatusCode::RESOURCE_EXHAUSTED, "Received message larger than max (20971520 vs. 16777216)"),
            PageFailure::tooLarge);
  EXPECT_EQ(of(StatusCode::RESOURCE_EXHAUSTED, "Buffers full"), PageFailure::tooLarge);
  EXPECT_EQ(of(StatusCode::RESOURCE_EXHAUSTED, "etcdserver: too many requests"), PageFailure::other);
  EXPECT_EQ(of(StatusCode::OUT_OF_RANGE, "etcdserver: mvcc: required revision has been compacted"),
            PageFailure::noRevision);
  EXPECT_EQ(of(StatusCode::UNAVAILABLE, "etcdserver: no leader"), PageFailure::other);
}

}  // namespace
}  // namespace Kelstore::Etcd
