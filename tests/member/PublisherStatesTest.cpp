// The publisher's states: the table says what leads out of each of them, and where to. What the publisher
// does on the way is in the other tests.
#include <gmock/gmock.h>

#include <array>
#include <map>

#include "tests/member/PublisherFixture.h"

namespace Member {
namespace {

using Runtime::kSecond;
using testing::ElementsAre;
using State = Publisher::State;

constexpr std::array<const char*, 12> kStateNames = {"silent",  "granting",  "listing",    "writing",
                                                     "pausing", "published", "retrying",   "standby",
                                                     "looking", "leaving",   "givingBack", "ended"};

std::string nameOf(State state) { return kStateNames.at(static_cast<size_t>(state)); }

// A publisher whose store answers one call at a time, when the test says so.
class StatesTest : public PublisherTest {
 public:
  void arriveAt(State state) {
    static const std::map<State, void (StatesTest::*)()> kWays = {
        {State::silent, &StatesTest::nothing},        {State::granting, &StatesTest::speaks},
        {State::listing, &StatesTest::isGranted},     {State::writing, &StatesTest::isListed},
        {State::pausing, &StatesTest::soonSaysMore},  {State::published, &StatesTest::isWritten},
        {State::retrying, &StatesTest::isRefused},    {State::standby, &StatesTest::isReplaced},
        {State::looking, &StatesTest::looks},         {State::leaving, &StatesTest::endsUngranted},
        {State::givingBack, &StatesTest::endsLeased}, {State::ended, &StatesTest::ends}};
    create();
    (this->*kWays.at(state))();
    ASSERT_EQ(nameOf(publisher_->state()), nameOf(state)) << "on the way";
  }

  // What may happen.
  void nothing() {}
  void content() { say(); }
  void otherContent() {
    content_[processor("1")] = Kelstore::Processor{static_cast<int16_t>(++percent_)};
    say();
  }
  void otherContentLater() {
    pass(11 * kSecond);
    otherContent();
  }
  void answer() {
    store_->hanging = kCalls;
    store_->hanging.erase(awaited());
    io_.hungReturn();
    store_->hanging = kCalls;
  }
  void failure() {
    store_->failing = {"all"};
    answer();
    store_->failing.clear();
  }
  void refusalOfTheGuards() {
    store_->put(kLink, "by hand", LeaseStore::kNoLease);
    answer();
  }
  void answerOfAnOlderStore() {
    store_->answerInstead = -1;
    answer();
  }
  void leaseGone() {
    store_->expire(101);
    answer();
  }
  // Is found by the renewal, whatever else is under way.
  void renewalFindsLeaseGone() {
    store_->expire(101);
    store_->hanging.erase("renew");
    pass(5 * kSecond);
  }
  void renewalFindsLeaseGoneThenAnswer() {
    renewalFindsLeaseGone();
    answer();
  }
  void answerWithOthersKeys() {
    store_->put(processor("1"), "theirs", kOther);
    answer();
  }
  void answerWithoutOthersKeys() {
    store_->expire(kOther);
    answer();
  }
  void time() { pass(31 * kSecond); }
  void writesForLong() {
    for (int i = 0; i < 5; ++i) {
      pass(8 * kSecond);
      if (publisher_->state() == State::writing) answer();
    }
  }
  void end() {
    publisher_->end([this] { ++endings_; });
    pass(0);
  }
  void endThenAnswer() {
    end();
    answer();
  }

 protected:
  // The ways to the states.
  void speaks() {
    say();
    pass(0);
  }
  void isGranted() {
    speaks();
    answer();
  }
  void isListed() {
    isGranted();
    answer();
  }
  void isWritten() {
    isListed();
    answer();
  }
  void soonSaysMore() {
    isWritten();
    otherContent();
  }
  void isRefused() {
    speaks();
    failure();
  }
  void isReplaced() {
    isWritten();
    pass(11 * kSecond);
    for (const auto& path : {kLink, processor("1"), processor("2")}) store_->put(path, "theirs", kOther);
    otherContent();
    answer();
    answer();
  }
  void looks() {
    isReplaced();
    pass(15 * kSecond);
  }
  void endsUngranted() {
    speaks();
    end();
  }
  void endsLeased() {
    isWritten();
    end();
  }
  void ends() { end(); }

  void create() {
    store_->hanging = kCalls;
    publisher_.emplace(Publisher::Settings{1, {"B1", "B2"}, 15, 10, kRandom}, store_, io_, clock_,
                       listener());
  }
  std::string awaited() const {
    static const std::map<State, std::string> kAwaited = {
        {State::granting, "grant"}, {State::listing, "list"},  {State::writing, "write"},
        {State::looking, "list"},   {State::leaving, "grant"}, {State::givingBack, "revoke"}};
    auto found = kAwaited.find(publisher_->state());
    return found == kAwaited.end() ? "" : found->second;
  }

  const std::set<std::string> kCalls = {"grant", "renew", "revoke", "list", "write"};
  int percent_ = 10;
  int endings_ = 0;
};

struct Transition {
  State from;
  const char* event;
  void (StatesTest::*happens)();
  State to;
};

const Transition kTransitions[] = {
    {State::silent, "time", &StatesTest::time, State::silent},
    {State::silent, "content", &StatesTest::content, State::granting},
    {State::silent, "end", &StatesTest::end, State::ended},

    {State::granting, "answer", &StatesTest::answer, State::listing},
    {State::granting, "failure", &StatesTest::failure, State::retrying},
    {State::granting, "content", &StatesTest::otherContent, State::granting},
    {State::granting, "end", &StatesTest::end, State::leaving},

    {State::listing, "answer", &StatesTest::answer, State::writing},
    {State::listing, "answerWithPredecessorsKeys", &StatesTest::answerWithOthersKeys, State::writing},
    {State::listing, "failure", &StatesTest::failure, State::retrying},
    {State::listing, "content", &StatesTest::otherContent, State::listing},
    {State::listing, "renewalFindsLeaseGone", &StatesTest::renewalFindsLeaseGone, State::listing},
    {State::listing, "renewalFindsLeaseGoneThenAnswer", &StatesTest::renewalFindsLeaseGoneThenAnswer,
     State::granting},
    {State::listing, "end", &StatesTest::end, State::givingBack},

    {State::writing, "answer", &StatesTest::answer, State::published},
    {State::writing, "failure", &StatesTest::failure, State::retrying},
    {State::writing, "refusalOfTheGuards", &StatesTest::refusalOfTheGuards, State::listing},
    {State::writing, "answerOfAnOlderStore", &StatesTest::answerOfAnOlderStore, State::listing},
    {State::writing, "leaseGone", &StatesTest::leaseGone, State::granting},
    {State::writing, "renewalFindsLeaseGone", &StatesTest::renewalFindsLeaseGone, State::writing},
    {State::writing, "content", &StatesTest::otherContent, State::writing},
    {State::writing, "end", &StatesTest::end, State::givingBack},

    {State::pausing, "time", &StatesTest::time, State::writing},
    {State::pausing, "content", &StatesTest::otherContent, State::pausing},
    {State::pausing, "renewalFindsLeaseGone", &StatesTest::renewalFindsLeaseGone, State::granting},
    {State::pausing, "end", &StatesTest::end, State::givingBack},

    {State::published, "content", &StatesTest::content, State::published},
    {State::published, "otherContent", &StatesTest::otherContent, State::pausing},
    {State::published, "otherContentLater", &StatesTest::otherContentLater, State::writing},
    {State::published, "timeOfTheNextProof", &StatesTest::time, State::writing},
    {State::published, "timeToLookAgain", &StatesTest::writesForLong, State::listing},
    {State::published, "renewalFindsLeaseGone", &StatesTest::renewalFindsLeaseGone, State::granting},
    {State::published, "end", &StatesTest::end, State::givingBack},

    {State::retrying, "time", &StatesTest::time, State::granting},
    {State::retrying, "content", &StatesTest::otherContent, State::retrying},
    {State::retrying, "end", &StatesTest::end, State::ended},

    {State::standby, "time", &StatesTest::time, State::looking},
    {State::standby, "content", &StatesTest::otherContent, State::standby},
    {State::standby, "end", &StatesTest::end, State::ended},

    {State::looking, "answer", &StatesTest::answer, State::standby},
    {State::looking, "answerWithoutOthersKeys", &StatesTest::answerWithoutOthersKeys, State::granting},
    {State::looking, "failure", &StatesTest::failure, State::standby},
    {State::looking, "content", &StatesTest::otherContent, State::looking},
    {State::looking, "end", &StatesTest::end, State::leaving},

    {State::leaving, "answer", &StatesTest::answer, State::givingBack},
    {State::leaving, "failure", &StatesTest::failure, State::ended},
    {State::leaving, "content", &StatesTest::otherContent, State::leaving},
    {State::leaving, "time", &StatesTest::time, State::ended},

    {State::givingBack, "answer", &StatesTest::answer, State::ended},
    {State::givingBack, "failure", &StatesTest::failure, State::ended},
    {State::givingBack, "content", &StatesTest::otherContent, State::givingBack},
    {State::givingBack, "time", &StatesTest::time, State::ended},
    {State::givingBack, "end", &StatesTest::end, State::givingBack},

    {State::ended, "content", &StatesTest::otherContent, State::ended},
    {State::ended, "time", &StatesTest::time, State::ended},
    {State::ended, "end", &StatesTest::end, State::ended},
};

class TransitionTest : public StatesTest, public testing::WithParamInterface<Transition> {};

TEST_P(TransitionTest, LeadsThere) {
  arriveAt(GetParam().from);
  (this->*GetParam().happens)();
  EXPECT_EQ(nameOf(publisher_->state()), nameOf(GetParam().to));
  EXPECT_EQ(endings_, publisher_->state() == State::ended ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Publisher, TransitionTest, testing::ValuesIn(kTransitions),
                         [](const auto& one) { return nameOf(one.param.from) + "_" + one.param.event; });

TEST(PublisherStatesTest, TheTableNamesEveryState) {
  std::set<State> from;
  for (const Transition& transition : kTransitions) from.insert(transition.from);
  EXPECT_EQ(from.size(), kStateNames.size());
}

// What the operator is shown.

TEST_F(StatesTest, StatusLines_WhilePublishingAndStandingBy) {
  arriveAt(State::looking);
  answerWithoutOthersKeys();
  EXPECT_THAT(statuses_, ElementsAre("waiting for this machine's figures", "asking the store for a lease",
                                     "publishing member 1, under lease 65",
                                     "on standby, as another publisher has member 1, under lease 7",
                                     "asking the store for a lease"));
}

TEST_F(StatesTest, StatusLines_WhileTheStoreFails_AndAtTheEnd) {
  arriveAt(State::retrying);
  pass(1 * kSecond);
  answer();
  answer();
  statuses_.erase(statuses_.begin(), statuses_.begin() + 2);
  EXPECT_THAT(statuses_, ElementsAre("the store cannot be used: grant failed"));
  answer();
  end();
  answer();
  EXPECT_THAT(statuses_, ElementsAre("the store cannot be used: grant failed",
                                     "publishing member 1, under lease 65", "ending"));
}

}  // namespace
}  // namespace Member
