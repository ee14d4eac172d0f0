// What the processes of the benchmark tell each other: memory that they share. Times are nanoseconds of
// CLOCK_MONOTONIC, which is one for all processes; 0: not yet.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace FullSize {

inline constexpr size_t kMembers = 256;  // by number; there is no member 0

struct Board {
  static constexpr size_t kMaxTimes = 1 << 20;

  std::atomic<bool> measuring;

  // Of the publishers, by member.
  std::array<std::atomic<uint64_t>, kMembers> renewedNs;   // last
  std::array<std::atomic<uint64_t>, kMembers> writtenNs;   // last
  std::array<std::atomic<uint64_t>, kMembers> lostLinkNs;  // when it lost a link

  // Of the followers.
  std::atomic<uint64_t> watching;                        // how many
  std::atomic<uint64_t> complete;                        // how many have the rows of all members
  std::atomic<uint64_t> lostMembers;                     // times that a follower lost the rows of a member
  std::atomic<uint64_t> changes;                         // of paths, in all snapshots
  std::atomic<uint64_t> times;                           // that were taken
  std::array<std::atomic<uint32_t>, kMaxTimes> timesUs;  // from a change to a follower's snapshot
};

uint64_t nowNs();

// The board in this file, which all processes map. `create` makes it, and all of it is 0.
std::shared_ptr<Board> mapBoard(const std::string& file, bool create);

}  // namespace FullSize
