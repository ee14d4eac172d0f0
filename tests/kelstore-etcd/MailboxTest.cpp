// What the loop finds in the mailbox, however often it looks.
#include "kelstore/etcd/Mailbox.h"

#include <gmock/gmock.h>

#include <thread>

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Path at(uint32_t number) { return {Kind::interface, std::to_string(number), {}}; }

std::shared_ptr<const Snapshot> snapshot(uint32_t value) {
  return std::make_shared<const Snapshot>(std::vector<Snapshot::Entry>{{at(1), Interface{value}}});
}

class MailboxTest : public testing::Test {
 protected:
  int woken_ = 0;
  Mailbox mailbox_{[this] { ++woken_; }};
};

TEST_F(MailboxTest, WhatIsGivenIsTakenOnce) {
  auto first = snapshot(1);
  mailbox_.give({first, {at(1)}, 5, true, {{0, "line"}}});
  EXPECT_EQ(woken_, 1);
  Mailbox::Update update = mailbox_.take();
  EXPECT_EQ(update.snapshot, first);
  EXPECT_THAT(update.changed, ElementsAre(at(1)));
  EXPECT_EQ(update.revision, 5);
  EXPECT_TRUE(update.settled);
  ASSERT_EQ(update.lines.size(), 1u);
  update = mailbox_.take();
  EXPECT_EQ(update.snapshot, nullptr);
  EXPECT_THAT(update.changed, IsEmpty());
  EXPECT_FALSE(update.settled);
}

TEST_F(MailboxTest, LoopIsBehind_TheLastSnapshotCounts_AndEachPathIsThereOnce) {
  auto last = snapshot(3);
  mailbox_.give({snapshot(1), {at(1), at(3)}, 5, true, {}});
  mailbox_.give({snapshot(2), {at(2), at(3)}, 6, false, {{0, "a"}}});
  mailbox_.give({nullptr, {}, 0, false, {{0, "b"}}});
  mailbox_.give({last, {at(1)}, 7, false, {}});
  mailbox_.give({nullptr, {}, 0, false, {}});
  Mailbox::Update update = mailbox_.take();
  EXPECT_EQ(update.snapshot, last);
  EXPECT_THAT(update.changed, ElementsAre(at(1), at(2), at(3)));
  EXPECT_EQ(update.revision, 7);
  EXPECT_TRUE(update.settled);
  EXPECT_EQ(update.lines.size(), 2u);
  EXPECT_EQ(update.lines.front().text, "a");
  EXPECT_EQ(woken_, 5);
}

TEST_F(MailboxTest, LoopTakesNothingForLong_LinesAreBounded) {
  for (int i = 0; i < 1000; ++i) mailbox_.give({nullptr, {}, 0, false, {{0, "x"}}});
  EXPECT_EQ(mailbox_.take().lines.size(), Mailbox::kMaxLines);
}

TEST_F(MailboxTest, DiscardedSnapshots_AreFreedByTheOtherSide) {
  auto old = snapshot(1);
  std::weak_ptr<const Snapshot> left = old;
  mailbox_.discard(std::move(old));
  EXPECT_FALSE(left.expired());
  mailbox_.statusIs({});
  EXPECT_TRUE(left.expired());
}

TEST_F(MailboxTest, StatusHasTheMembersInOrder) {
  mailbox_.memberIs({"2", true, 7, 0});
  mailbox_.memberIs({"1", false, {}, 0});
  mailbox_.memberIs({"3", false, {}, 0});
  mailbox_.memberDel("3");
  StoreStatus status;
  status.endpoint = "h:1";
  mailbox_.statusIs(status);
  EXPECT_EQ(mailbox_.status().endpoint, "h:1");
  EXPECT_THAT(mailbox_.status().members,
              ElementsAre(MemberStatus{"1", false, {}, 0}, MemberStatus{"2", true, 7, 0}));
}

// Both sides at once; nothing is lost, and the snapshot is never older than what is said to have changed.
TEST_F(MailboxTest, BothSidesAtOnce_NothingIsLost) {
  constexpr uint32_t kRounds = 20'000;
  std::thread other([this] {
    for (uint32_t i = 1; i <= kRounds; ++i) mailbox_.give({snapshot(i), {at(i)}, i, i == kRounds, {}});
  });
  std::vector<bool> seen(kRounds + 1);
  int64_t last = 0;
  for (bool settled = false; !settled;) {
    Mailbox::Update update = mailbox_.take();
    for (const Path& path : update.changed) seen[std::stoul(std::string(path.first()))] = true;
    if (update.snapshot) {
      EXPECT_GT(update.revision, last);
      last = update.revision;
      EXPECT_EQ(*update.snapshot->find(at(1)), Value(Interface{static_cast<uint32_t>(last)}));
      mailbox_.discard(std::move(update.snapshot));
    }
    mailbox_.status();
    settled = update.settled;
  }
  other.join();
  EXPECT_EQ(std::count(seen.begin() + 1, seen.end(), true), kRounds);
}

}  // namespace
}  // namespace Kelstore::Etcd
