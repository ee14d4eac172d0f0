// What the publisher does so that its rows never look alive when they are not: it proves that its writes
// work, and lets its lease run out when they do not.
#include <gmock/gmock.h>

#include "tests/member/PublisherFixture.h"

namespace Member {
namespace {

using Runtime::kSecond;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(PublisherTest, NothingChanges_AKeyIsWrittenAsItIsInTwoThirdsOfTheLeasesTime) {
  start();
  auto before = store_->content();
  store_->written();
  pass(9999);
  EXPECT_EQ(store_->written(), "");
  pass(1);
  EXPECT_EQ(store_->written(), "topology/1/2; ");
  pass(100 * kSecond);
  EXPECT_THAT(store_->sizes, SizeIs(1 + 1 + 10));
  EXPECT_EQ(store_->content(), before);
}

TEST_F(PublisherTest, ChangesAreWrittenOftenEnough_NothingElseIs) {
  start();
  store_->written();
  for (int16_t percent = 1; percent <= 20; ++percent) {
    load(percent);
    pass(5 * kSecond);
    EXPECT_EQ(store_->written(), "members/1/processors/1; ");
  }
}

TEST_F(PublisherTest, IntervalIsLong_TheChangesAreTheProof) {
  publisher_.emplace(Publisher::Settings{1, {"B1"}, 15, 3600, kRandom}, store_, io_, clock_, listener());
  say();
  pass(0);
  store_->written();
  load(11);
  pass(10 * kSecond);
  EXPECT_EQ(store_->written(), "members/1/processors/1; ");
}

TEST_F(PublisherTest, NothingIsToBePublished_NothingIsToBeProven) {
  content_.clear();
  start();
  pass(60 * kSecond);
  EXPECT_EQ(store_->calls["write"], 0);
  EXPECT_EQ(store_->calls["renew"], 60);
  EXPECT_THAT(errors(), IsEmpty());
}

// It blamed the store, although it had slept itself.
TEST_F(PublisherTest, DidNotRunForLongerThanTheTtl_TheStoreIsNotBlamed_AllIsWrittenAnew) {
  start();
  auto before = store_->content();
  store_->expire(101);
  clock_.advanceNs(60'000'000'000);
  pass(1 * kSecond);
  EXPECT_EQ(store_->content().size(), before.size());
  EXPECT_THAT(
      errors(),
      ElementsAre("Member/0 did not run for 61 s: was stopped, or the machine was suspended or overloaded",
                  "Member/0 lease 65 is gone: everything is written anew, under another one"));
}

TEST_F(PublisherTest, DidNotRun_ButTheLeaseLives_ItIsRenewedAndNothingIsWrittenAnew) {
  start();
  store_->written();
  clock_.advanceNs(60'000'000'000);
  store_->calls.clear();
  pass(1 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 1);
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{101});
}

// What was carried out is repeated elsewhere when its answer is lost, and refused there, or not answered.
TEST_F(PublisherTest, AnswersAreLost_WhatIsInTheStoreProvesThatWritesWork) {
  for (absl::StatusCode code : {absl::StatusCode::kAborted, absl::StatusCode::kUnavailable}) {
    start();
    store_->answerInstead = absl::Status(code, "lost");
    store_->calls.clear();
    for (int16_t percent = 20; percent < 80; ++percent) {
      load(percent);
      pass(1 * kSecond);
    }
    EXPECT_EQ(store_->calls["renew"], 60);
    EXPECT_THAT(statuses_, Each(testing::Not(HasSubstr("nothing can be written"))));
    store_->answerInstead.reset();
    statuses_.clear();
  }
}

// Only the transactions under the lease count, and only from when they were asked for.
TEST_F(PublisherTest, AnswerIsLost_NothingIsCarriedOutAfterwards_TheLeaseEndsInItsTime) {
  start();
  pass(5 * kSecond);
  store_->answerInstead = absl::AbortedError("lost");
  load(11);
  pass(0);
  store_->failing = {"write"};
  store_->failureCode = absl::StatusCode::kResourceExhausted;
  pass(15 * kSecond);
  store_->calls.clear();
  pass(60 * kSecond);
  EXPECT_LE(store_->calls["renew"], 1);
}

// How writes come not to work.
struct Fault {
  const char* name;
  std::set<std::string> failing;
  std::set<std::string> hanging;
  absl::StatusCode code;
  const char* told;
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class FaultTest : public PublisherTest, public testing::WithParamInterface<Fault> {
 protected:
  void begin() {
    store_->failing = GetParam().failing;
    store_->hanging = GetParam().hanging;
    store_->failureCode = GetParam().code;
    store_->calls.clear();
  }
  void end() {
    store_->failing.clear();
    store_->hanging.clear();
    io_.hungReturn();
  }
  std::vector<std::string> lapses() const {
    std::vector<std::string> all;
    for (const std::string& line : errors()) {
      if (line.find("is not renewed any more") != std::string::npos) all.push_back(line);
    }
    return all;
  }
  void outlast(uint64_t seconds) {
    for (uint64_t i = 0; i < seconds; ++i) {
      load(static_cast<int16_t>(20 + i % 50));
      pass(1 * kSecond);
    }
  }
};

TEST_P(FaultTest, ForTheLeasesTime_TheLeaseIsRenewedNoMore_AndItIsSaidWhy) {
  start();
  begin();
  outlast(14);
  EXPECT_THAT(lapses(), IsEmpty());
  EXPECT_GT(store_->calls["renew"], 0);
  outlast(6);
  store_->calls.erase("renew");
  outlast(60);
  EXPECT_EQ(store_->calls["renew"], 0);
  EXPECT_THAT(lapses(), ElementsAre(AllOf(HasSubstr("lease 65"), HasSubstr(GetParam().told))));
  EXPECT_THAT(statuses_.back(), HasSubstr("nothing can be written"));
}

TEST_P(FaultTest, NothingChanges_TheLeaseIsRenewedNoMoreAllTheSame) {
  start();
  begin();
  pass(30 * kSecond);
  store_->calls.erase("renew");
  pass(60 * kSecond);
  EXPECT_EQ(store_->calls["renew"], 0);
  EXPECT_THAT(lapses(), SizeIs(1));
}

TEST_P(FaultTest, EndsWhileTheLeaseLasts_ItIsRenewedAtOnce) {
  start();
  begin();
  outlast(20);
  end();
  store_->calls.clear();
  pass(6 * kSecond);
  EXPECT_GE(store_->calls["renew"], 1);
  EXPECT_THAT(statuses_.back(), "publishing member 1, under lease 65");
  store_->calls.clear();
  pass(30 * kSecond);
  EXPECT_GE(store_->calls["renew"], 29);
  EXPECT_EQ(leaseOf(kLink), 101);
}

TEST_P(FaultTest, EndsAfterTheLease_EverythingIsPutBack) {
  start();
  begin();
  outlast(20);
  store_->expire(101);
  outlast(20);
  end();
  pass(7 * kSecond);
  EXPECT_EQ(store_->content().size(), 4u);
  EXPECT_EQ(store_->leases, std::set<LeaseStore::Lease>{102});
  EXPECT_THAT(statuses_.back(), "publishing member 1, under lease 66");
}

TEST_P(FaultTest, Repeats_EachTimeIsTold) {
  start();
  for (size_t times = 1; times <= 2; ++times) {
    begin();
    outlast(20);
    EXPECT_THAT(lapses(), SizeIs(times));
    end();
    pass(10 * kSecond);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Publisher, FaultTest,
    testing::Values(
        Fault{"NoSpace", {"write", "grant"}, {}, absl::StatusCode::kResourceExhausted, "write failed"},
        Fault{"NoPermissionToWrite", {"write"}, {}, absl::StatusCode::kPermissionDenied, "write failed"},
        Fault{"NoPermissionAtAll", {"write", "list"}, {}, absl::StatusCode::kPermissionDenied, "failed"},
        Fault{"EveryTransactionIsRefused", {"write"}, {}, absl::StatusCode::kAborted, "write failed"},
        Fault{"NoAnswer", {}, {"write"}, absl::StatusCode::kUnknown, "no answer"}),
    [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace Member
