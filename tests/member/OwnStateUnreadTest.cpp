// What a member says of collectors that do not work.
#include <gmock/gmock.h>

#include <set>

#include "member/Publisher.h"
#include "tests/member/ManualStore.h"
#include "tests/member/OwnStateFixture.h"

namespace Member {
namespace {

using testing::Contains;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

class OwnStateUnreadTest : public OwnStateTest {};

TEST_F(OwnStateUnreadTest, CollectorFailsOrHangs_IsUnreadUntilItWorks_WhatWasReadStays) {
  start();
  io_.advance(2000);
  EXPECT_THAT(entries(), Not(Contains(StartsWith("members/1/unread"))));
  machine_->userCount = absl::UnknownError("/run/utmp: Permission denied");
  machine_->hanging = {"memory"};
  io_.advance(8000);
  EXPECT_THAT(
      entries(),
      IsSupersetOf(
          {R"(members/1/unread/memory {"error":"no answer for 3 s","since":1006.0,"state":"hangs"})",
           R"(members/1/unread/users {"error":"/run/utmp: Permission denied","since":1006.0,"state":"fails"})",
           R"(members/1/memory {"available":5000,"free":3000,"nonBuffer":7500,"nonCache":6500,"total":8000})"}));
  machine_->userCount = 3u;
  machine_->hanging.clear();
  io_.hungReturn();
  io_.advance(20000);
  EXPECT_THAT(entries(), Contains(StartsWith("members/1/unread"))) << "it may begin again";
  io_.advance(20000);
  EXPECT_THAT(entries(), Not(Contains(StartsWith("members/1/unread"))));
}

// Each change is an event for all who follow the store.
TEST_F(OwnStateUnreadTest, CollectorFailsAndWorksByTurns_WhatIsSaidOfItStays) {
  start();
  std::set<std::string> said;
  for (int look = 0; look < 100; ++look) {
    machine_->userCount = look % 2 == 0 ? absl::StatusOr<uint32_t>(absl::UnknownError("gone")) : 3u;
    io_.advance(5000);
    bool there = look == 0;
    for (const std::string& entry : entries()) {
      if (!entry.starts_with("members/1/unread")) continue;
      said.insert(entry);
      there = true;
    }
    EXPECT_TRUE(there) << look;
  }
  EXPECT_EQ(said.size(), 1u);
}

// Figures would look younger than they are.
TEST_F(OwnStateUnreadTest, CollectorHangsThenFails_SinceIsTheFirst) {
  start();
  machine_->hanging = {"users"};
  io_.advance(5000);
  EXPECT_THAT(
      entries(),
      Contains(R"(members/1/unread/users {"error":"no answer for 3 s","since":1001.0,"state":"hangs"})"));
  machine_->hanging.clear();
  machine_->userCount = absl::UnknownError("gone");
  io_.hungReturn();
  io_.advance(40000);
  EXPECT_THAT(entries(),
              Contains(R"(members/1/unread/users {"error":"gone","since":1001.0,"state":"fails"})"));
}

TEST_F(OwnStateUnreadTest, ErrorThatTheStateCannotHold_IsEscapedAndCut) {
  machine_->userCount = absl::UnknownError("\x1b\xff" + std::string(300, 'x'));
  start();
  EXPECT_THAT(entries(), Contains("members/1/unread/users {\"error\":\"\\\\x1b\\\\xff" +
                                  std::string(244, 'x') + "...\",\"since\":1000.0,\"state\":\"fails\"}"));
}

TEST_F(OwnStateUnreadTest, CollectorFailsAndWorksAgain_ItsKeyIsWrittenAndDeleted) {
  auto store = std::make_shared<ManualStore>();
  Publisher publisher({1, {}, 15, 1, [] { return 0.5; }}, store, io_, clock_, {[] {}, [](const auto&) {}});
  const Kelstore::Path users{Kelstore::Kind::unread, "1", "users"};
  machine_->userCount = absl::UnknownError("gone");
  start();
  auto publish = [&](uint64_t milliseconds) {
    io_.advance(milliseconds);
    publisher.contentIs(state_.entries());
    io_.advance(2000);
  };
  publish(0);
  ASSERT_TRUE(store->keys.contains(users));
  EXPECT_EQ(store->keys[users].text, R"({"error":"gone","since":1000.0,"state":"fails"})");
  EXPECT_NE(store->keys[users].lease, LeaseStore::kNoLease);
  machine_->userCount = 3u;
  publish(40000);
  EXPECT_FALSE(store->keys.contains(users));
  EXPECT_TRUE(store->keys.contains({Kelstore::Kind::figures, "1", ""}));
}

}  // namespace
}  // namespace Member
