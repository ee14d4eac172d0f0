// The links between members, and what is wrong with each. A link is a pair of members that the topology or a
// report of reachability names. The state names one interface for each neighbour, so that two members have
// one link. Without I/O or clock. On the event loop's thread.
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/kor/EnumNames.h"
#include "platform/lanix/IntfId.h"
#include "platform/trel/MemberId.h"
#include "platform/trel/Reachability.h"

namespace Health {

// The first of these that is true, in this order: a cause comes before what it leads to, and a link that
// carries nothing before one that is described badly. A state says that the link carries (reachable,
// degraded), that it does not (unreachable, disabled), or nothing (all others).
enum class LinkVerdict : uint8_t {
  ok,            // none of the others, also where nothing is known yet, and where both ends are disabled
  miswired,      // an end reports another interface than the topology gives it for this neighbour
  down,          // an end reports unreachable, and none reports that the link carries
  statesDiffer,  // one end reports that the link carries, the other that it does not
  oneSided,      // one end is in the topology, or reports, and the other is not, or does not
  sharedIndex,   // an end's ifIndex is also that of another end, of this link or another
  noIndex,       // an end's interface is not known, or has no ifIndex
};
constexpr auto namesOf(LinkVerdict /*verdict*/) {
  return std::to_array<std::string_view>(
      {"ok", "miswired", "down", "statesDiffer", "oneSided", "sharedIndex", "noIndex"});
}

// What is known at one end of a link.
struct LinkEnd {
  std::optional<Lanix::IntfId> wired;                // toward the other end, by the topology
  Zavro::Ptr<const Trel::ReachabilityState> report;  // null: the member does not report
  uint32_t ifIndex = 0;                              // of interface(); 0: none
  uint32_t changes = 0;                              // of the reported state, also to and from none

  const Lanix::IntfId* interface() const;  // as wired, or else as reported; null: not known
  std::optional<Trel::ReachabilityState::State> state() const;  // nothing: the member does not report
};

// The lower member's end is the first.
using MemberPair = std::pair<Trel::MemberId, Trel::MemberId>;
struct Link {
  LinkEnd low;
  LinkEnd high;
  LinkVerdict verdict = LinkVerdict::ok;
  uint64_t sinceUtcNs = 0;  // that the verdict is so; 0: look() has not seen the link yet
  uint64_t changes = 0;     // of the verdict
};

class Links final {
 public:
  // What the inputs say now; nothing or null: they do not say it any more. A change takes time by the
  // logarithm of the number of links; one of an interface's ifIndex does so for each end that has the
  // interface. What a member says of itself is no link.
  void wiredIs(Trel::MemberId from, Trel::MemberId to, std::optional<Lanix::IntfId> interface);
  void reportIs(Trel::MemberId from, Trel::MemberId to, Zavro::Ptr<const Trel::ReachabilityState> report);
  // 0: none.
  void ifIndexIs(const Lanix::IntfId& interface, uint32_t ifIndex);

  // Judges the links that the changes since the last call concern. What changes between two calls is judged
  // as one change. Requires: not 0.
  void look(uint64_t nowUtcNs);

  using All = absl::btree_map<MemberPair, Link>;
  // Verdicts are as of the last look(), all else as of now. Valid until something changes.
  const All& all() const { return links_; }
  // How many have each verdict, by its number.
  const std::array<size_t, Kor::kNames<LinkVerdict>.size()>& counts() const { return counts_; }

 private:
  using End = std::pair<Trel::MemberId, Trel::MemberId>;  // from, to

  template <class Change>
  void change(const End& end, Change change);
  void indexIs(const End& end, LinkEnd& at, uint32_t ifIndex);
  void othersJudged(uint32_t ifIndex);
  bool shared(uint32_t ifIndex) const;
  LinkVerdict judged(const Link& link) const;

  All links_;
  absl::btree_set<MemberPair> changed_;  // since the last look()
  std::array<size_t, Kor::kNames<LinkVerdict>.size()> counts_{};
  absl::btree_map<Lanix::IntfId, uint32_t> indexes_;            // not 0
  absl::btree_set<std::pair<Lanix::IntfId, End>> byInterface_;  // ends by interface()
  absl::btree_set<std::pair<uint32_t, End>> byIndex_;           // those of them that have an ifIndex
};

}  // namespace Health
