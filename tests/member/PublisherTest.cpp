// What the publisher writes, under which lease, and what it does when the store, or somebody else, is in the
// way. Time and the store's answers are driven by hand.
#include "Publisher.h"

#include <gmock/gmock.h>

#include "ManualStore.h"
#include "support/TraceLog.h"

namespace Member {
namespace {

using Kelstore::Kind;
using Kelstore::Path;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kSecond = 1000;

Path processor(const std::string& index, const std::string& member = "1") {
  return {Kind::processor, member, index};
}
Path interface(const std::string& name) { return {Kind::interface, name, ""}; }
const Path kLink{Kind::link, "1", "2"};

// Of somebody else's lease.
constexpr LeaseStore::Lease kOther = 7;

class PublisherTest : public testing::Test {
 protected:
  void start() {
    publisher_.emplace(Publisher::Settings{1, {"B1", "B2"}, 15, 1}, store_, io_, clock_,
                       [this] { ++published_; });
    say();
    pass(0);
  }
  // What is to be said, as it stands in content_.
  void say() {
    std::vector<Kelstore::Snapshot::Entry> entries(content_.begin(), content_.end());
    publisher_->contentIs(entries);
  }
  void load(int16_t percent) {
    content_[processor("1")] = Kelstore::Processor{percent};
    say();
  }
  void pass(uint64_t milliseconds) { io_.advance(milliseconds); }
  std::vector<std::string> errors() const {
    std::vector<std::string> all;
    for (const std::string& line : trace_.lines()) {
      if (line.starts_with("Member/0")) all.push_back(line);
    }
    return all;
  }
  LeaseStore::Lease leaseOf(const Path& path) const {
    auto held = store_->keys.find(path);
    return held == store_->keys.end() ? -1 : held->second.lease;
  }

  Zavro::ManualClock clock_{1'000'000'000'000};
  Kelstore::ManualIo io_{clock_};
  std::shared_ptr<ManualStore> store_ = std::make_shared<ManualStore>();
  std::map<Path, Kelstore::Value> content_ = {
      {interface("B1"), Kelstore::Interface{7}},          {kLink, Kelstore::Link{Lanix::IntfId("B1")}},
      {{Kind::processors, "1", ""}, Kelstore::Present()}, {processor("1"), Kelstore::Processor{10}},
      {processor("2"), Kelstore::Processor{20}},
  };
  int published_ = 0;
  std::optional<Publisher> publisher_;
  TraceLog trace_{{"Member"}};
};

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

TEST_F(PublisherTest, NothingIsToBeSaidYet_NothingIsDone) {
  publisher_.emplace(Publisher::Settings{1, {}, 15, 1}, store_, io_, clock_, [] {});
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
  EXPECT_EQ(store_->written(), "-members/1/processors/2; ");
  pass(5 * kSecond);
  say();
  pass(60 * kSecond);
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

TEST_F(PublisherTest, Lease_IsRenewedThreeTimesInItsTime) {
  start();
  pass(4999);
  EXPECT_EQ(store_->calls["renew"], 0);
  pass(1);
  EXPECT_EQ(store_->calls["renew"], 1);
  pass(55 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 12);
}

TEST_F(PublisherTest, WriteThatIsNotAnswered_HoldsUpNoRenewal) {
  start();
  store_->hanging = {"write"};
  load(11);
  pass(60 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 12);
}

TEST_F(PublisherTest, LeaseIsFoundGoneAtRenewal_AllIsWrittenAnewUnderAnother) {
  start();
  store_->expire(101);
  EXPECT_THAT(store_->content(), IsEmpty());
  pass(5 * kSecond);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_EQ(leaseOf(kLink), 102);
  EXPECT_THAT(errors(),
              ElementsAre("Member/0 lease 65 is gone: everything is written anew, under another one"));
  EXPECT_EQ(published_, 1);
  pass(5 * kSecond);
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{102});
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
  EXPECT_THAT(errors(), testing::Not(Contains(HasSubstr("stands by"))));
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
  EXPECT_EQ(errors().size(), 2u);
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

TEST_F(PublisherTest, WriteWasCarriedOutButNotAnswered_IsNotWrittenTwice) {
  start();
  store_->written();
  pass(2 * kSecond);
  store_->failAfterWriting = true;
  load(11);
  pass(0);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
  store_->failAfterWriting = false;
  pass(10 * kSecond);
  EXPECT_EQ(store_->written(), "");
  EXPECT_THAT(trace_.lines(), Contains(HasSubstr("the store works again")));
}

TEST_F(PublisherTest, StoreCanBeReadButNotWritten_IsOneErrorAndTriedWithGrowingDelays) {
  store_->failing = {"write"};
  start();
  pass(62 * kSecond);
  EXPECT_EQ(errors().size(), 1u);
  EXPECT_LE(store_->calls["write"], 32);
}

TEST_F(PublisherTest, RenewalFails_IsTriedSoonerAndTold) {
  start();
  store_->failing = {"renew"};
  pass(9 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 5);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("renew failed")));
  store_->failing.clear();
  pass(1 * kSecond);
  EXPECT_THAT(trace_.lines(), Contains("Member/1 the store works again, after 5.0 s"));
  pass(50 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 16);
}

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
                          "one stands by until the other's keys are gone"));
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{kOther}) << "its own lease is given back";
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

TEST_F(PublisherTest, TwoPublishersOfOneMember_TheLaterOneGoesOn) {
  start();
  pass(3 * kSecond);
  Publisher later({1, {"B1", "B2"}, 15, 1}, store_, io_, clock_, [] {});
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

TEST_F(PublisherTest, End_TheLeaseIsGivenBackAndNothingIsWrittenAnyMore) {
  start();
  bool ended = false;
  load(11);
  publisher_->end([&] { ended = true; });
  pass(0);
  EXPECT_TRUE(ended);
  EXPECT_THAT(store_->content(), IsEmpty());
  EXPECT_THAT(store_->leases, IsEmpty());
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

TEST_F(PublisherTest, GoneWhileACallIsUnderWay_ItsAnswerHarmsNothing) {
  start();
  pass(2 * kSecond);
  load(11);
  publisher_.reset();
  pass(60 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 0);
}

TEST(BackoffTest, DelaysGrowToABoundAndVaryBelowIt) {
  Backoff backoff(1);
  std::set<uint64_t> delays;
  for (uint64_t bound = Backoff::kFirstMs; bound < Backoff::kLastMs; bound *= 2) {
    uint64_t delay = backoff.nextMs();
    EXPECT_GE(delay, bound / 2);
    EXPECT_LE(delay, bound);
  }
  for (int i = 0; i < 100; ++i) {
    uint64_t delay = backoff.nextMs();
    EXPECT_GE(delay, Backoff::kLastMs / 2);
    EXPECT_LE(delay, Backoff::kLastMs);
    delays.insert(delay);
  }
  EXPECT_GT(delays.size(), 50u);
  backoff.reset();
  EXPECT_LE(backoff.nextMs(), Backoff::kFirstMs);
}

}  // namespace
}  // namespace Member
