// Uptime and date of members that publish packed figures. A publisher writes these only when something else
// changes, or now and then; in between the two go on by this machine's monotonic clock.
//
// How old a value is when it comes: one that a watch tells of counts as written just now, although it may
// come late, and what an audit repairs or a watch catches up with is older. One that a listing shows was
// written earlier: as much earlier as the publisher's clock is behind this machine's, if that is kMaxAgeMs at
// most. Otherwise the clocks differ, and it counts as written just now, too. So uptime and date are wrong by
// the difference of the clocks, or by the time since the value was written, until the next write.
//
// Neither goes back for that, as that would look as if the machine had started again: while a value shows the
// same start of the machine as the last one, they stand still until it has caught up.
//
// On the follower's thread.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <vector>

#include "kelstore/etcd/Decoder.h"
#include "kelstore/etcd/Grace.h"
#include "platform/zavro/Clock.h"

namespace Kelstore::Etcd {

class RunningClocks final {
 public:
  static constexpr uint64_t kTickMs = 1'000;
  static constexpr uint64_t kMaxAgeMs = 60'000;
  // Two values within this show the same start: clocks are slewed, and times are rounded.
  static constexpr double kSameStartSeconds = 1;
  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

  // Takes the systems among the changes, and makes them as of now. old: they come from a listing.
  void take(Decoder::Decoded& decoded, const Zavro::Clock& clock, bool old);
  // When kTickMs have passed since the last time: the systems as of now, but those of members that are held
  // back; otherwise nothing. Sorted by path.
  std::vector<Snapshot::Change> tick(const Zavro::Clock& clock, const Grace& grace);
  // When tick() has something next; kNever: there is nothing.
  uint64_t wakeAtMs() const { return running_.empty() ? kNever : nextMs_; }

 private:
  struct Running {
    System system;           // as it was written
    uint64_t writtenNs = 0;  // on the monotonic clock, before 0 possibly: modulo 2^64
    System shown;            // last
  };
  static const System& show(Running& running, uint64_t nowNs);

  std::map<Path, Running> running_;
  uint64_t nextMs_ = 0;
};

}  // namespace Kelstore::Etcd
