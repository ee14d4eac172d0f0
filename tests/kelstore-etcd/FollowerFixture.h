// What the tests of the follower's transitions share: a follower of one server, its answers, and what it
// wants done and tells, as texts. Time is a number.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/kelstore-etcd/Answers.h"

namespace Kelstore::Etcd {

inline std::string textOf(const Connect& command) { return fmt::format("connect {}", command.endpoint); }
inline std::string textOf(const Disconnect& /*command*/) { return "disconnect"; }
inline std::string textOf(const ReadPage& command) {
  std::string from = command.from;
  if (from.ends_with('\0')) from.back() = '+';
  return fmt::format("read {} at {} x{}{}", from, command.revision, command.limit,
                     command.keysOnly ? " keys" : "");
}
inline std::string textOf(const OpenWatch& command) { return fmt::format("watch {}", command.fromRevision); }
inline std::string textOf(const RequestProgress& /*command*/) { return "progress?"; }
inline std::string textOf(const AskHome& command) {
  return fmt::format("ask {} for {} at {}", command.endpoint, command.key, command.revision);
}

class FollowerTest : public testing::Test {
 protected:
  using State = Follower::State;
  using Texts = std::vector<std::string>;

  static constexpr uint64_t kCluster = 7;
  static constexpr uint64_t kTerm = 2;

  static Header at(int64_t revision, uint64_t cluster = kCluster, uint64_t term = kTerm) {
    return {cluster, revision, term};
  }

  explicit FollowerTest(const Texts& endpoints = {"h0:1"}, uint64_t place = 0)
      : follower_({.prefix = "p/", .endpoints = endpoints, .place = place}, [this] { return random_; }) {}

  // What the follower wants done, and what it tells, since it was asked last.
  Texts commands() {
    Texts texts;
    for (const Command& command : follower_.takeCommands()) {
      texts.push_back(std::visit([](const auto& one) { return textOf(one); }, command));
    }
    return texts;
  }
  Texts batches() {
    Texts texts;
    for (const Batch& batch : follower_.takeBatches()) {
      std::string text = std::to_string(batch.revision) + ":";
      for (const Change& change : batch.changes) {
        text += change.value ? fmt::format(" {}={}", change.key, *change.value) : " -" + change.key;
      }
      texts.push_back(text);
    }
    return texts;
  }

  void advance(uint64_t ms) {
    uint64_t end = now_ + ms;
    while (follower_.wakeAtMs() <= end) {
      now_ = std::max(now_, follower_.wakeAtMs());
      follower_.elapsed(now_);
    }
    now_ = end;
  }
  void page(Header header, std::vector<Record> records, bool more = false) {
    follower_.pageRead(now_, follower_.pageAsked(), {header, std::move(records), more});
  }
  void says(Header header, std::vector<Event> events, bool fragment = false) {
    follower_.watchSaid(now_, watchEvents(header, std::move(events), fragment));
  }
  void created(Header header) { follower_.watchSaid(now_, watchCreated(header)); }
  void canceled(int64_t compactRevision, const std::string& reason = "") {
    follower_.watchSaid(now_, watchCanceled(at(10), compactRevision, reason));
  }
  // Listed at revision 10 with a=1 (revision 3) and b=2 (revision 5), and watching.
  void watching() {
    follower_.start(now_);
    page(at(10), {record("p/a", "1", 3), record("p/b", "2", 5)});
    created(at(10));
    commands();
    batches();
  }
  // The server has what watching() listed last.
  void resumes(Header header) { page(header, {record("p/b", "2", 5)}); }
  // Lost and connected again; the answers to come are the new server's.
  void reconnecting() {
    follower_.lost(now_, "broken");
    advance(Follower::kFirstRetryMs);
  }

  double random_ = 0;
  uint64_t now_ = 1'000'000;
  Follower follower_;
};

}  // namespace Kelstore::Etcd
