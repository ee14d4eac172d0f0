// What the publisher writes and when, while the store does what it is asked, and how it ends.
#include <gmock/gmock.h>

#include "tests/member/PublisherFixture.h"

namespace Member {
namespace {

using Runtime::kSecond;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(PublisherTest, Start_EverythingIsWrittenInOneTransactionUnderOneLease) {
  start();
  EXPECT_THAT(store_->content(),
              ElementsAre("interfaces/B1={\"ifIndex\":7}@101", "members/1/processors/1={\"load\":10}@101",
                          "members/1/processors/2={\"load\":20}@101", "topology/1/2={\"intf\":\"B1\"}@101"));
  EXPECT_THAT(store_->sizes, ElementsAre(4u));
  EXPECT_EQ(store_->ttlSeconds, 15);
  EXPECT_EQ(published_, 1);
  EXPECT_THAT(trace_.lines(),
              ElementsAre("Member/1 connected to h:1", "Member/1 lease 65 was granted, for 15 s",
                          "Member/3 writes 4 keys, the first is interfaces/B1"));
}

TEST_F(PublisherTest, InterfacesAreConfiguredAnew_TheirKeysComeAndGo_UnderTheSameLease) {
  store_->put(interface("B3"), "{\"ifIndex\":99}", LeaseStore::kNoLease);
  start();
  store_->written();
  content_.erase(interface("B1"));
  content_[interface("B3")] = Kelstore::Interface{9};
  publisher_->configured({"B3"}, 5, {});
  say();
  pass(7 * kSecond);
  EXPECT_EQ(store_->written(), "interfaces/B3; -interfaces/B1; ");
  EXPECT_EQ(leaseOf(interface("B3")), 101);
  load(11);
  pass(0);
  store_->written();
  load(12);
  pass(4999);
  EXPECT_EQ(store_->written(), "") << "the interval is another one, too";
  pass(2);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
}

TEST_F(PublisherTest, NothingIsToBeSaidYet_NothingIsDone) {
  publisher_.emplace(Publisher::Settings{1, {}, 15, 1, kRandom}, store_, io_, clock_, listener());
  pass(60 * kSecond);
  EXPECT_THAT(store_->calls, IsEmpty());
}

TEST_F(PublisherTest, Change_OnlyThatIsWritten) {
  start();
  store_->written();
  pass(5 * kSecond);
  load(11);
  pass(0);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
  content_.erase(processor("2"));
  pass(5 * kSecond);
  say();
  pass(0);
  EXPECT_EQ(store_->written(), "-members/1/processors/2; topology/1/2; ")
      << "those who follow take a revision without a put for the end of a lease";
  pass(5 * kSecond);
  say();
  pass(2 * kSecond);
  EXPECT_EQ(store_->written(), "");
  EXPECT_EQ(published_, 1);
}

TEST_F(PublisherTest, ChangesWithinAnInterval_AreOneTransactionAtItsEnd) {
  start();
  store_->written();
  for (int16_t percent = 11; percent <= 13; ++percent) {
    load(percent);
    pass(300);
    EXPECT_EQ(store_->written(), "");
  }
  content_[processor("2")] = Kelstore::Processor{30};
  say();
  pass(101);
  EXPECT_EQ(store_->written(), "members/1/processors/1; members/1/processors/2; ");
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":13}@101"));
}

TEST_F(PublisherTest, ChangeThatIsTakenBackWithinAnInterval_IsNotWritten) {
  start();
  store_->written();
  load(11);
  load(10);
  pass(5 * kSecond);
  EXPECT_EQ(store_->written(), "");
}

TEST_F(PublisherTest, ChangeWhileAWriteIsUnderWay_IsWrittenAfterIt) {
  start();
  pass(5 * kSecond);
  load(11);
  EXPECT_EQ(io_.jobs(), 1u);
  load(12);
  pass(0);
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":11}@101"));
  pass(1001);
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":12}@101"));
}

TEST_F(PublisherTest, MoreThanFitsOneTransaction_SeveralAtOnce) {
  for (int i = 3; i <= 300; ++i) content_[processor(std::to_string(i))] = Kelstore::Processor{1};
  start();
  EXPECT_THAT(store_->sizes, ElementsAre(127u, 127u, 48u));
  EXPECT_EQ(published_, 1);
}

TEST_F(PublisherTest, Lease_IsRenewedEachSecond) {
  start();
  pass(999);
  EXPECT_EQ(store_->calls["renew"], 0);
  pass(1);
  EXPECT_EQ(store_->calls["renew"], 1);
  pass(59 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 60);
}

TEST_F(PublisherTest, End_TheLeaseIsGivenBackAndNothingIsWrittenAnyMore) {
  start();
  bool ended = false;
  load(11);
  publisher_->end([&] { ended = true; });
  pass(0);
  EXPECT_TRUE(ended);
  EXPECT_THAT(store_->content(), IsEmpty());
  EXPECT_THAT(store_->leases, IsEmpty());
  EXPECT_THAT(store_->marked, ElementsAre(101)) << "the member leaves";
  load(12);
  pass(60 * kSecond);
  EXPECT_THAT(store_->content(), IsEmpty());
  EXPECT_EQ(store_->calls["grant"], 1);
}

TEST_F(PublisherTest, EndWhileAWriteIsUnderWay_TheLeaseIsGivenBackAtOnce) {
  start();
  pass(2 * kSecond);
  load(11);
  EXPECT_EQ(io_.jobs(), 1u);
  int ended = 0;
  publisher_->end([&] { ++ended; });
  EXPECT_EQ(io_.jobs(), 2u) << "it does not wait for the write";
  pass(0);
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(store_->calls["revoke"], 1);
  EXPECT_THAT(store_->leases, IsEmpty());
}

// Ends a publisher that is to leave its keys to a successor.
class HandoverTest : public PublisherTest {
 protected:
  void start() {
    Publisher::Settings settings{1, {"B1", "B2"}, 15, 1, kRandom};
    settings.handover = true;
    publisher_.emplace(settings, store_, io_, clock_, listener());
    say();
    pass(0);
  }
  void end() {
    publisher_->end([&] { ++ended_; });
    pass(0);
  }

  int ended_ = 0;
};

TEST_F(HandoverTest, End_TheLeaseIsRenewedOnceMore_AndTheKeysStay) {
  start();
  auto before = store_->content();
  end();
  EXPECT_EQ(ended_, 1);
  EXPECT_EQ(store_->calls["renew"], 1);
  EXPECT_EQ(store_->calls["revoke"], 0);
  pass(60 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 1);
  EXPECT_EQ(store_->content(), before);
  EXPECT_THAT(trace_.lines(), Contains("Member/1 lease 65 is left to a successor, for 15 s"));
}

TEST_F(HandoverTest, EndAndTheStoreFails_IsSaid) {
  start();
  store_->failing = {"all"};
  end();
  EXPECT_EQ(ended_, 1);
  EXPECT_THAT(errors(), ElementsAre("Member/0 lease 65 is not left to a successor: renew failed"));
}

TEST_F(HandoverTest, WritesDoNotWork_TheKeysGoAllTheSame) {
  start();
  store_->failing = {"write"};
  pass(20 * kSecond);
  end();
  EXPECT_EQ(ended_, 1);
  EXPECT_EQ(store_->calls["revoke"], 1);
}

TEST_F(HandoverTest, WritesDoNotWorkAndTheStoreFails_ItIsSaidThatTheKeysStay) {
  start();
  store_->failing = {"write", "revoke"};
  pass(20 * kSecond);
  end();
  EXPECT_EQ(ended_, 1);
  EXPECT_THAT(errors(), Contains("Member/0 lease 65 is not given back: revoke failed"));
}

TEST_F(PublisherTest, EndWithoutALease_IsAtOnce) {
  store_->failing = {"all"};
  start();
  bool ended = false;
  publisher_->end([&] { ended = true; });
  EXPECT_TRUE(ended);
  EXPECT_EQ(store_->calls["revoke"], 0);
}

TEST_F(PublisherTest, EndAndTheStoreFails_ItEndsAllTheSame) {
  start();
  store_->failing = {"all"};
  pass(2 * kSecond);
  load(11);
  bool ended = false;
  publisher_->end([&] { ended = true; });
  pass(0);
  EXPECT_TRUE(ended);
  EXPECT_THAT(errors(), Contains("Member/0 lease 65 is not given back: revoke failed"));
}

TEST_F(PublisherTest, EndAndTheStoreDoesNotAnswer_ItEndsSoonAllTheSame_AndSaysWhatStays) {
  start();
  store_->hanging = {"revoke"};
  int ended = 0;
  publisher_->end([&] { ++ended; });
  pass(1999);
  EXPECT_EQ(ended, 0);
  pass(1);
  EXPECT_EQ(ended, 1);
  EXPECT_THAT(errors(), ElementsAre("Member/0 lease 65 is not given back: no answer for 2 s"));
  store_->hanging.clear();
  io_.hungReturn();
  EXPECT_EQ(ended, 1);
}

TEST_F(PublisherTest, EndIsAskedForTwice_ItTakesNoLongerAndTheLeaseIsGivenBackOnce) {
  start();
  store_->hanging = {"revoke"};
  int ended = 0;
  publisher_->end([&] { ++ended; });
  pass(1900);
  publisher_->end([&] { ++ended; });
  pass(100);
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(store_->calls["revoke"], 1);
}

TEST_F(PublisherTest, EndWhileALeaseIsAskedFor_ItEndsSoonAllTheSame) {
  store_->hanging = {"grant"};
  start();
  int ended = 0;
  publisher_->end([&] { ++ended; });
  pass(2000);
  EXPECT_EQ(ended, 1);
  EXPECT_THAT(errors(), IsEmpty()) << "nothing is there to be given back";
}

TEST_F(PublisherTest, GoneWhileACallIsUnderWay_ItsAnswerHarmsNothing) {
  start();
  pass(2 * kSecond);
  load(11);
  publisher_.reset();
  store_->calls.clear();
  pass(60 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 0);
}

}  // namespace
}  // namespace Member
