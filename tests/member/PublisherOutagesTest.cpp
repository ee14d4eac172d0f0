// What the publisher does when its lease goes, and when the store is out of reach, fails or does not answer.
#include <gmock/gmock.h>

#include "tests/member/PublisherFixture.h"

namespace Member {
namespace {

using Runtime::kSecond;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(PublisherTest, WriteThatIsNotAnswered_HoldsUpNoRenewal) {
  start();
  store_->hanging = {"write"};
  load(11);
  pass(15 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 15);
}

TEST_F(PublisherTest, LeaseIsFoundGoneAtRenewal_AllIsWrittenAnewUnderAnother_WithinASecond) {
  start();
  int listings = store_->calls["list"];
  store_->expire(101);
  EXPECT_THAT(store_->content(), IsEmpty());
  pass(1 * kSecond);
  EXPECT_EQ(store_->calls["list"], listings) << "the store was read first";
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_EQ(leaseOf(kLink), 102);
  EXPECT_THAT(errors(),
              ElementsAre("Member/0 lease 65 is gone: everything is written anew, under another one"));
  EXPECT_EQ(published_, 1);
  pass(5 * kSecond);
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{102});
}

// As after a restore from a copy, or by somebody else's publisher.
TEST_F(PublisherTest, LeaseIsGone_ButAKeyIsThere_NothingIsOverwrittenBeforeTheStoreIsRead) {
  for (const auto& path : {kLink, processor("1"), processor("2"), interface("B1")}) {
    store_ = std::make_shared<ManualStore>();
    start();
    pass(2 * kSecond);
    store_->written();
    store_->expire(101);
    store_->put(path, "theirs", kOther);
    store_->hanging = {"list"};
    pass(3 * kSecond);
    EXPECT_EQ(store_->written(), "refused; ");
    EXPECT_EQ(store_->keys[path].text, "theirs");
    publisher_.reset();
  }
}

TEST_F(PublisherTest, LeaseEndsInAnOutage_AllIsPutBackWithoutReading_WhenALeaseIsGranted) {
  start();
  int listings = store_->calls["list"];
  store_->expire(101);
  store_->failing = {"grant"};
  pass(20 * kSecond);
  EXPECT_GT(store_->calls["grant"], 2);
  store_->failing.clear();
  pass(6 * kSecond);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_EQ(store_->calls["list"], listings);
}

TEST_F(PublisherTest, LeaseIsGone_MoreKeysThanFitOneTransaction_AreAllPutBack) {
  for (int i = 3; i <= 300; ++i) content_[processor(std::to_string(i))] = Kelstore::Processor{1};
  start();
  store_->expire(101);
  pass(1 * kSecond);
  EXPECT_EQ(store_->content().size(), 302u);
}

TEST_F(PublisherTest, LeaseIsGone_AnothersInterfaceIsStillLeftAlone) {
  store_->put(interface("B1"), "theirs", kOther);
  start();
  store_->expire(101);
  store_->written();
  pass(1 * kSecond);
  EXPECT_EQ(store_->keys[interface("B1")].text, "theirs");
  EXPECT_EQ(store_->written(), "topology/1/2; members/1/processors/1; members/1/processors/2; ");
}

TEST_F(PublisherTest, LeaseIsFoundGoneAtAWrite_AllIsWrittenAnewAtOnce) {
  start();
  pass(2 * kSecond);
  store_->expire(101);
  load(11);
  pass(0);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_EQ(leaseOf(processor("1")), 102);
}

TEST_F(PublisherTest, RenewalOfALeaseThatIsGoneIsAnsweredLate_TheNextLeaseStays) {
  start();
  store_->hanging = {"renew"};
  pass(5 * kSecond);
  store_->expire(101);
  load(11);
  pass(0);
  ASSERT_EQ(leaseOf(kLink), 102);
  store_->hanging.clear();
  io_.hungReturn();
  pass(60 * kSecond);
  EXPECT_EQ(leaseOf(kLink), 102);
  EXPECT_EQ(store_->calls["grant"], 2);
  EXPECT_EQ(errors().size(), 1u);
}

TEST_F(PublisherTest, LeaseGoesWhileAListingIsUnderWay_TheListingDoesNotCount) {
  start();
  pass(4 * kSecond);
  store_->failing = {"write"};
  load(11);
  pass(0);
  store_->failing.clear();
  // The listing is asked for, but answered only after the renewal that finds the lease gone.
  store_->hanging = {"list"};
  pass(300);
  store_->hanging.clear();
  store_->expire(101);
  store_->put(kLink, "x", 101);
  store_->leases.erase(101);
  pass(1 * kSecond);
  EXPECT_THAT(errors(), Contains(HasSubstr("lease 65 is gone")));
  io_.hungReturn();
  pass(2 * kSecond);
  EXPECT_EQ(leaseOf(kLink), 102);
  EXPECT_THAT(errors(), testing::Not(Contains(HasSubstr("on standby"))));
}

TEST_F(PublisherTest, StoreIsUnreachableAtTheStart_TriedWithGrowingDelays) {
  store_->failing = {"all"};
  start();
  EXPECT_EQ(store_->calls["grant"], 1);
  pass(2 * kSecond);
  int soon = store_->calls["grant"];
  EXPECT_GE(soon, 4);  // at the latest after 250, 500 and 1000 ms
  pass(60 * kSecond);
  int later = store_->calls["grant"];
  EXPECT_GE(later - soon, 12);  // 5 s at most
  EXPECT_LE(later - soon, 26);  // half of that at least
  EXPECT_EQ(published_, 0);
  EXPECT_THAT(errors(),
              ElementsAre("Member/0 the store cannot be used: grant failed; it is tried again and again"));
  store_->failing.clear();
  pass(5 * kSecond);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_THAT(trace_.lines(), Contains(HasSubstr("Member/1 the store works again, after 6")));
}

// It went on saying why the store could not be used at first.
TEST_F(PublisherTest, StoreFailsForAnotherReason_TheStatusShowsThePresentOne_AndEachIsLoggedOnce) {
  auto fails = [this](absl::StatusCode code, const std::string& text) {
    store_->failWith = absl::Status(code, text);
    pass(10 * kSecond);
  };
  store_->failing = {"all"};
  store_->failWith = absl::UnavailableError("refused");
  start();
  for (int times = 0; times < 2; ++times) {
    fails(absl::StatusCode::kUnavailable, "refused");
    EXPECT_EQ(statuses_.back(), "the store cannot be used: refused");
    fails(absl::StatusCode::kPermissionDenied, "not allowed");
    EXPECT_EQ(statuses_.back(), "the store cannot be used: not allowed");
  }
  EXPECT_THAT(errors(),
              ElementsAre("Member/0 the store cannot be used: refused; it is tried again and again",
                          "Member/0 the store cannot be used: not allowed; it is tried again and again"));
  // A store that is used again begins anew.
  store_->failing.clear();
  pass(10 * kSecond);
  store_->failing = {"all"};
  load(99);
  pass(1 * kSecond);
  EXPECT_THAT(errors(), SizeIs(3));
}

// A text that is another one each time must not fill the log.
TEST_F(PublisherTest, StoreFailsForEverNewReasons_TheLogIsBounded) {
  store_->failing = {"all"};
  store_->failWith = absl::UnavailableError("0");
  start();
  for (int i = 0; i < 100; ++i) {
    store_->failWith = absl::UnavailableError(fmt::format("reason {}", i));
    pass(5 * kSecond);
    EXPECT_EQ(statuses_.back(), fmt::format("the store cannot be used: reason {}", i));
  }
  EXPECT_THAT(errors(), SizeIs(Publisher::kCausesTold));
}

TEST_F(PublisherTest, StoreWorksAndFailsAgain_DelaysBeginSmallAgain) {
  store_->failing = {"all"};
  start();
  pass(60 * kSecond);
  store_->failing.clear();
  pass(5 * kSecond);
  store_->failing = {"write", "list"};
  store_->calls.clear();
  load(11);
  pass(2 * kSecond);
  EXPECT_GE(store_->calls["write"] + store_->calls["list"], 3) << "of a delay that stayed long, one";
  EXPECT_THAT(errors(),
              ElementsAre(HasSubstr("grant failed"), HasSubstr("write failed"), HasSubstr("list failed")));
}

TEST_F(PublisherTest, StoreIsBack_OnlyTheDifferenceIsWritten) {
  start();
  store_->written();
  store_->failing = {"all"};
  pass(5 * kSecond);
  load(11);
  pass(3 * kSecond);
  load(12);
  pass(3 * kSecond);
  store_->failing.clear();
  pass(6 * kSecond);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":12}@101"));
}

// It used to wait for an interval that had begun with the write that failed.
TEST_F(PublisherTest, StoreIsBack_WhatDiffersIsWritten_HoweverLongTheIntervalIs) {
  start();
  pass(2 * kSecond);
  publisher_->configured({}, 3600, {});
  store_->failing = {"write"};
  load(11);
  pass(5 * kSecond);
  store_->failing.clear();
  pass(6 * kSecond);
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":11}@101"));
}

TEST_F(PublisherTest, WriteWasCarriedOutButNotAnswered_IsNotWrittenTwice) {
  start();
  store_->written();
  pass(2 * kSecond);
  store_->answerInstead = absl::UnknownError("no answer");
  load(11);
  pass(0);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
  store_->answerInstead.reset();
  pass(5 * kSecond);
  EXPECT_EQ(store_->written(), "");
  EXPECT_THAT(trace_.lines(), Contains(HasSubstr("the store works again")));
}

// The answer is lost, and the repetition finds the keys that the preconditions stand on changed by the first
// time.
TEST_F(PublisherTest, WriteWasCarriedOutAndItsRepetitionRefused_ItIsSeenThatAllIsWritten) {
  using Leases = std::set<LeaseStore::Lease>;
  store_->answerInstead = absl::AbortedError("precondition");
  store_->put(processor("9"), "left behind", kOther);
  start();
  EXPECT_EQ(published_, 1);
  EXPECT_EQ(store_->written(),
            "-members/1/processors/9; interfaces/B1; topology/1/2; members/1/processors/1; "
            "members/1/processors/2; ");
  pass(2 * kSecond);
  load(11);
  pass(5 * kSecond);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
  EXPECT_EQ(store_->calls["write"], 2);
  EXPECT_THAT(store_->content(),
              ElementsAre("interfaces/B1={\"ifIndex\":7}@101", "members/1/processors/1={\"load\":11}@101",
                          "members/1/processors/2={\"load\":20}@101", "topology/1/2={\"intf\":\"B1\"}@101"));
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_EQ(store_->leases, (Leases{kOther, 101})) << "it is on standby";
  store_->answerInstead.reset();
  load(12);
  pass(2 * kSecond);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
}

TEST_F(PublisherTest, StoreCanBeReadButNotWritten_IsOneErrorAndTriedWithGrowingDelays) {
  store_->failing = {"write"};
  start();
  pass(62 * kSecond);
  EXPECT_THAT(errors(),
              ElementsAre(HasSubstr("cannot be used: write failed"), HasSubstr("is not renewed any more")));
  EXPECT_LE(store_->calls["write"], 32);
}

TEST_F(PublisherTest, RenewalFails_IsTriedSoonerAndTold) {
  start();
  store_->failing = {"renew"};
  pass(5 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 5);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("renew failed")));
  store_->failing.clear();
  pass(1 * kSecond);
  EXPECT_THAT(trace_.lines(), Contains("Member/1 the store works again, after 5.0 s"));
}

}  // namespace
}  // namespace Member
