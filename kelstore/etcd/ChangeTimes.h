// When reports on neighbours changed, on this machine's clock. A member writes that by its own, from which
// the difference of the clocks is taken off (ClockDifferences.h), so that a change is not shown as before or
// after others by that much. A time that is to come by this machine's clock, since the difference is not
// known yet, becomes the time at which it arrived. All other times stay as they are published. On the
// follower's thread.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "kelstore/etcd/ClockDifferences.h"
#include "kelstore/etcd/Decoder.h"
#include "platform/zavro/Clock.h"

namespace Kelstore::Etcd {

class ChangeTimes final {
 public:
  using Difference = ClockDifferences::Difference;

  // The clock outlives this.
  explicit ChangeTimes(const Zavro::Clock& clock) : clock_(clock) {}

  // Corrects the reports among the changes of the state, which are sorted by path, and adds those of `state`
  // whose correction has changed. justNow: the changes were written just now, so that the times that members
  // publish among them count.
  void correct(std::vector<Snapshot::Change>& changes, const Snapshot& state, bool justNow);
  // What is known of a member's clock; nothing: too little.
  std::optional<Difference> differenceOf(const std::string& member) const { return differences_.of(member); }
  // The lines since the last call: one for each correction that has changed.
  std::vector<Line> takeLines();

 private:
  ClockDifferences::Now now() const;
  std::set<std::string> noteClocks();
  bool noteTime(const std::string& member, double utcSeconds);
  void correct(const Path& path, std::optional<Value>& report, const Snapshot& state);
  uint64_t shownNs(const Path& path, uint64_t publishedNs, const Snapshot& state) const;
  void addReportsOf(const std::set<std::string>& members, std::vector<Snapshot::Change>& changes,
                    const Snapshot& state);

  const Zavro::Clock& clock_;
  ClockDifferences differences_;
  std::map<Path, uint64_t> published_;  // times that are not shown as they are
  std::vector<Line> lines_;
};

}  // namespace Kelstore::Etcd
