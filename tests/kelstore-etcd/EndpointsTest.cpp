// Which server is turned to, and what becomes of a call whose token is refused.
#include "kelstore/etcd/Endpoints.h"

#include <gtest/gtest.h>

#include "kelstore/etcd/Channels.h"

namespace Kelstore::Etcd {
namespace {

TEST(EndpointsTest, TheyAreTurnedToInTurn_UnlessOneIsPreferred) {
  Endpoints endpoints({"a:1", "b:1", "c:1"});
  EXPECT_EQ(endpoints.current(), "a:1");
  endpoints.next();
  EXPECT_EQ(endpoints.current(), "b:1");
  EXPECT_FALSE(endpoints.prefer("b:1"));
  EXPECT_FALSE(endpoints.prefer("d:1"));
  EXPECT_EQ(endpoints.current(), "b:1");
  EXPECT_TRUE(endpoints.prefer("c:1"));
  EXPECT_EQ(endpoints.current(), "c:1");
  endpoints.next();
  EXPECT_EQ(endpoints.current(), "a:1");
}

TEST(TokenRenewalTest, RefusedTokensAreRenewedOnce_UntilACallSucceeds) {
  const Access access{.credentialsFile = "user.json"};
  const grpc::Status refused(grpc::StatusCode::UNAUTHENTICATED, "etcdserver: invalid auth token");
  const grpc::Status old(grpc::StatusCode::INVALID_ARGUMENT, "etcdserver: revision of auth store is old");
  const grpc::Status other(grpc::StatusCode::UNAVAILABLE, "etcdserver: no leader");
  TokenRenewal renewal;
  EXPECT_FALSE(renewal.dueAfter(access, other));
  EXPECT_TRUE(renewal.dueAfter(access, refused));
  EXPECT_FALSE(renewal.dueAfter(access, refused));
  EXPECT_FALSE(renewal.dueAfter(access, other));
  EXPECT_FALSE(renewal.dueAfter(access, old));
  EXPECT_FALSE(renewal.dueAfter(access, grpc::Status::OK));
  EXPECT_TRUE(renewal.dueAfter(access, old));
}

TEST(TokenRenewalTest, NobodyIsAskedWhoTheyAre_NothingIsRenewed) {
  EXPECT_FALSE(TokenRenewal().dueAfter({}, {grpc::StatusCode::UNAUTHENTICATED, "invalid auth token"}));
}

}  // namespace
}  // namespace Kelstore::Etcd
