// Who belongs to the cluster, and what is known of each member: that it is there, that what is known is old,
// or that it was there and is not any more. Without I/O or clock. On the event loop's thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/kor/EnumNames.h"
#include "platform/trel/MemberId.h"

namespace Health {

enum class MemberState : uint8_t {
  expected,    // belongs to the cluster, and was not seen since the start
  present,     // its values are what it says
  silent,      // the same, but it has not said anything for too long, although its lease is still there
  held,        // it cannot be heard, and its last values are used
  stale,       // the same, for too long
  lost,        // was there, and has left or its lease has ended
  unexpected,  // is there, and does not belong to the cluster
};
constexpr auto namesOf(MemberState /*state*/) {
  return std::to_array<std::string_view>(
      {"expected", "present", "silent", "held", "stale", "lost", "unexpected"});
}

// What the sources say of a member whose values are there.
struct MemberFacts {
  enum class Source : uint8_t { current, held, stale };
  Source source = Source::current;  // the worst of those that have values of it
  // When it has said nothing for too long. Nothing: it need not say anything, or that is not known.
  std::optional<uint64_t> silentUtcNs{};
};

struct Facts {
  using Names = std::map<Trel::MemberId, std::string>;

  uint64_t nowUtcNs = 0;
  bool blind = false;  // a source cannot be read, and has no values either
  std::map<Trel::MemberId, MemberFacts> there;
  Names names;                     // of hosts
  Names expected;                  // who belongs to the cluster, by name or ""; empty: nobody says
  std::set<Trel::MemberId> wired;  // whom the topology names
};

struct Member {
  MemberState state = MemberState::expected;
  std::string name;  // the last known one; empty: it has none
  uint64_t sinceUtcNs = 0;
  uint64_t changes = 0;  // of the state, since it was known first
};

class Members final {
 public:
  // Takes what is known now. A lost member stays until it is back, or until others are said to be expected.
  void look(const Facts& facts);
  const std::map<Trel::MemberId, Member>& all() const { return members_; }

 private:
  std::map<Trel::MemberId, Member> members_;
};

}  // namespace Health
