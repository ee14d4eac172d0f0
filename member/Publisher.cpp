#include "member/Publisher.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

#include "member/Trace.h"

namespace Member {
namespace {

using Kelstore::Path;

using Lumalog::kErrorLevel;
constexpr int kHealthLevel = 1;
constexpr int kWriteLevel = 3;

constexpr uint64_t kMsPerSecond = 1000;
constexpr uint64_t kNsPerMs = 1'000'000;

// One less than a transaction may have, as it may stand on as many keys as it changes and one more.
constexpr size_t kMaxChanges = LeaseStore::kMaxChanges - 1;

// Whether others may publish such a path as well, and whoever was first does.
bool isShared(const Path& path) { return Kelstore::specOf(path.kind).owner == Kelstore::Owner::firstMember; }

}  // namespace

Publisher::Publisher(Settings settings, std::shared_ptr<LeaseStore> store, Runtime::Io& io,
                     const Zavro::Clock& clock, std::function<void()> published)
    : settings_(std::move(settings)),
      store_(std::move(store)),
      io_(io),
      clock_(clock),
      published_(std::move(published)) {}

template <class Answer>
void Publisher::offLoop(std::function<Result<Answer>(LeaseStore&)> ask,
                        std::function<void(Result<Answer>)> done) {
  offLoop_.run([store = store_, ask = std::move(ask)] { return ask(*store); }, std::move(done));
}

template <class Answer>
void Publisher::call(std::function<Result<Answer>(LeaseStore&)> ask, std::function<void(Answer)> take) {
  calling_ = true;
  offLoop<Answer>(std::move(ask), [this, take = std::move(take)](Result<Answer> answer) {
    calling_ = false;
    if (auto* failure = std::get_if<Failure>(&answer)) {
      // It may have been carried out.
      listed_ = false;
      failed(failure->text, Trouble::call);
      if (ended_) return step();
      stepAfter(backoff_.nextMs());
    } else {
      tellEndpoint();
      take(std::get<Answer>(std::move(answer)));
    }
  });
}

void Publisher::contentIs(const std::vector<Kelstore::Snapshot::Entry>& entries) {
  Content content;
  for (const auto& [path, value] : entries) {
    if (!Kelstore::specOf(path.kind).container()) content[path] = Kelstore::encode(value).dump();
  }
  content_ = std::move(content);
  if (!next_) step();
}

void Publisher::configured(const std::vector<std::string>& interfaces, uint32_t intervalSeconds) {
  settings_.intervalSeconds = intervalSeconds;
  auto& known = settings_.interfaces;
  for (const std::string& interface : interfaces) {
    if (std::find(known.begin(), known.end(), interface) != known.end()) continue;
    known.push_back(interface);
    listed_ = false;  // what the store has for it is to be seen
  }
}

// A pause is cut short by nothing but the end.
void Publisher::stepAfter(uint64_t milliseconds) {
  next_ = io_.after(milliseconds, [this] {
    next_.reset();
    step();
  });
}

void Publisher::step() {
  if (calling_) return;
  if (ended_) return givingBack_ ? void() : giveBack();
  if (!content_) return;
  if (!standingBy_ && lease_ == LeaseStore::kNoLease) return takeLease();
  if (!listed_) return list();
  write();
}

void Publisher::takeLease() {
  call<Lease>(
      [ttl = settings_.ttlSeconds](LeaseStore& store) { return store.grant(std::chrono::seconds(ttl)); },
      [this](Lease lease) {
        traceHandle.trace(kHealthLevel, "lease {:x} was granted, for {} s", lease, settings_.ttlSeconds);
        lease_ = lease;
        takingOver_ = true;
        listed_ = false;
        renewAfter(settings_.ttlSeconds * kMsPerSecond / 3);
        step();
      });
}

void Publisher::list() {
  call<LeaseStore::Holdings>([member = settings_.member, interfaces = settings_.interfaces](
                                 LeaseStore& store) { return store.list(member, interfaces); },
                             [this, lease = lease_](LeaseStore::Holdings holdings) {
                               // Without the lease under which it was asked for it says nothing.
                               if (lease != lease_) return step();
                               listed(std::move(holdings));
                             });
}

void Publisher::listed(LeaseStore::Holdings holdings) {
  holdings_ = std::move(holdings);
  std::set<Lease> others = otherLeases();
  if (standingBy_) {
    if (!others.empty()) return waitForOther();
    traceHandle.trace(kHealthLevel, "the other publisher of member {} is gone", settings_.member);
    standingBy_ = false;
    return step();
  }
  if (takingOver_) {
    takingOver_ = false;
    predecessors_ = others;
    for (Lease other : others) {
      traceHandle.trace(kHealthLevel, "takes over the keys of an earlier publisher, lease {:x}", other);
    }
  }
  for (Lease other : others) {
    if (!predecessors_.contains(other)) return standBy(other);
  }
  listed_ = true;
  fresh_ = true;
  nextLook_ = io_.after(kLookAgainSeconds * kMsPerSecond, [this] { lookAgain(); });
  step();
}

// The leases of others with which keys of this member go.
std::set<LeaseStore::Lease> Publisher::otherLeases() const {
  std::set<Lease> others;
  for (const auto& [path, held] : holdings_) {
    if (!isShared(path) && held.lease != LeaseStore::kNoLease) others.insert(held.lease);
  }
  others.erase(lease_);
  return others;
}

void Publisher::standBy(Lease other) {
  traceHandle.trace(kErrorLevel,
                    "member {} is published by somebody else too, under lease {:x}: this one stands by until "
                    "the other's keys are gone",
                    settings_.member, other);
  standingBy_ = true;
  offLoop<std::monostate>([lease = lease_](LeaseStore& store) { return store.revoke(lease); },
                          [](const Result<std::monostate>&) {});
  lease_ = LeaseStore::kNoLease;
  nextRenewal_.reset();
  waitForOther();
}

// The store has just been read, and nothing else is asked of it meanwhile.
void Publisher::waitForOther() {
  if (ended_) return step();
  worked(Trouble::call);
  worked(Trouble::renewal);
  stepAfter(settings_.ttlSeconds * kMsPerSecond);
}

void Publisher::write() {
  noteForeign();
  std::vector<LeaseStore::Change> changes = differences();
  if (changes.empty()) {
    if (std::exchange(fresh_, false)) worked(Trouble::call);
    if (published_) std::exchange(published_, {})();
    return;
  }
  uint64_t nowNs = clock_.monotonicNs();
  if (!writing_ && nowNs < writableNs_) return stepAfter((writableNs_ - nowNs) / kNsPerMs + 1);
  writableNs_ = nowNs + settings_.intervalSeconds * kMsPerSecond * kNsPerMs;
  writing_ = changes.size() > kMaxChanges;
  if (writing_) changes.resize(kMaxChanges);
  traceHandle.trace(kWriteLevel, "writes {} keys, the first is {}", changes.size(), changes[0].path.text());
  call<LeaseStore::Written>([changes, guards = guards(changes), lease = lease_](
                                LeaseStore& store) { return store.write(changes, guards, lease); },
                            [this, changes, lease = lease_](LeaseStore::Written result) {
                              if (lease != lease_) return step();
                              written(changes, result);
                            });
}

void Publisher::written(const std::vector<LeaseStore::Change>& changes, const LeaseStore::Written& result) {
  switch (result.how) {
    case LeaseStore::Written::How::leaseGone:
      return leaseIsGone();
    case LeaseStore::Written::How::guardFailed:
      // Somebody else wrote: to be seen who, and what.
      listed_ = false;
      writing_ = false;
      return step();
    case LeaseStore::Written::How::done:
      break;
  }
  worked(Trouble::call);
  if (result.revision < std::exchange(revision_, result.revision)) {
    // It is not the store that it was.
    listed_ = false;
    return step();
  }
  for (const LeaseStore::Change& change : changes) {
    if (change.text) {
      holdings_[change.path] = {*change.text, lease_, result.revision};
    } else {
      holdings_.erase(change.path);
    }
  }
  step();
}

std::vector<LeaseStore::Change> Publisher::differences() const {
  std::vector<LeaseStore::Change> changes;
  for (const auto& [path, text] : *content_) {
    auto held = holdings_.find(path);
    bool there = held != holdings_.end();
    if (there && held->second.lease == lease_ && held->second.text == text) continue;
    if (!isForeign(path)) changes.push_back({path, text});
  }
  for (const auto& [path, held] : holdings_) {
    if (content_->contains(path)) continue;
    if (!isShared(path) || ours(held.lease)) changes.push_back({path, std::nullopt});
  }
  return changes;
}

// Whether it is an interface's key that lives with a lease of somebody else.
bool Publisher::isForeign(const Path& path) const {
  if (!isShared(path)) return false;
  auto held = holdings_.find(path);
  return held != holdings_.end() && held->second.lease != LeaseStore::kNoLease && !ours(held->second.lease);
}

// Tells of each once, for as long as it is somebody else's, and has it looked at again.
void Publisher::noteForeign() {
  std::erase_if(foreign_, [this](const Path& path) { return !isForeign(path); });
  for (const auto& [path, text] : *content_) {
    if (!isForeign(path)) continue;
    if (foreign_.insert(path).second) {
      traceHandle.trace(kErrorLevel, "{} is published by somebody else, under lease {:x}: it is left alone",
                        path.text(), holdings_.at(path).lease);
    }
    if (!relist_) relist_ = io_.after(settings_.ttlSeconds * kMsPerSecond, [this] { lookAgain(); });
  }
}

// What was somebody else's may be so no longer.
void Publisher::lookAgain() {
  relist_.reset();
  nextLook_.reset();
  if (lease_ == LeaseStore::kNoLease) return;  // it will be read anyway
  listed_ = false;
  if (!next_) step();
}

// Every transaction stands on the key of this member that this publisher wrote last, so that it fails when
// another publisher of this member has written, or the store is not what it was; and on the interfaces' keys
// that it changes.
std::vector<LeaseStore::Guard> Publisher::guards(const std::vector<LeaseStore::Change>& changes) const {
  std::vector<LeaseStore::Guard> guards;
  auto revision = [this](const Path& path) {
    auto held = holdings_.find(path);
    return held == holdings_.end() ? 0 : held->second.revision;
  };
  auto rank = [this](const auto& entry) {
    const LeaseStore::Held& held = entry.second;
    return std::tuple(!isShared(entry.first), held.lease == lease_, held.revision);
  };
  auto member = std::max_element(holdings_.begin(), holdings_.end(),
                                 [&rank](const auto& a, const auto& b) { return rank(a) < rank(b); });
  if (member != holdings_.end() && isShared(member->first)) member = holdings_.end();
  if (member != holdings_.end()) guards.push_back({member->first, member->second.revision});
  bool any = member != holdings_.end();
  for (const LeaseStore::Change& change : changes) {
    if (!isShared(change.path) && std::exchange(any, true)) continue;
    guards.push_back({change.path, revision(change.path)});
  }
  return guards;
}

void Publisher::renewAfter(uint64_t milliseconds) {
  nextRenewal_ = io_.after(milliseconds, [this] { renew(); });
}

void Publisher::renew() {
  uint64_t intervalMs = settings_.ttlSeconds * kMsPerSecond / 3;
  renewAfter(intervalMs);
  if (renewing_) return;
  renewing_ = true;
  offLoop<bool>([lease = lease_](LeaseStore& store) { return store.renew(lease); },
                [this, intervalMs, lease = lease_](const Result<bool>& answer) {
                  renewing_ = false;
                  if (lease != lease_ || ended_) return;
                  if (const auto* failure = std::get_if<Failure>(&answer)) {
                    failed(failure->text, Trouble::renewal);
                    return renewAfter(std::min(intervalMs, kMsPerSecond));
                  }
                  worked(Trouble::renewal);
                  if (!std::get<bool>(answer)) leaseIsGone();
                });
}

// Its keys went with it.
void Publisher::leaseIsGone() {
  traceHandle.trace(kErrorLevel, "lease {:x} is gone: everything is written anew, under another one", lease_);
  lease_ = LeaseStore::kNoLease;
  writing_ = false;
  writableNs_ = 0;
  nextRenewal_.reset();
  next_.reset();
  step();
}

void Publisher::end(std::function<void()> ended) {
  if (ended_) return;
  ended_ = std::move(ended);
  ending_ =
      io_.after(kEndingMs, [this] { over(fmt::format("no answer for {} s", kEndingMs / kMsPerSecond)); });
  next_.reset();
  nextRenewal_.reset();
  if (lease_ != LeaseStore::kNoLease) return giveBack();
  step();
}

void Publisher::giveBack() {
  givingBack_ = true;
  if (lease_ == LeaseStore::kNoLease) return over({});
  offLoop<std::monostate>([lease = lease_](LeaseStore& store) { return store.revoke(lease); },
                          [this](const Result<std::monostate>& answer) {
                            const auto* failure = std::get_if<Failure>(&answer);
                            over(failure != nullptr ? failure->text : "");
                          });
}

// What is answered later is of no interest any more.
void Publisher::over(const std::string& error) {
  if (!ending_) return;
  ending_.reset();
  if (lease_ != LeaseStore::kNoLease && !error.empty()) {
    traceHandle.trace(kErrorLevel, "lease {:x} is not given back: {}", lease_, error);
  }
  ended_();
}

// A store that can be read but not written does not work, nor does one that takes no renewals.
void Publisher::worked(Trouble trouble) {
  if (trouble == Trouble::call) backoff_.reset();
  if (trouble_ != trouble) return;
  trouble_.reset();
  double seconds = static_cast<double>(clock_.monotonicNs() - troubleSinceNs_) / 1e9;
  traceHandle.trace(kHealthLevel, "the store works again, after {:.1f} s", seconds);
}

void Publisher::failed(const std::string& error, Trouble trouble) {
  if (trouble_) return;
  trouble_ = trouble;
  troubleSinceNs_ = clock_.monotonicNs();
  traceHandle.trace(kErrorLevel, "the store cannot be used: {}; it is tried again and again", error);
}

void Publisher::tellEndpoint() {
  std::string endpoint = store_->endpoint();
  if (endpoint == endpoint_) return;
  endpoint_ = std::move(endpoint);
  traceHandle.trace(kHealthLevel, "connected to {}", endpoint_);
}

}  // namespace Member
