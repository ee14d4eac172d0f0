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
#include <set>
#include <string>
#include <vector>

#include "kelstore/etcd/KeySpace.h"
#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class Grace final {
 public:
  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

  // graceMs: 0: everything is gone at once.
  Grace(KeySpace keys, uint64_t graceMs) : keys_(std::move(keys)), graceMs_(graceMs) {}

  // Takes out of the batch what is held back, and the marks.
  void pass(Batch& batch, uint64_t nowMs);
  // The keys that are gone now, as their time is over.
  std::vector<Change> over(uint64_t nowMs);
  // The store is lost, or is back. Meanwhile nobody could put a key again, so the time of what was held back
  // begins anew; but for the second time it only goes on, or a store that comes and goes would keep the dead.
  void storeIsLost(uint64_t nowMs) { lostMs_ = nowMs; }
  void storeIsBack(uint64_t nowMs);
  // When over() has something next; kNever: there is nothing.
  uint64_t wakeAtMs() const { return nextMs_; }
  // The members of whose own values some are held back.
  std::set<std::string> members() const;

 private:
  struct Held {
    uint64_t goneAtMs = 0;
    bool anew = false;  // its time began anew
  };

  bool endedByItself(const Change& change) const;

  KeySpace keys_;
  uint64_t graceMs_;
  std::map<std::string, Held> held_;        // by key
  uint64_t nextMs_ = kNever;                // not after the first of these is gone
  uint64_t lostMs_ = 0;                     // when the store was lost last
  std::map<std::string, int64_t> leaving_;  // marks, and the leases of those who leave
};

}  // namespace Kelstore::Etcd
