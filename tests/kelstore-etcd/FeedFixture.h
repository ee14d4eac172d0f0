// What the tests of the feed share: a follower and a feed whose clock and answers are driven by hand.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "kelstore/etcd/Feed.h"
#include "tests/kelstore-etcd/Answers.h"

namespace Kelstore::Etcd {

class FeedTest : public testing::Test {
 protected:
  static constexpr uint64_t kHoldMs = 300'000;
  static Header at(int64_t revision) { return {1, revision, 1}; }

  explicit FeedTest(bool clears = false, uint64_t graceMs = 0) : clears_(clears), graceMs_(graceMs) {
    clock_.advanceNs(1'000'000'000);
  }

  void follows() { feed_.follow(follower_); }
  uint64_t now() const { return clock_.monotonicNs() / 1'000'000; }
  void advance(uint64_t ms) {
    uint64_t end = now() + ms;
    while (now() < end) {
      uint64_t next = std::max(std::min({follower_.wakeAtMs(), feed_.wakeAtMs(), end}), now());
      clock_.advanceNs((next - now()) * 1'000'000);
      if (now() >= follower_.wakeAtMs()) follower_.elapsed(now());
      follows();
    }
  }
  void listed(std::vector<Record> records, int64_t revision = 10) {
    follower_.pageRead(now(), follower_.pageAsked(), {at(revision), std::move(records), false});
    follows();
  }
  void created(int64_t revision = 10) {
    follower_.watchSaid(now(), watchCreated(at(revision)));
    follows();
  }
  void event(const Record& record, bool deleted = false) {
    follower_.watchSaid(now(), watchEvents(at(record.modRevision), {{record, deleted}}));
    follows();
  }
  void lost() {
    follower_.lost(now(), "h1:1: broken");
    follows();
  }
  // Interface a with index 1, and member 1 with one processor under lease 77.
  static Record processor() { return {"p/members/1/processors/1", R"({"load": 1})", 4, 77}; }
  // A member's system, with a clock that is ahead by so many seconds.
  std::string systemAt(double ahead) const {
    return fmt::format(
        R"({{"uptime": 1, "currentTimeUtc": {}, "users": 0, "processes": 1, "memorySize": 1}})",
        static_cast<double>(clock_.utcNs()) / 1e9 + ahead);
  }
  void watching() {
    follower_.start(now());
    follows();
    listed({{"p/interfaces/a", R"({"ifIndex": 1})", 3, 0}, processor()});
    created();
    take();
  }
  // Whatever was tried is in vain; then a server is asked again.
  void reconnecting() {
    lost();
    follower_.takeCommands();
    for (bool asked = false; !asked;) {
      advance(follower_.wakeAtMs() - now());
      for (const Command& command : follower_.takeCommands())
        asked |= std::holds_alternative<ReadPage>(command);
    }
  }
  void resumed() {
    reconnecting();
    follower_.pageRead(now(), follower_.pageAsked(), {at(10), {processor()}, false});
    created();
  }

  // What the loop finds: changed paths, "-" where nothing is any more, and lines.
  std::string take() {
    Mailbox::Update update = mailbox_.take();
    std::string text;
    for (const Path& path : update.changed) {
      bool there = update.snapshot->find(path) != nullptr;
      text += (text.empty() ? "" : " ") + (there ? path.text() : "-" + path.text());
    }
    lines_.clear();
    for (const Line& line : update.lines) lines_.push_back(fmt::format("{} {}", line.level, line.text));
    settled_ |= update.settled;
    return text;
  }
  StoreStatus status() const { return mailbox_.status(); }
  uint64_t counter(const std::string& name) const {
    for (const auto& [key, count] : status().counters) {
      if (key == name) return count;
    }
    ADD_FAILURE() << "no counter " << name;
    return 0;
  }

  bool clears_;
  uint64_t graceMs_;
  bool settled_ = false;
  std::vector<std::string> lines_;
  Zavro::ManualClock clock_{1'000'000'000'000};
  Mailbox mailbox_{[] {}};
  static Limits limits() {
    Limits limits;
    limits.rows = 3;
    return limits;
  }
  static Follower newFollower() {
    return {{"p/", {"h0:1", "h1:1"}, kHoldMs, 60'000, KeySpace("p").groups(limits())}, [] { return 0.0; }};
  }
  Follower follower_ = newFollower();
  Feed feed_{KeySpace("p"), {limits(), clears_, graceMs_}, clock_, mailbox_};
};

}  // namespace Kelstore::Etcd
