// Which server is turned to, and what becomes of a call whose token is refused.
#include "kelstore/etcd/Endpoints.h"

#include <gmock/gmock.h>

#include <map>

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

TEST(EndpointsTest, EachServerHasItsShareOfTheMembers_AlsoOfThoseThatLeaveOne) {
  std::map<std::string, int> first;
  std::map<std::string, int> secondAfterA;
  for (uint64_t member = 1; member <= 255; ++member) {
    std::vector<std::string> order = inOrderOf(member, {"a:1", "b:1", "c:1"});
    ++first[order[0]];
    if (order[0] == "a:1") ++secondAfterA[order[1]];
    EXPECT_THAT(order, testing::UnorderedElementsAre("a:1", "b:1", "c:1"));
  }
  EXPECT_THAT(first, testing::ElementsAre(testing::Pair("a:1", 85), testing::Pair("b:1", 85),
                                          testing::Pair("c:1", 85)));
  EXPECT_THAT(secondAfterA, testing::ElementsAre(testing::Pair("b:1", 42), testing::Pair("c:1", 43)));
}

TEST(EndpointsTest, OneServer_OrNoNumber_TheOrderStays) {
  EXPECT_THAT(inOrderOf(7, {"a:1"}), testing::ElementsAre("a:1"));
  EXPECT_THAT(inOrderOf(0, {"a:1", "b:1", "c:1"}), testing::ElementsAre("a:1", "b:1", "c:1"));
}

TEST(EndpointsTest, TimesOfMembersAreSpreadEvenly) {
  std::map<uint64_t, int> tenths;
  for (uint64_t member = 1; member <= 250; ++member) ++tenths[shareOf(member, 60'000) / 6'000];
  ASSERT_EQ(tenths.size(), 10u);
  for (const auto& [tenth, members] : tenths) EXPECT_NEAR(members, 25, 2) << tenth;
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
