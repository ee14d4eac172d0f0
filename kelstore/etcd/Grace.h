// Holds back that keys are gone whose lease ended by itself. A lease ends by itself when its member dies, but
// also when the store's leader was stopped or changed, and then the members are back in a moment. So the keys
// count for a while longer, unless they are put again before. Keys that a member deletes, and those of a
// lease that it gave back, are gone at once: it puts a mark under the lease first (KeySpace::leavingKey()).
//
// Between the follower and the decoder, on the follower's thread. Without I/O and clock; times are
// milliseconds on one monotonic clock.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelstore/etcd/KeySpace.h"
#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class Grace final {
 public:
  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();
  // No more passes between two calls. Longer, the store was lost or this process was stopped, and what
  // members have put again meanwhile is still to be read.
  static constexpr uint64_t kMostAtOnceMs = 1'000;

  // graceMs: 0: everything is gone at once.
  Grace(KeySpace keys, uint64_t graceMs) : keys_(std::move(keys)), graceMs_(graceMs) {}

  // Takes out of the batch what is held back, and the marks.
  void pass(Batch& batch, uint64_t nowMs);
  // The keys that are gone now, as their time is over.
  std::vector<Change> over(uint64_t nowMs);
  // The store was away, so that nobody could put a key again: the time of what is held back begins anew. Once
  // for each key, or a store that comes and goes would keep the dead.
  void storeIsBack(uint64_t nowMs);
  // When to call over(), at the latest; kNever: there is no need.
  uint64_t wakeAtMs() const;
  // Whether some of the member's own values are held back.
  bool holds(const std::string& member) const { return heldOf_.contains(member); }

 private:
  struct Held {
    uint64_t goneAtMs = 0;  // on the clock of passedMs_
    bool anew = false;      // its time began anew
  };
  using AllHeld = std::map<std::string, Held>;

  bool endedByItself(const Change& change) const;
  void timePasses(uint64_t nowMs);
  void hold(const std::string& key);
  void release(const std::string& key);
  std::string memberOf(const std::string& key) const;  // empty: it is no member's own

  KeySpace keys_;
  uint64_t graceMs_;
  AllHeld held_;                                    // by key
  std::unordered_map<std::string, size_t> heldOf_;  // how many of each member
  uint64_t nextMs_ = kNever;                        // not after the first of them is gone
  uint64_t passedMs_ = 0;                           // how much time has passed for what is held
  uint64_t nowMs_ = 0;                              // until when it has
  std::map<std::string, int64_t> leaving_;          // marks, and the leases of those who leave
};

}  // namespace Kelstore::Etcd
