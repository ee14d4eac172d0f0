#include "health/Links.h"

#include <algorithm>

namespace Health {
namespace {

using State = Trel::ReachabilityState::State;

bool carries(const LinkEnd& end) { return end.state() == State::reachable || end.state() == State::degraded; }
bool carriesNot(const LinkEnd& end) {
  return end.state() == State::unreachable || end.state() == State::disabled;
}

bool miswired(const LinkEnd& end) {
  if (!end.wired || end.report == nullptr) return false;
  const auto& reported = end.report->backplaneChannelIntfId();
  return reported && *reported != *end.wired;
}

// An end is the members from which and to which it looks.
MemberPair pairOf(const MemberPair& end) {
  return end.first < end.second ? end : MemberPair(end.second, end.first);
}

LinkEnd& endOf(Link& link, const MemberPair& end) { return end.first < end.second ? link.low : link.high; }

bool named(const LinkEnd& end) { return end.wired || end.report != nullptr; }

}  // namespace

const Lanix::IntfId* LinkEnd::interface() const {
  if (wired) return &*wired;
  if (report == nullptr || !report->backplaneChannelIntfId()) return nullptr;
  return &*report->backplaneChannelIntfId();
}

std::optional<State> LinkEnd::state() const {
  if (report == nullptr) return std::nullopt;
  return report->state();
}

// Changes one end, and what is found by its interface with it.
template <class Change>
void Links::change(const End& end, Change change) {
  if (end.first == end.second) return;
  Link& link = links_[pairOf(end)];
  LinkEnd& at = endOf(link, end);
  changed_.insert(pairOf(end));
  if (at.interface() != nullptr) byInterface_.erase({*at.interface(), end});
  change(at, link);
  const Lanix::IntfId* interface = at.interface();
  if (interface != nullptr) byInterface_.insert({*interface, end});
  auto index = interface == nullptr ? indexes_.end() : indexes_.find(*interface);
  indexIs(end, at, index == indexes_.end() ? 0 : index->second);
}

void Links::wiredIs(Trel::MemberId from, Trel::MemberId to, std::optional<Lanix::IntfId> interface) {
  change({from, to}, [&](LinkEnd& end, const Link& /*link*/) { end.wired = std::move(interface); });
}

void Links::reportIs(Trel::MemberId from, Trel::MemberId to,
                     Zavro::Ptr<const Trel::ReachabilityState> report) {
  change({from, to}, [&](LinkEnd& end, const Link& link) {
    auto before = end.state();
    end.report = std::move(report);
    if (link.sinceUtcNs != 0 && end.state() != before) ++end.changes;
  });
}

void Links::ifIndexIs(const Lanix::IntfId& interface, uint32_t ifIndex) {
  if (ifIndex == 0) {
    indexes_.erase(interface);
  } else {
    indexes_[interface] = ifIndex;
  }
  for (auto at = byInterface_.lower_bound({interface, End()});
       at != byInterface_.end() && at->first == interface; ++at) {
    const End& end = at->second;
    changed_.insert(pairOf(end));
    indexIs(end, endOf(links_.at(pairOf(end)), end), ifIndex);
  }
}

void Links::indexIs(const End& end, LinkEnd& at, uint32_t ifIndex) {
  if (at.ifIndex == ifIndex) return;
  if (at.ifIndex != 0) {
    byIndex_.erase({at.ifIndex, end});
    othersJudged(at.ifIndex);
  }
  at.ifIndex = ifIndex;
  if (ifIndex == 0) return;
  othersJudged(ifIndex);
  byIndex_.insert({ifIndex, end});
}

// An end comes to those that have an ifIndex, or has left them. That matters to another one only if it is
// alone.
void Links::othersJudged(uint32_t ifIndex) {
  auto first = byIndex_.lower_bound({ifIndex, End()});
  if (first == byIndex_.end() || first->first != ifIndex || shared(ifIndex)) return;
  const End& alone = first->second;
  changed_.insert(pairOf(alone));
}

bool Links::shared(uint32_t ifIndex) const {
  auto second = byIndex_.lower_bound({ifIndex, End()});
  if (second == byIndex_.end()) return false;
  ++second;
  return second != byIndex_.end() && second->first == ifIndex;
}

LinkVerdict Links::judged(const Link& link) const {
  auto any = [&link](auto is) { return is(link.low) || is(link.high); };
  auto one = [&link](auto is) { return is(link.low) != is(link.high); };
  if (any(miswired)) return LinkVerdict::miswired;
  if (any([](const LinkEnd& end) { return end.state() == State::unreachable; }) && !any(carries))
    return LinkVerdict::down;
  if (any(carries) && any(carriesNot)) return LinkVerdict::statesDiffer;
  if (one([](const LinkEnd& end) { return end.wired.has_value(); }) ||
      one([](const LinkEnd& end) { return end.report != nullptr; }))
    return LinkVerdict::oneSided;
  if (any([this](const LinkEnd& end) { return end.ifIndex != 0 && shared(end.ifIndex); }))
    return LinkVerdict::sharedIndex;
  if (any([](const LinkEnd& end) { return end.ifIndex == 0; })) return LinkVerdict::noIndex;
  return LinkVerdict::ok;
}

void Links::look(uint64_t nowUtcNs) {
  for (const MemberPair& pair : changed_) {
    auto at = links_.find(pair);
    if (at == links_.end()) continue;
    Link& link = at->second;
    bool known = link.sinceUtcNs != 0;
    if (known) --counts_[static_cast<size_t>(link.verdict)];
    if (!named(link.low) && !named(link.high)) {
      links_.erase(at);
      continue;
    }
    LinkVerdict verdict = judged(link);
    ++counts_[static_cast<size_t>(verdict)];
    if (known && link.verdict == verdict) continue;
    link.verdict = verdict;
    link.sinceUtcNs = nowUtcNs;
    if (known) ++link.changes;
  }
  changed_.clear();
}

}  // namespace Health
