// Which store the follower follows, and whether an answer is that store's. A server that was wiped, restored
// from a copy or given by mistake answers as well as any other, but with another cluster id, or with a past
// that is shorter than what was read already. It is not believed while a server may still have the known
// history: before another one counts, every server was tried, and none had the known one for the length of
// the hold. The hold begins when another history is first seen, and anew when no server answers at all: then
// it may be us who were cut off.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class History final {
 public:
  // Times are milliseconds on one monotonic clock. servers: how many there are.
  History(uint64_t holdMs, size_t servers) : holdMs_(holdMs), servers_(servers) {}

  // False: nothing was read. Every answer is believed.
  bool known() const { return clusterId_ != 0; }
  void is(const Header& header);
  // What is known at `revision`.
  Header at(int64_t revision) const { return {clusterId_, revision, raftTerm_}; }
  // There may have been an election.
  void heard(const Header& header);

  // Whether the answer can be none of a store that is known as `known`.
  static bool foreign(const Header& header, const Header& known);
  bool foreign(const Header& header, int64_t revision) const { return foreign(header, at(revision)); }
  // What a foreign answer shows, for people: cluster ids as etcd writes them.
  std::string difference(const Header& header) const;

  // A server has shown that it has the known history.
  void confirmed();
  // A server has shown another one.
  void contradicted(uint64_t nowMs);
  // A server was left.
  void serverLeft(uint64_t nowMs);
  // Whether the history that a server has just shown may count in place of the known one.
  bool overdue() const { return contradicted_ && heldMs_ >= holdMs_ && left_ + 1 >= servers_; }

 private:
  // Servers are asked more often than that. What is longer was spent asleep, and does not count.
  static constexpr uint64_t kMostBetweenMs = 30'000;

  void timePasses(uint64_t nowMs);

  uint64_t holdMs_;
  size_t servers_;
  uint64_t clusterId_ = 0;
  uint64_t raftTerm_ = 0;
  bool contradicted_ = false;  // since the known history was confirmed; if so:
  uint64_t heldMs_ = 0;        // for so long
  uint64_t lastMs_ = 0;        // until then
  size_t left_ = 0;            // servers since then
  size_t leftInVain_ = 0;      // servers since the last of them that showed another history
};

}  // namespace Kelstore::Etcd
