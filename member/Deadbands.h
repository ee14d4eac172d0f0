// Which changes of figures are so small that they need not be written at once. Functions and a class without
// I/O.
//
// A change of a packed form (kelstore/Packed.h) is small while each of its figures is within its deadband of
// what was written last. Uptime and date go on with those who read them; they have changed when the machine
// started or its clock was set.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "member/LeaseStore.h"

namespace Member {

// A figure within its deadband of the written one is not written; 0: each change is written.
struct Deadbands {
  uint32_t load = 5;       // percent points
  double memory = 1;       // percent of the total
  double storage = 0.1;    // percent of the size
  uint32_t processes = 5;  // processes
  uint32_t users = 0;      // sessions
  uint32_t longest = 30;   // seconds after which small changes are written, too
  bool operator==(const Deadbands&) const = default;
};

// How far the clock may step, or the start of the machine seem to move, before that is written at once.
inline constexpr double kClockStepSeconds = 1;

// Whether the packed form differs from the one that was written so many seconds ago by small changes only.
// What begins or ceases to be free at all, or known at all, is no small change.
bool isSmallChange(const Kelstore::Path& path, const std::string& written, const std::string& now,
                   double seconds, const Deadbands& deadbands);

// When packed forms were written, and whether they are due again.
class SmallChanges {
 public:
  explicit SmallChanges(const Deadbands& deadbands) : deadbands_(deadbands) {}
  void deadbandsAre(const Deadbands& deadbands) { deadbands_ = deadbands; }

  void written(const Kelstore::Path& path, uint64_t nowNs);
  // Takes the changes out that can wait, as the holdings have nearly the same under this lease. Returns the
  // one that waits for longest; nothing: there is none.
  std::optional<LeaseStore::Change> takeOut(std::vector<LeaseStore::Change>& changes,
                                            const LeaseStore::Holdings& holdings, LeaseStore::Lease lease,
                                            uint64_t nowNs) const;

 private:
  bool canWait(const LeaseStore::Change& change, const LeaseStore::Holdings& holdings,
               LeaseStore::Lease lease, uint64_t nowNs) const;

  Deadbands deadbands_;
  std::map<Kelstore::Path, uint64_t> writtenNs_;
};

}  // namespace Member
