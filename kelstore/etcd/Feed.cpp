#include "kelstore/etcd/Feed.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "platform/lumalog/Lumalog.h"
#include "runtime/Memory.h"
#include "runtime/Text.h"

namespace Kelstore::Etcd {
namespace {

using Lumalog::kErrorLevel;
constexpr int kNewsLevel = 1;
constexpr size_t kErrorsRemembered = 100;
// What it takes to decode a value and to mirror it, roughly.
constexpr size_t kDecodedBytes = 500;
// So many changes leave enough freed memory behind to give it back, which takes milliseconds.
constexpr size_t kManyChanges = 10'000;

std::string textOf(const KeyTable::Refused& refused) {
  return fmt::format("{} left out, as there are more than {}; one is {}", refused.keys, refused.most,
                     Runtime::shortened(refused.example, Feed::kExampleBytes));
}

std::vector<Path> pathsOf(const Snapshot& snapshot) {
  std::vector<Path> paths;
  paths.reserve(snapshot.size());
  for (const auto& [path, value] : snapshot) paths.push_back(path);
  return paths;
}

}  // namespace

Feed::Feed(KeySpace keys, const Settings& settings, const Zavro::Clock& clock, Mailbox& mailbox)
    : keys_(std::move(keys)),
      settings_(settings),
      clock_(clock),
      mailbox_(mailbox),
      decoder_(keys_, settings_.limits),
      grace_(keys_, settings_.graceMs),
      changeTimes_(clock) {}

void Feed::follow(Follower& follower) {
  size_t changes = 0;
  for (Batch& batch : follower.takeBatches()) {
    changes += batch.changes.size();
    take(std::move(batch));
  }
  if (changes >= kManyChanges) {
    follower.compact();
    Runtime::returnFreedMemory();
  }
  noteState(follower);
  // While the store is lost, nobody can be back, and nobody knows who is alive.
  if (state_ == Follower::State::watching) {
    endGrace();
    tick();
  }
  noteResyncs(follower);
  noteRefused(follower.refused());
  for (Line& line : decoder_.takeLines()) lines_.push_back(std::move(line));
  for (Line& line : changeTimes_.takeLines()) lines_.push_back(std::move(line));
  bool settles = !settled_ && (follower.complete() || follower.unreached());
  settled_ |= settles;
  if (settles || !lines_.empty()) mailbox_.give({.settled = settles, .lines = std::exchange(lines_, {})});
  mailbox_.statusIs(statusOf(follower));
}

void Feed::startsAnew() {
  decoder_ = Decoder(keys_, settings_.limits);
  counted_ = {};
  heardMs_ = 0;
  if (staleSinceUtcNs_ == 0) staleSinceUtcNs_ = clock_.utcNs();
}

void Feed::take(Batch batch) {
  Runtime::needMemoryFor(batch.changes.size() * kDecodedBytes);
  grace_.pass(batch, nowMs());
  decode(std::move(batch));
  noteHeldMembers();
}

void Feed::decode(Batch batch) {
  bool whole = batch.whole;
  revision_ = batch.revision;
  Decoder::Decoded decoded = decoder_.decode(std::move(batch), *snapshot_);
  if (whole) withdrawOthers(decoded);
  // A watch tells of what was written just now or not long ago, a listing of what may be old.
  bool justNow = state_ == Follower::State::watching;
  changeTimes_.correct(decoded.changes, *snapshot_, justNow);
  clocks_.take(decoded, clock_, !justNow);
  std::vector<Path> changed;
  snapshot_ = std::make_shared<const Snapshot>(snapshot_->with(std::move(decoded.changes), changed));
  noteMembers(decoded.members);
  listed_ = true;
  if (visible_) give(std::move(changed), /*news=*/true);
}

uint64_t Feed::wakeAtMs() const {
  if (state_ != Follower::State::watching) return Follower::kNever;
  return std::min(grace_.wakeAtMs(), clocks_.wakeAtMs());
}

// Members whose leases have ended are not known to be alive.
void Feed::tick() {
  std::vector<Snapshot::Change> changes = clocks_.tick(clock_, grace_);
  if (changes.empty()) return;
  std::vector<Path> changed;
  snapshot_ = std::make_shared<const Snapshot>(snapshot_->with(std::move(changes), changed));
  if (visible_) give(std::move(changed), /*news=*/false);
}

void Feed::give(std::vector<Path> changed, bool news) {
  news = news && !changed.empty();
  auto shown = visible_ ? snapshot_ : std::make_shared<const Snapshot>();
  mailbox_.give(
      {.snapshot = std::move(shown), .changed = std::move(changed), .revision = revision_, .news = news});
}

// Ends the grace of those who have not come back.
void Feed::endGrace() {
  std::vector<Change> gone = grace_.over(nowMs());
  if (gone.empty()) return;
  decode({revision_, std::move(gone), false});
  noteHeldMembers();
}

void Feed::noteHeldMembers() {
  for (auto& [name, member] : members_) {
    uint64_t& since = member.status.heldSinceUtcNs;
    if (grace_.holds(name) == (since != 0)) continue;
    since = since == 0 ? clock_.utcNs() : 0;
    mailbox_.memberIs(member.status);
  }
}

// Adds a deletion for each value that was handed over and is not among all keys.
void Feed::withdrawOthers(Decoder::Decoded& decoded) const {
  std::vector<Snapshot::Change> gone;
  auto next = decoded.changes.begin();
  for (const auto& [path, value] : *snapshot_) {
    while (next != decoded.changes.end() && next->first < path) ++next;
    bool there = next != decoded.changes.end() && next->first == path;
    if (there || decoded.unusable.affect(path)) continue;
    gone.emplace_back(path, std::nullopt);
    if (specOf(path.kind).entity != MemberEntity::none) decoded.members[std::string(path.first())];
  }
  auto middle = decoded.changes.insert(decoded.changes.end(), gone.begin(), gone.end());
  std::inplace_merge(decoded.changes.begin(), middle, decoded.changes.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
}

void Feed::noteMembers(const std::map<std::string, int64_t>& leases) {
  for (const auto& [name, lease] : leases) {
    if (!snapshot_->anyOfMember(name)) {
      if (members_.erase(name) != 0) mailbox_.memberDel(name);
      continue;
    }
    Member& member = members_[name];
    member.status.member = name;
    auto clock = changeTimes_.differenceOf(name);
    member.status.clockAheadSeconds = clock ? std::optional(clock->aheadSeconds) : std::nullopt;
    member.status.clockErrorSeconds = clock ? clock->errorSeconds : 0;
    // The first listing says nothing of when its keys changed.
    if (listed_) member.status.lastChangeUtcNs = clock_.utcNs();
    if (lease != 0 && lease != std::exchange(member.lease, lease)) {
      member.status.leased = true;
      member.status.leaseLeftSeconds.reset();
      member.status.leaseSeconds = 0;
    }
    mailbox_.memberIs(member.status);
  }
}

void Feed::visibleIs(bool visible) {
  if (visible == std::exchange(visible_, visible)) return;
  give(pathsOf(*snapshot_), /*news=*/true);
}

void Feed::tell(int level, std::string text) { lines_.push_back({level, std::move(text)}); }

void Feed::noteState(const Follower& follower) {
  using State = Follower::State;
  State before = std::exchange(state_, follower.state());
  bool watches = state_ == State::watching;
  if (std::exchange(heardMs_, follower.heardMs()) != follower.heardMs()) heardUtcNs_ = clock_.utcNs();
  if (watches) {
    if (before != State::watching) {
      tell(kNewsLevel,
           fmt::format("follows {} from revision {}{}", follower.endpoint(), follower.revision(),
                       snapshot_->size() != 0
                           ? ""
                           : ", where nothing is below this prefix: see that it is the publishers', and "
                             "that trelmemberd runs on the members"));
      grace_.storeIsBack(nowMs());
    }
    toldErrors_.clear();
    heldSinceUtcNs_ = 0;
    staleSinceUtcNs_ = 0;
    visibleIs(true);
  } else if (!follower.goesHome() && !follower.lastError().empty() &&
             toldErrors_.insert(follower.lastError()).second) {
    // Each error once, although servers that are tried in turn repeat their errors.
    if (toldErrors_.size() > kErrorsRemembered) toldErrors_ = {follower.lastError()};
    tell(kErrorLevel, follower.lastError());
  }
  bool unreached = follower.unreached();
  if ((state_ == State::held || state_ == State::stale) && heldSinceUtcNs_ == 0)
    heldSinceUtcNs_ = clock_.utcNs();
  if ((state_ == State::stale || unreached) && staleSinceUtcNs_ == 0) staleSinceUtcNs_ = clock_.utcNs();
  if (state_ == State::stale && before != State::stale) {
    tell(kErrorLevel, settings_.clearWhenStale ? "out of reach for too long: what it said last is withdrawn"
                                               : "out of reach for too long: what it said last is stale");
    if (settings_.clearWhenStale) visibleIs(false);
  }
}

void Feed::noteResyncs(const Follower& follower) {
  const Follower::Counters before = std::exchange(counted_, follower.counters());
  if (counted_.resyncFailures != before.resyncFailures && !std::exchange(resyncsFail_, true)) {
    tell(kErrorLevel, "the resync failed: " + follower.lastError());
  }
  if (counted_.resyncs != before.resyncs && std::exchange(resyncsFail_, false)) {
    tell(kNewsLevel, "resyncs work again");
  }
  uint64_t repaired = counted_.repairs - before.repairs;
  if (repaired != 0) {
    tell(kErrorLevel,
         fmt::format("the resync found {} keys that differed from the store, and repaired them", repaired));
  }
}

// Logs each group once, for as long as keys of it are refused.
void Feed::noteRefused(const KeyTable::AllRefused& refused) {
  std::erase_if(toldGroups_, [&refused](const std::string& group) { return !refused.contains(group); });
  for (const auto& [group, keys] : refused) {
    if (group != kForeignKeys) {
      if (toldGroups_.insert(group).second) tell(kErrorLevel, group + ": " + textOf(keys));
    } else if (!std::exchange(toldOfForeignKey_, true)) {
      tell(kNewsLevel, fmt::format("key {}: not of the state model; such keys are ignored",
                                   Runtime::shortened(keys.example, kExampleBytes)));
    }
  }
}

StoreStatus Feed::statusOf(const Follower& follower) const {
  StoreStatus status;
  bool inVain = follower.unreached() && !follower.connected();
  status.state = stateName(inVain ? Follower::State::stale : state_);
  if (follower.connected()) status.endpoint = follower.endpoint();
  status.revision = follower.revision();
  status.storeRevision = follower.storeRevision();
  status.heardUtcNs = heardUtcNs_;
  status.heldSinceUtcNs = heldSinceUtcNs_;
  status.staleSinceUtcNs = staleSinceUtcNs_;
  status.lastError = follower.lastError();
  status.otherStore = follower.otherStore();
  const Follower::Counters& counters = follower.counters();
  status.counters = {{"revisions", counters.revisions},
                     {"events", counters.events},
                     {"dropped", counters.dropped},
                     {"resyncs", counters.resyncs},
                     {"resyncFailures", counters.resyncFailures},
                     {"repairs", counters.repairs},
                     {"relists", counters.relists},
                     {"reconnections", counters.reconnections},
                     {"reopenings", counters.reopenings}};
  status.setAside = decoder_.setAsideCount();
  uint64_t refusedKeys = 0;
  for (const auto& [group, refused] : follower.refused()) {
    if (group == kForeignKeys) continue;
    refusedKeys += refused.keys;
    if (status.examples.size() < kExamples) status.examples.push_back({group, textOf(refused)});
  }
  status.setAside += refusedKeys;
  status.counters.emplace_back("refused", refusedKeys);
  for (const auto& [key, error] : decoder_.setAside()) {
    if (status.examples.size() == kExamples) break;
    status.examples.push_back(
        {Runtime::shortened(key, kExampleBytes), Runtime::shortened(error, kExampleBytes)});
  }
  return status;
}

std::vector<int64_t> Feed::takeLeases() {
  std::set<int64_t> leases;
  for (auto& [name, member] : members_) {
    if (member.lease != 0) leases.insert(member.lease);
    if (!std::exchange(member.status.leaseLeftSeconds, std::nullopt)) continue;
    mailbox_.memberIs(member.status);
  }
  return {leases.begin(), leases.end()};
}

void Feed::leaseIs(int64_t lease, std::optional<uint64_t> secondsLeft, uint64_t grantedSeconds) {
  for (auto& [name, member] : members_) {
    if (member.lease != lease) continue;
    member.status.leaseLeftSeconds = secondsLeft;
    member.status.leaseSeconds = grantedSeconds;
    // Keys that it still has are held for a while, or stay without a lease.
    if (!secondsLeft) {
      member.lease = 0;
      member.status.leased = false;
    }
    mailbox_.memberIs(member.status);
  }
}

}  // namespace Kelstore::Etcd
