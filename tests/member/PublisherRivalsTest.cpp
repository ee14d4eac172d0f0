// What the publisher does about keys that are not its own: it takes over from a predecessor, leaves others
// alone, is on standby while another publishes for the same member, and puts right what was changed by hand.
#include <gmock/gmock.h>

#include "tests/member/PublisherFixture.h"

namespace Member {
namespace {

using Kelstore::Kind;
using Kelstore::Path;
using Runtime::kSecond;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(PublisherTest, PredecessorsKeys_AreTakenOverAndItsOthersDeleted) {
  store_->put(kLink, R"({"intf":"B1"})", kOther);
  store_->put(processor("1"), R"({"load":99})", kOther);
  store_->put(processor("9"), R"({"load":99})", kOther);
  store_->put(interface("B1"), R"({"ifIndex":7})", kOther);
  store_->put(interface("B2"), R"({"ifIndex":8})", kOther);
  start();
  EXPECT_THAT(store_->content(),
              ElementsAre("interfaces/B1={\"ifIndex\":7}@101", "members/1/processors/1={\"load\":10}@101",
                          "members/1/processors/2={\"load\":20}@101", "topology/1/2={\"intf\":\"B1\"}@101"));
  EXPECT_THAT(trace_.lines(), Contains("Member/1 takes over the keys of an earlier publisher, lease 7"));
  EXPECT_THAT(errors(), IsEmpty());
  store_->expire(kOther);
  EXPECT_EQ(store_->content().size(), 4u);
}

TEST_F(PublisherTest, PredecessorsKeys_AreToldBeforeTheFirstWrite_Once) {
  store_->put(processor("1"), R"({"load":99})", kOther);
  std::vector<LeaseStore::Holdings> told;
  Publisher::Listener listening = listener();
  listening.earlierIs = [&](const LeaseStore::Holdings& holdings) {
    told.push_back(holdings);
    load(99);
  };
  publisher_.emplace(Publisher::Settings{1, {"B1", "B2"}, 15, 1, kRandom}, store_, io_, clock_, listening);
  say();
  pass(0);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].at(processor("1")).text, R"({"load":99})");
  EXPECT_THAT(store_->content(), Contains(R"(members/1/processors/1={"load":99}@101)"));
  EXPECT_EQ(store_->calls["write"], 1);
  store_->expire(101);
  pass(40 * kSecond);
  EXPECT_EQ(told.size(), 1u);
}

TEST_F(PublisherTest, KeysWithoutALease_AreTakenOver) {
  store_->put(processor("1"), R"({"load":10})", LeaseStore::kNoLease);
  store_->put(processor("9"), R"({"load":10})", LeaseStore::kNoLease);
  store_->put(interface("B1"), R"({"ifIndex":9})", LeaseStore::kNoLease);
  start();
  EXPECT_EQ(leaseOf(processor("1")), 101);
  EXPECT_EQ(leaseOf(interface("B1")), 101);
  EXPECT_EQ(leaseOf(processor("9")), -1);
}

TEST_F(PublisherTest, OtherMembersKeys_AreNeverTouched) {
  std::vector<Path> others = {processor("1", "2"),
                              {Kind::link, "2", "1"},
                              {Kind::reachability, "2", "1"},
                              interface("Other"),
                              {Kind::sysname, "", ""}};
  for (const Path& path : others) store_->put(path, "x", kOther);
  start();
  pass(60 * kSecond);
  publisher_->end([] {});
  pass(0);
  for (const Path& path : others) {
    ASSERT_EQ(leaseOf(path), kOther) << path.text();
    EXPECT_EQ(store_->keys[path].text, "x");
  }
  EXPECT_EQ(store_->keys.size(), others.size());
}

TEST_F(PublisherTest, InterfaceUnderAnothersLease_IsLeftAloneUntilThatIsGone) {
  store_->put(interface("B1"), "theirs", kOther);
  start();
  EXPECT_EQ(store_->keys[interface("B1")].text, "theirs");
  EXPECT_EQ(store_->content().size(), 4u) << "everything else is published";
  EXPECT_EQ(published_, 1);
  EXPECT_THAT(errors(), ElementsAre("Member/0 interfaces/B1 is published by somebody else, under lease 7: it "
                                    "is left alone"));
  for (int16_t percent = 0; percent < 40; ++percent) {
    load(percent);
    pass(1 * kSecond);
  }
  EXPECT_EQ(store_->keys[interface("B1")].text, "theirs");
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":39}@101"));
  EXPECT_EQ(errors().size(), 1u);
  store_->expire(kOther);
  pass(16 * kSecond);
  EXPECT_EQ(leaseOf(interface("B1")), 101);
}

TEST_F(PublisherTest, InterfaceIsTakenByAnotherBetweenLookAndWrite_TheTransactionFails) {
  store_->beforeWrite = [this] { store_->put(interface("B1"), "theirs", kOther); };
  start();
  EXPECT_THAT(store_->written(), testing::StartsWith("refused; "));
  pass(2 * kSecond);
  EXPECT_EQ(store_->keys[interface("B1")].text, "theirs");
  EXPECT_EQ(leaseOf(kLink), 101);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("interfaces/B1 is published by somebody else")));
}

TEST_F(PublisherTest, InterfaceVanishes_ItsKeyGoes_AnothersDoesNot) {
  store_->put(interface("B2"), "theirs", kOther);
  start();
  content_.erase(interface("B1"));
  pass(2 * kSecond);
  say();
  pass(0);
  EXPECT_EQ(leaseOf(interface("B1")), -1);
  EXPECT_EQ(leaseOf(interface("B2")), kOther);
}

TEST_F(PublisherTest, AnotherPublisherOfThisMember_ThisOneStandsByUntilItIsGone) {
  start();
  pass(2 * kSecond);
  // The other one takes over, as this one would.
  for (const Path& path : {kLink, processor("1"), processor("2"), interface("B1")}) {
    store_->put(path, "theirs", kOther);
  }
  store_->written();
  load(11);
  pass(0);
  EXPECT_EQ(store_->written(), "refused; ");
  EXPECT_THAT(errors(),
              ElementsAre("Member/0 member 1 is published by somebody else too, under lease 7: this "
                          "one is on standby until the other's keys are gone"));
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{kOther}) << "its own lease is revoked";
  EXPECT_THAT(store_->marked, IsEmpty()) << "the member is there as before";
  for (int16_t percent = 0; percent < 40; ++percent) {
    load(percent);
    pass(1 * kSecond);
  }
  EXPECT_EQ(store_->written(), "");
  EXPECT_EQ(store_->keys.size(), 4u);
  store_->expire(kOther);
  pass(15 * kSecond);
  EXPECT_EQ(leaseOf(kLink), 102);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_THAT(trace_.lines(), Contains("Member/1 the other publisher of member 1 is gone"));
  EXPECT_EQ(errors().size(), 1u);
}

// As it is after another publisher of the member took over.
class StandingByTest : public PublisherTest {
 protected:
  void standBy() {
    using Leases = std::set<LeaseStore::Lease>;
    for (const Path& path : {kLink, processor("1"), processor("2"), interface("B1")}) {
      store_->put(path, "theirs", kOther);
    }
    load(11);
    pass(2 * kSecond);
    ASSERT_EQ(store_->leases, Leases{kOther}) << "its own was not given back";
  }
};

TEST_F(StandingByTest, StoreIsAwayTwice_EachOutageIsToldAndTriedWithDelaysThatBeginSmall) {
  start();
  pass(2 * kSecond);
  standBy();
  for (size_t outage = 1; outage <= 2; ++outage) {
    store_->failing = {"all"};
    pass(60 * kSecond);
    EXPECT_EQ(errors().size(), 1 + outage) << "one more than that it is on standby";
    store_->failing.clear();
    pass(6 * kSecond);
    EXPECT_THAT(trace_.lines(), Contains(HasSubstr("the store works again")).Times(outage));
  }
  store_->failing = {"all"};
  store_->calls.clear();
  for (int i = 0; i < 20 && store_->calls["list"] == 0; ++i) pass(1 * kSecond);
  pass(2 * kSecond);
  EXPECT_GE(store_->calls["list"], 3) << "of a delay that stayed long, one";
}

TEST_F(StandingByTest, RenewalsFailedBefore_TheStoreWorksSinceNoneIsMade) {
  start();
  store_->failing = {"renew"};
  pass(6 * kSecond);
  ASSERT_THAT(errors(), ElementsAre(HasSubstr("renew failed")));
  standBy();
  EXPECT_THAT(trace_.lines(), Contains(HasSubstr("the store works again")).Times(1));
  store_->failing = {"all"};
  pass(20 * kSecond);
  EXPECT_EQ(errors().size(), 3u) << "a later outage is told";
}

TEST_F(StandingByTest, EndsWhileTheStoreIsBeingRead_IsOverWithTheAnswer) {
  start();
  pass(2 * kSecond);
  standBy();
  store_->hanging = {"list"};
  pass(15 * kSecond);
  int ended = 0;
  publisher_->end([&] { ++ended; });
  pass(0);
  ASSERT_EQ(ended, 0) << "nothing is being read";
  store_->hanging.clear();
  io_.hungReturn();
  EXPECT_EQ(ended, 1);
  pass(60 * kSecond);
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(store_->keys.size(), 4u) << "the other's";
}

TEST_F(PublisherTest, TwoPublishersOfOneMember_TheLaterOneGoesOn) {
  start();
  pass(3 * kSecond);
  Publisher later({1, {"B1", "B2"}, 15, 1}, store_, io_, clock_, listener());
  std::vector<Kelstore::Snapshot::Entry> entries(content_.begin(), content_.end());
  later.contentIs(entries);
  pass(0);
  EXPECT_EQ(leaseOf(kLink), 102);
  for (int16_t percent = 0; percent < 60; ++percent) {
    load(percent);
    pass(1 * kSecond);
  }
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{102});
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_THAT(store_->content(), Contains("members/1/processors/1={\"load\":10}@102"));
  later.end([] {});
  pass(30 * kSecond);
  EXPECT_EQ(leaseOf(kLink), 103) << "the earlier one goes on when the later one has ended";
  EXPECT_EQ(store_->content().size(), 4u);
}

// The first transaction of the later one left out the key that the earlier one's next one compares: both
// published until the store was read again.
TEST_F(PublisherTest, PredecessorWritesWhileASuccessorTakesOverManyKeys_ItIsRefusedAndStandsBy) {
  content_.clear();
  content_[kLink] = Kelstore::Link{Lanix::IntfId("B1")};
  for (int i = 1; i <= 300; ++i) content_[processor(std::to_string(i))] = Kelstore::Processor{10};
  start();
  ASSERT_EQ(store_->keys.size(), 301u);
  Publisher later({1, {"B1", "B2"}, 15, 1, kRandom}, store_, io_, clock_, listener());
  pass(2 * kSecond);
  // The earlier one finds a change, which arrives between two transactions.
  store_->beforeWrite = [this] { load(11); };
  later.contentIs({content_.begin(), content_.end()});
  pass(0);
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{102});
  pass(1 * kSecond);
  EXPECT_EQ(otherLeases(store_->keys, LeaseStore::kNoLease), std::set<LeaseStore::Lease>{102});
  EXPECT_EQ(store_->keys.size(), 301u);
}

// What nobody else guards, and what never changes again by itself.
TEST_F(PublisherTest, KeysAreWrittenOrDeletedByHand_ArePutRightAfterAWhile) {
  start();
  pass(2 * kSecond);
  store_->keys.erase(processor("2"));
  store_->keys[processor("1")] = {"{\"load\":99}", LeaseStore::kNoLease, 500};
  pass(Publisher::kLookAgainSeconds * kSecond);
  EXPECT_EQ(leaseOf(processor("1")), leaseOf(kLink)) << "it would outlive the member";
  EXPECT_EQ(leaseOf(processor("2")), leaseOf(kLink));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(PublisherTest, StoreIsRestoredFromACopy_EverythingIsLookedAtAgain) {
  start();
  pass(2 * kSecond);
  load(11);
  pass(2 * kSecond);
  auto copy = store_->keys;
  int64_t revision = store_->revision;
  load(12);
  content_.erase(processor("2"));
  say();
  pass(2 * kSecond);
  store_->keys = copy;
  store_->revision = revision;
  load(13);
  pass(2 * kSecond);
  EXPECT_EQ(leaseOf(processor("2")), -1) << "it was deleted after the copy was made";
  EXPECT_THAT(store_->content(), Contains(testing::HasSubstr("members/1/processors/1={\"load\":13}")));
}

TEST_F(PublisherTest, KeyIsDeletedByHand_ComesBackWithTheNextChange) {
  start();
  pass(2 * kSecond);
  store_->keys.erase(kLink);
  store_->keys.erase(processor("2"));
  load(11);
  pass(2 * kSecond);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_THAT(errors(), IsEmpty());
}

}  // namespace
}  // namespace Member
