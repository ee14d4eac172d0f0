#include "tests/cluster-simulation/Judge.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace ClusterSimulation {
namespace {

constexpr uint64_t kNever = Etcd::Follower::kNever;

}  // namespace

int64_t Judge::Past::first(const std::string& text) const {
  auto found = std::find_if(puts.begin(), puts.end(), [&](const Put& put) { return put.text == text; });
  return found == puts.end() ? 0 : found->revision;
}

int64_t Judge::Past::last(const std::string& text) const {
  auto found = std::find_if(puts.rbegin(), puts.rend(), [&](const Put& put) { return put.text == text; });
  return found == puts.rend() ? 0 : found->revision;
}

Judge::Judge(World& world, const Followers& followers, const Members& members, unsigned sampled)
    : world_(world), followers_(followers), members_(members), sampled_(sampled) {}

void Judge::wrong(const std::string& what) {
  if (verdict_.empty()) {
    verdict_ =
        fmt::format("{:.3f} s: {}", static_cast<double>(world_.nowMs() - World::kStartMs) / 1000, what);
  }
}

// The store.

void Judge::committed(int64_t revision, const std::vector<Etcd::Event>& events, Store::Cause cause) {
  uint64_t nowMs = world_.nowMs();
  for (const Etcd::Event& event : events) {
    absl::StatusOr<Kelstore::Path> path = keys_.path(event.record.key);
    if (!path.ok()) continue;
    Past& past = past_[*path];
    if (!event.deleted) {
      if (past.first(event.record.value) != 0 &&
          past.first(event.record.value) < past.first(past.puts.back().text))
        wrong(fmt::format("{}: an old value is published again: {}", path->text(), event.record.value));
      past.puts.push_back({revision, nowMs, event.record.value});
      if (++puts_ % sampled_ != 0) continue;
      world_.in(kShownMs, [this, path = *path, revision, nowMs] { lookForRow(path, revision, nowMs); });
      continue;
    }
    bool lapsed = cause == Store::Cause::lapsed || cause == Store::Cause::revoked;
    past.deletions.push_back({revision, nowMs, lapsed});
    std::string why = lapsed ? "after its lease lapsed" : "after it was withdrawn";
    world_.in(lapsed ? kLapsedMs : kAtOnceMs,
              [this, path = *path, revision, nowMs, why] { lookForOldRow(path, revision, nowMs, why); });
  }
}

void Judge::lapsed(int64_t lease) {
  for (const auto& member : members_) {
    if (!member->owns(lease)) continue;
    ++checks_;
    uint64_t since = health_[member.get()].servedSinceMs;
    bool excused = !member->served() || since == kNever ||
                   std::max(since, member->answersLostMs()) + MemberHost::kTtlMs > world_.nowMs();
    if (!excused) wrong(fmt::format("a lease of member {} lapsed, which was served", member->member()));
  }
}

// Followers.

void Judge::changed(const FollowerHost& follower, const std::vector<Kelstore::Path>& paths) {
  if (shown_.size() <= follower.number()) shown_.resize(follower.number() + 1);
  for (const Kelstore::Path& path : paths) {
    if (Kelstore::specOf(path.kind).container()) continue;
    ++checks_;
    std::string text = follower.text(path);
    if (text.empty()) {
      vanished(follower, path);
    } else {
      appeared(follower, path, text);
    }
  }
}

void Judge::appeared(const FollowerHost& follower, const Kelstore::Path& path, const std::string& text) {
  const Past& past = past_[path];
  Shown& shown = shown_[follower.number()][path];
  int64_t last = past.last(text);
  if (last == 0) {
    wrong(fmt::format("follower {}: {}: a value that was never published: {}", follower.number(), path.text(),
                      text));
  } else if (last < shown.first) {
    wrong(fmt::format("follower {}: {}: an old value, of revision {}, after {} of {}", follower.number(),
                      path.text(), last, shown.text.empty() ? "it was withdrawn" : shown.text, shown.first));
  }
  shown = {text, last, past.first(text)};
}

// What it shows goes only with a deletion: one that was written, or one after which the grace has passed
// without another put that it has heard of.
void Judge::vanished(const FollowerHost& follower, const Kelstore::Path& path) {
  const Past& past = past_[path];
  Shown& shown = shown_[follower.number()][path];
  int64_t first = 0;
  int64_t last = 0;
  for (const Deletion& one : past.deletions) {
    if (one.revision < shown.first) continue;
    bool due = !one.lapsed || world_.nowMs() >= one.ms + FollowerHost::kGraceMs;
    bool again =
        !follower.mayMissSomething() && std::any_of(past.puts.begin(), past.puts.end(), [&](const Put& put) {
          return put.revision > one.revision && put.revision <= follower.follower().revision();
        });
    if (!due || again) continue;
    if (first == 0) first = one.revision;
    last = one.revision;
  }
  if (first == 0) {
    wrong(
        fmt::format("follower {}: {}: the row goes without a cause, its last value {} is of revision {}, "
                    "the key was put last at {} and deleted last at {}, the follower is at {}",
                    follower.number(), path.text(), shown.text, shown.revision, past.putLast(),
                    past.deletedLast(), follower.follower().revision()));
  }
  shown = {"", last, first};
}

void Judge::lookForRow(const Kelstore::Path& path, int64_t revision, uint64_t ms) {
  const Past& past = past_[path];
  for (const auto& follower : followers_) {
    if (!follower->soundSince(ms) || past.deletedLast() > revision) continue;
    ++checks_;
    std::string text = follower->text(path);
    if (text.empty()) {
      wrong(fmt::format("follower {}: {}: no row, although it was put at revision {}", follower->number(),
                        path.text(), revision));
    } else if (past.last(text) < revision) {
      wrong(fmt::format("follower {}: {}: shows {} of revision {} for over 2 s after {}", follower->number(),
                        path.text(), text, past.last(text), revision));
    }
  }
}

void Judge::lookForOldRow(const Kelstore::Path& path, int64_t revision, uint64_t ms, const std::string& why) {
  const Past& past = past_[path];
  if (past.putLast() > revision) return;
  for (const auto& follower : followers_) {
    if (!follower->soundSince(ms)) continue;
    ++checks_;
    if (follower->text(path).empty()) continue;
    wrong(fmt::format("follower {}: {}: the row is there {:.1f} s {}", follower->number(), path.text(),
                      static_cast<double>(world_.nowMs() - ms) / 1000, why));
  }
}

// Publishers.

bool Judge::alone(const MemberHost& member) const {
  return std::count_if(members_.begin(), members_.end(), [&](const auto& one) {
           return one->member() == member.member() && one->running();
         }) == 1;
}

void Judge::look(const Store& store) {
  bool well = true;
  for (size_t i = 0; i < Store::kServers; ++i) well &= store.healthy(i);
  if (!well || store.full()) allHealthyMs_ = world_.nowMs();
  for (const auto& member : members_) {
    if (!member->running()) continue;
    if (!alone(*member)) aloneSinceMs_[member->member()] = world_.nowMs();
    lookAt(*member, health_[member.get()], store);
  }
}

void Judge::lookAt(const MemberHost& member, Health& health, const Store& store) {
  uint64_t nowMs = world_.nowMs();
  auto note = [nowMs](uint64_t& since, bool is) { since = !is ? kNever : since == kNever ? nowMs : since; };
  note(health.servedSinceMs, member.served() && !store.full());
  note(health.wellSinceMs, member.servedWell() && allHealthyMs_ < nowMs);
  note(health.refusedSinceMs, member.refusesWrites() && !member.suspended() && !store.stalls());
  auto forMs = [nowMs](uint64_t since) { return since == kNever ? 0 : nowMs - since; };
  uint64_t aloneMs = nowMs - aloneSinceMs_[member.member()];

  if (forMs(health.wellSinceMs) > kPublishedMs && aloneMs > kPublishedMs + 2 * MemberHost::kTtlMs &&
      nowMs > allRevokedMs_ + kAnewMs) {
    for (const auto& [path, value] : member.content()) {
      if (!member.wants(path, kWrittenMs)) continue;
      ++checks_;
      if (!past_[path].there())
        wrong(fmt::format("{} is not in the store, its publisher is well", path.text()));
    }
  }
  uint64_t frozenMs = std::min(forMs(health.refusedSinceMs), nowMs - allHealthyMs_);
  if (frozenMs > 2 * MemberHost::kTtlMs + 2000 && aloneMs > frozenMs) {
    for (const auto& [path, value] : member.content()) {
      ++checks_;
      if (past_[path].there()) wrong(fmt::format("{} stands still, as nothing can be written", path.text()));
    }
  }
}

// The end.

void Judge::atEnd(const Store& store) {
  std::map<std::string, std::string> content = store.content();
  for (const auto& follower : followers_) {
    std::map<std::string, std::string> tables;
    for (const auto& [path, value] : follower->tables()) {
      if (!Kelstore::specOf(path.kind).container()) tables[keys_.key(path)] = Kelstore::encode(value).dump();
    }
    ++checks_;
    if (tables == content) continue;
    auto differs = std::mismatch(tables.begin(), tables.end(), content.begin(), content.end());
    wrong(fmt::format(
        "at the end follower {}, which is {}, differs from the store: it has {} rows, the store {}; "
        "{}, expected {}",
        follower->number(), Etcd::stateName(follower->follower().state()), tables.size(), content.size(),
        differs.first == tables.end() ? "nothing" : differs.first->first + differs.first->second,
        differs.second == content.end() ? "nothing" : differs.second->first + differs.second->second));
  }
  std::map<uint8_t, std::set<std::string>> wanted;  // what the processes of a member want, any of them
  std::set<std::string> expected;
  for (const auto& member : members_) {
    if (!member->running()) continue;
    bool publishes = std::all_of(member->content().begin(), member->content().end(), [&](const auto& one) {
      auto found = content.find(keys_.key(one.first));
      return found != content.end() && found->second == Kelstore::encode(one.second).dump();
    });
    for (const auto& [path, value] : member->content()) expected.insert(keys_.key(path));
    wanted.try_emplace(member->member());
    if (publishes) wanted[member->member()].insert("published");
  }
  for (const auto& [member, published] : wanted) {
    ++checks_;
    if (published.empty()) wrong(fmt::format("at the end nobody has published all of member {}", member));
  }
  for (const auto& [key, text] : content) {
    if (!expected.contains(key))
      wrong(fmt::format("at the end {} is in the store, and nobody publishes it", key));
  }
}

}  // namespace ClusterSimulation
