#include "tests/cluster-simulation/Store.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace ClusterSimulation {
namespace {

constexpr uint64_t kExpiryMs = 500;        // between two looks for leases that have ended
constexpr uint64_t kApplyMs = 8;           // until a server has what was committed, at most
constexpr uint64_t kEndsWatchesMs = 4000;  // after which a server without a leader ends its watches

}  // namespace

Store::Store(World& world, Committed committed, Lapsed lapsed)
    : world_(world), committed_(std::move(committed)), lapsed_(std::move(lapsed)) {
  expire();
}

// Servers.

bool Store::inStep(size_t server) const {
  const Server& one = servers_[server];
  return !one.dead && !one.silent && !one.isolated && !one.wiped;
}

std::vector<size_t> Store::inStep() const {
  std::vector<size_t> all;
  for (size_t i = 0; i < kServers; ++i) {
    if (inStep(i)) all.push_back(i);
  }
  return all;
}

bool Store::serves(size_t server) const { return inStep(server) && hasLeader(); }

bool Store::healthy(size_t server) const { return serves(server) && servers_[server].answerMs < 200; }

void Store::noteHealth() {
  for (size_t i = 0; i < kServers; ++i) {
    bool before = std::exchange(servers_[i].healthy, healthy(i));
    if (!before && servers_[i].healthy) servers_[i].healthySinceMs = world_.nowMs();
  }
}

std::string Store::healthText() const {
  std::string text;
  for (size_t i = 0; i < kServers; ++i) {
    const Server& one = servers_[i];
    text += fmt::format(" {}{}{}{}{}{}", one.dead ? "dead" : "", one.silent ? "silent" : "",
                        one.isolated ? "isolated" : "", one.wiped ? "wiped" : "",
                        one.answerMs > 1 ? "slow" : "", leader_ == i ? "*" : ".");
  }
  return text;
}

void Store::kill(size_t server) {
  servers_[server].dead = true;
  endWatches(server, "the connection was reset");
  serverChanged(server);
}

void Store::restart(size_t server) {
  servers_[server].dead = false;
  serverChanged(server);
}

void Store::wipe(size_t server) {
  kill(server);
  servers_[server].dead = false;
  servers_[server].wiped = true;
  serverChanged(server);
}

void Store::unwipe(size_t server) {
  endWatches(server, "the connection was reset");
  servers_[server].wiped = false;
  serverChanged(server);
}

// A server without a leader ends the watches whose clients asked for one, unless a proxy has dropped that.
void Store::isolate(size_t server) {
  servers_[server].isolated = true;
  world_.in(kEndsWatchesMs, [this, server] {
    const Server& one = servers_[server];
    if (one.isolated && !one.proxied && !one.dead) endWatches(server, "there is no leader");
  });
  serverChanged(server);
}

void Store::rejoin(size_t server) {
  servers_[server].isolated = false;
  serverChanged(server);
}

void Store::silence(size_t server) {
  servers_[server].silent = true;
  serverChanged(server);
}

void Store::unsilence(size_t server) {
  servers_[server].silent = false;
  serverChanged(server);
}

void Store::proxied(size_t server, bool is) { servers_[server].proxied = is; }

void Store::slow(size_t server, uint64_t answerMs) {
  servers_[server].answerMs = answerMs;
  noteHealth();
}

// The new leader gives every lease its whole time again.
void Store::elect(uint64_t afterMs) {
  leader_ = kServers;
  noteHealth();
  if (std::exchange(electing_, true)) return;
  world_.in(afterMs, [this] {
    electing_ = false;
    std::vector<size_t> candidates = inStep();
    if (candidates.size() * 2 <= kServers) return;
    leader_ = candidates[world_.below(candidates.size())];
    ++term_;
    for (auto& [id, lease] : leases_) lease.endsMs = world_.nowMs() + lease.ttlMs;
    noteHealth();
    for (size_t i = 0; i < kServers; ++i) apply(i);
  });
}

// A leader without a majority leads no more.
void Store::serverChanged(size_t server) {
  if (!hasLeader() || !inStep(leader_) || inStep().size() * 2 <= kServers) elect(world_.between(1000, 2500));
  noteHealth();
  apply(server);
}

void Store::stallExpiry(bool stalls) { stalled_ = stalls; }

void Store::revokeAll() {
  if (!hasLeader()) return;
  std::vector<int64_t> all;
  for (const auto& [id, lease] : leases_) all.push_back(id);
  for (int64_t lease : all) endLease(lease, Cause::revoked);
}

void Store::compact() {
  compacted_ = revision_;
  history_.erase(history_.begin(), history_.upper_bound(revision_));
  for (auto& [key, versions] : keys_) versions.erase(versions.begin(), std::prev(versions.end()));
}

void Store::noSpace(bool is) { full_ = is; }

// Leases.

void Store::expire() {
  if (hasLeader() && !stalled_) {
    std::vector<int64_t> ended;
    for (const auto& [id, lease] : leases_) {
      if (lease.endsMs <= world_.nowMs()) ended.push_back(id);
    }
    for (int64_t lease : ended) endLease(lease, Cause::lapsed);
  }
  world_.in(kExpiryMs, [this] { expire(); });
}

void Store::endLease(int64_t id, Cause cause) {
  auto found = leases_.find(id);
  if (found == leases_.end()) return;
  std::vector<Etcd::Event> events;
  for (const std::string& key : found->second.keys) {
    events.push_back({{key, "", 0, 0}, true});
  }
  leases_.erase(found);
  if (cause == Cause::lapsed && !events.empty()) lapsed_(id);
  if (!events.empty()) commit(std::move(events), cause);
}

absl::StatusOr<int64_t> Store::grant(uint64_t ttlMs) {
  if (full_) return absl::ResourceExhaustedError("database space exceeded");
  leases_[++lastLease_] = {ttlMs, world_.nowMs() + ttlMs, {}};
  return lastLease_;
}

absl::Status Store::renew(int64_t id) {
  auto lease = leases_.find(id);
  if (lease == leases_.end()) return absl::NotFoundError("there is no such lease");
  lease->second.endsMs = world_.nowMs() + lease->second.ttlMs;
  return absl::OkStatus();
}

absl::Status Store::revoke(int64_t id, bool meant) {
  if (!leases_.contains(id)) return absl::NotFoundError("there is no such lease");
  endLease(id, meant ? Cause::left : Cause::revoked);
  return absl::OkStatus();
}

// Keys.

Etcd::Header Store::header(size_t server, bool latest) const {
  const Server& one = servers_[server];
  if (one.wiped) return {kWipedClusterId, 1, 2};
  return latest ? Etcd::Header{kClusterId, revision_, term_}
                : Etcd::Header{kClusterId, one.applied, one.term};
}

const Store::Version* Store::at(const std::vector<Version>& versions, int64_t revision) const {
  auto after = std::upper_bound(versions.begin(), versions.end(), revision,
                                [](int64_t wanted, const Version& one) { return wanted < one.revision; });
  if (after == versions.begin() || std::prev(after)->deleted) return nullptr;
  return &*std::prev(after);
}

Store::Read Store::read(size_t server, const std::string& from, int64_t revision, int64_t limit) const {
  Read read;
  read.page.header = header(server, true);
  if (servers_[server].wiped) {
    read.noRevision = revision > read.page.header.revision;
    return read;
  }
  if (revision == 0) revision = revision_;
  read.noRevision = revision > revision_ || revision < compacted_;
  if (read.noRevision) return read;
  std::string end = Etcd::KeySpace(kPrefix).all().end;
  for (auto key = keys_.lower_bound(from); key != keys_.end() && key->first < end; ++key) {
    const Version* version = at(key->second, revision);
    if (version == nullptr) continue;
    if (std::cmp_equal(read.page.records.size(), limit)) {
      read.page.more = true;
      break;
    }
    read.page.records.push_back({key->first, version->value, version->revision, version->lease});
  }
  return read;
}

absl::StatusOr<int64_t> Store::txn(const std::vector<Etcd::Op>& ops,
                                   const std::vector<Etcd::Precondition>& preconditions) {
  for (const Etcd::Precondition& one : preconditions) {
    auto key = keys_.find(one.key);
    const Version* version = key == keys_.end() ? nullptr : at(key->second, revision_);
    if ((version == nullptr ? 0 : version->revision) != one.modRevision)
      return absl::AbortedError("a key is not as it was expected to be");
  }
  if (full_) return absl::ResourceExhaustedError("database space exceeded");
  std::vector<Etcd::Event> events;
  for (const Etcd::Op& op : ops) {
    bool put = op.what == Etcd::Op::What::put;
    if (put && op.lease != 0 && !leases_.contains(op.lease))
      return absl::NotFoundError("there is no such lease");
    auto key = keys_.find(op.key);
    bool there = key != keys_.end() && !key->second.back().deleted;
    if (put) {
      events.push_back({{op.key, op.value, 0, op.lease}, false});
    } else if (there) {
      events.push_back({{op.key, "", 0, 0}, true});
    }
  }
  return events.empty() ? revision_ : commit(std::move(events), Cause::written);
}

int64_t Store::commit(std::vector<Etcd::Event> events, Cause cause) {
  ++revision_;
  for (Etcd::Event& event : events) {
    Etcd::Record& record = event.record;
    record.modRevision = revision_;
    std::vector<Version>& versions = keys_[record.key];
    int64_t before = versions.empty() ? 0 : versions.back().lease;
    if (auto lease = leases_.find(before); lease != leases_.end()) lease->second.keys.erase(record.key);
    if (auto lease = leases_.find(record.lease); lease != leases_.end())
      lease->second.keys.insert(record.key);
    versions.push_back({revision_, record.value, record.lease, event.deleted});
  }
  committed_(revision_, events, cause);
  history_[revision_] = std::move(events);
  for (size_t i = 0; i < kServers; ++i) world_.in(world_.between(0, kApplyMs), [this, i] { apply(i); });
  return revision_;
}

std::map<std::string, std::string> Store::content() const {
  std::map<std::string, std::string> content;
  for (const auto& [key, versions] : keys_) {
    if (!versions.back().deleted && !keySpace_.isLeavingKey(key)) content[key] = versions.back().value;
  }
  return content;
}

// Watches.

void Store::apply(size_t server) {
  if (!inStep(server)) return;
  servers_[server].applied = revision_;
  servers_[server].term = term_;
  std::vector<uint64_t> all;
  for (const auto& [id, watch] : watches_) {
    if (watch.server == server && watch.next <= revision_) all.push_back(id);
  }
  for (uint64_t id : all) {
    auto watch = watches_.find(id);
    if (watch != watches_.end()) tell(watch->second, revision_);
  }
}

// One answer for all that it has not heard.
void Store::tell(Watch& watch, int64_t upTo, bool created) {
  Etcd::WatchResponse response;
  response.header = header(watch.server, false);
  if (created) {
    response.created = true;
    watch.listener.said(response);
    response.created = false;
  }
  if (watch.next > upTo || servers_[watch.server].wiped) return;
  if (watch.next <= compacted_) {
    response.canceled = true;
    response.compactRevision = compacted_;
    watch.listener.said(response);
    return;
  }
  for (auto at = history_.lower_bound(watch.next); at != history_.end() && at->first <= upTo; ++at) {
    for (const Etcd::Event& event : at->second) response.events.push_back(event);
  }
  watch.next = upTo + 1;
  if (!response.events.empty()) watch.listener.said(std::move(response));
}

uint64_t Store::watch(size_t server, int64_t from, Listener listener) {
  auto watch = watches_.emplace(++lastWatch_, Watch{server, from, std::move(listener)}).first;
  tell(watch->second, servers_[server].applied, true);
  return watch->first;
}

void Store::progress(uint64_t id) {
  auto watch = watches_.find(id);
  if (watch == watches_.end()) return;
  Etcd::WatchResponse response;
  response.header = header(watch->second.server, false);
  watch->second.listener.said(response);
}

void Store::endWatches(size_t server, const std::string& why) {
  std::vector<std::function<void(const std::string&)>> ended;
  std::erase_if(watches_, [&](const auto& one) {
    if (one.second.server != server) return false;
    ended.push_back(one.second.listener.lost);
    return true;
  });
  for (const auto& lost : ended) lost(why);
}

}  // namespace ClusterSimulation
