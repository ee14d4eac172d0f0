#include "health/Members.h"

namespace Health {
namespace {

MemberState stateOf(const Facts& facts, Trel::MemberId id, const Member* before) {
  auto there = facts.there.find(id);
  if (there == facts.there.end()) {
    bool seen = before != nullptr && before->state != MemberState::expected;
    if (!seen) return MemberState::expected;
    // Whether one that was there is gone cannot be known from a source whose values are withdrawn.
    return facts.blind && before->state != MemberState::lost ? MemberState::stale : MemberState::lost;
  }
  if (!facts.expected.empty() && !facts.expected.contains(id)) return MemberState::unexpected;
  const MemberFacts& member = there->second;
  if (member.source == MemberFacts::Source::stale) return MemberState::stale;
  if (member.source == MemberFacts::Source::held) return MemberState::held;
  bool silent = member.silentUtcNs && facts.nowUtcNs >= *member.silentUtcNs;
  return silent ? MemberState::silent : MemberState::present;
}

}  // namespace

void Members::look(const Facts& facts) {
  std::set<Trel::MemberId> ids;
  for (const auto& [id, name] : facts.expected) ids.insert(id);
  for (const auto& [id, member] : facts.there) ids.insert(id);
  // Where it is not said who belongs to the cluster, whoever is wired or was seen does.
  if (facts.expected.empty()) {
    ids.insert(facts.wired.begin(), facts.wired.end());
    for (const auto& [id, member] : members_) {
      if (member.state != MemberState::expected) ids.insert(id);
    }
  }
  std::erase_if(members_, [&ids](const auto& one) { return !ids.contains(one.first); });
  for (Trel::MemberId id : ids) {
    auto known = members_.find(id);
    MemberState state = stateOf(facts, id, known == members_.end() ? nullptr : &known->second);
    if (known == members_.end()) {
      known = members_.emplace(id, Member{state, "", facts.nowUtcNs, 0}).first;
    } else if (known->second.state != state) {
      known->second.state = state;
      known->second.sinceUtcNs = facts.nowUtcNs;
      ++known->second.changes;
    }
    // What it says of itself counts more than what it is expected to be called.
    auto own = facts.names.find(id);
    auto given = facts.expected.find(id);
    if (own != facts.names.end()) {
      known->second.name = own->second;
    } else if (given != facts.expected.end() &&
               (known->second.name.empty() || state == MemberState::expected)) {
      known->second.name = given->second;
    }
  }
}

}  // namespace Health
