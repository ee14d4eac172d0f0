#include "member/Publisher.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "kelstore/Limits.h"
#include "kelstore/Packed.h"
#include "member/Trace.h"
#include "runtime/Errors.h"

namespace Member {
namespace {

using Lumalog::kErrorLevel;
constexpr int kHealthLevel = 1;
constexpr int kWriteLevel = 3;

constexpr uint64_t kMsPerSecond = 1000;
constexpr uint64_t kNsPerMs = 1'000'000;

// One less than a transaction may have, since it may have one more precondition than changes.
constexpr size_t kMaxChanges = LeaseStore::kMaxChanges - 1;

}  // namespace

Publisher::Publisher(Settings settings, std::shared_ptr<LeaseStore> store, Runtime::Io& io,
                     const Zavro::Clock& clock, Listener listener)
    : settings_(std::move(settings)),
      store_(std::move(store)),
      io_(io),
      clock_(clock),
      listener_(std::move(listener)),
      small_(settings_.deadbands) {
  tellStatus();
}

// The content and the end.

void Publisher::contentIs(const std::vector<Kelstore::Snapshot::Entry>& entries) {
  content_ = Kelstore::packed(entries, Kelstore::Limits().valueBytes);
  clockReadNs_ = clock_.monotonicNs();
  if (state_ == State::silent || state_ == State::published) step();
}

void Publisher::configured(const std::vector<std::string>& interfaces, uint32_t intervalSeconds,
                           const Deadbands& deadbands) {
  settings_.intervalSeconds = intervalSeconds;
  small_.deadbandsAre(deadbands);
  auto& known = settings_.interfaces;
  for (const std::string& interface : interfaces) {
    if (std::find(known.begin(), known.end(), interface) != known.end()) continue;
    known.push_back(interface);
    holdings_.reset();  // the key may be in the store already
  }
}

void Publisher::end(std::function<void()> ended) {
  if (ending()) return;
  ended_ = std::move(ended);
  endByNs_ = clock_.monotonicNs() + kEndingMs * kNsPerMs;
  nextRenewal_.reset();
  if (owners_.self == LeaseStore::kNoLease && callUnderWay()) return enter(State::leaving, kEndingMs);
  giveBack();
}

// The state.

void Publisher::enter(State state, uint64_t forMs) {
  timer_.reset();
  if (forMs != 0) timer_ = io_.after(forMs, [this] { elapsed(); });
  state_ = state;
  tellStatus();
}

void Publisher::elapsed() {
  if (state_ == State::standby) return look();
  if (ending()) {
    return over(absl::DeadlineExceededError(fmt::format("no answer for {} s", kEndingMs / kMsPerSecond)));
  }
  step();
}

bool Publisher::callUnderWay() const {
  return state_ == State::granting || state_ == State::listing || state_ == State::writing ||
         state_ == State::looking;
}

void Publisher::step() {
  if (state_ == State::leaving) return giveBack();
  if (owners_.self == LeaseStore::kNoLease) return takeLease();
  if (!holdings_ || clock_.monotonicNs() >= lookAgainNs_) return list();
  write();
}

// The lease, and whose keys there are.

void Publisher::takeLease() {
  enter(State::granting);
  call<Lease>(
      [ttl = settings_.ttlSeconds](LeaseStore& store) { return store.grant(std::chrono::seconds(ttl)); },
      [this](Lease lease) { granted(lease); });
}

void Publisher::granted(Lease lease) {
  traceHandle.trace(kHealthLevel, "lease {:x} was granted, for {} s", lease, settings_.ttlSeconds);
  owners_.self = lease;
  proven(clock_.monotonicNs());
  if (!ending()) renewLater();
  step();
}

void Publisher::list() {
  readInState(State::listing, [this, lease = owners_.self](LeaseStore::Holdings holdings) {
    // If the lease has ended meanwhile, our keys are gone, and the answer is old.
    if (lease != owners_.self) return step();
    listed(std::move(holdings));
  });
}

void Publisher::readInState(State state, std::function<void(LeaseStore::Holdings)> take) {
  enter(state);
  call<LeaseStore::Holdings>([member = settings_.member, interfaces = settings_.interfaces](
                                 LeaseStore& store) { return store.list(member, interfaces); },
                             std::move(take));
}

void Publisher::listed(LeaseStore::Holdings holdings) {
  noteUnanswered(holdings);
  for (Lease other : otherLeases(holdings, owners_.self)) {
    if (owners_.are(other)) continue;
    if (written_) return standBy(other);
    owners_.predecessors.insert(other);
    traceHandle.trace(kHealthLevel, "takes over the keys of an earlier publisher, lease {:x}", other);
  }
  holdings_ = std::move(holdings);
  if (!written_ && listener_.earlierIs) std::exchange(listener_.earlierIs, {})(*holdings_);
  lookAgainNs_ = clock_.monotonicNs() + kLookAgainSeconds * kMsPerSecond * kNsPerMs;
  step();
}

// A transaction that was not answered, or whose repetition was refused, may have been carried out: then there
// are keys under the lease that changed since the last one that was answered.
void Publisher::noteUnanswered(const LeaseStore::Holdings& holdings) {
  int64_t newest = 0;
  for (const auto& [path, held] : holdings) {
    if (held.lease != owners_.self) continue;
    written_ = true;
    newest = std::max(newest, held.revision);
  }
  if (newest <= revision_) return;
  revision_ = newest;
  proven(askedNs_);
}

void Publisher::standBy(Lease other) {
  traceHandle.trace(
      kErrorLevel,
      "member {} is published by somebody else too, under lease {:x}: this one is on standby until "
      "the other's keys are gone",
      settings_.member, other);
  offLoop_.run(
      [store = store_, lease = owners_.self] { return store->revoke(lease, LeaseStore::Why::standsBy); },
      [](const auto&) {});
  leaseEnds();
  holdings_.reset();
  waitForOther(other);
}

// The store has just answered, so no trouble is left; nothing else is asked of it on standby.
void Publisher::waitForOther(Lease other) {
  worked(Trouble::call);
  worked(Trouble::renewal);
  rival_ = other;
  enter(State::standby, settings_.ttlSeconds * kMsPerSecond);
}

void Publisher::look() {
  readInState(State::looking, [this](const LeaseStore::Holdings& holdings) { looked(holdings); });
}

void Publisher::looked(const LeaseStore::Holdings& holdings) {
  if (ending()) return step();
  std::set<Lease> others = otherLeases(holdings, LeaseStore::kNoLease);
  if (!others.empty()) return waitForOther(*others.begin());
  traceHandle.trace(kHealthLevel, "the other publisher of member {} is gone", settings_.member);
  step();
}

// Writing.

void Publisher::write() {
  noteForeign();
  uint64_t nowNs = clock_.monotonicNs();
  std::vector<LeaseStore::Change> changes = due();
  if (changes.empty()) {
    worked(Trouble::call);
    // Nothing of this member is in the store, so nothing can stand still.
    if (nowNs >= provenNs_ + proofNs()) proven(nowNs);
    enter(State::published, msUntil(std::min(lookAgainNs_, provenNs_ + proofNs())));
    if (listener_.published) std::exchange(listener_.published, {})();
    return;
  }
  if (nowNs < writableNs_) return enter(State::pausing, msUntil(writableNs_));
  writableNs_ = nowNs + std::min(settings_.intervalSeconds * kMsPerSecond * kNsPerMs, proofNs());
  bool more = changes.size() > kMaxChanges;
  if (more) changes.resize(kMaxChanges);
  sayWritten(changes);
  traceHandle.trace(kWriteLevel, "writes {} keys, the first is {}", changes.size(), changes[0].path.text());
  enter(State::writing);
  askedNs_ = nowNs;
  call<int64_t>(
      [changes, preconditions = preconditions(changes, *holdings_, owners_.self),
       lease = owners_.self](LeaseStore& store) { return store.write(changes, preconditions, lease); },
      [this, changes, more, nowNs, lease = owners_.self](int64_t revision) {
        if (lease != owners_.self) return step();
        proven(clock_.monotonicNs());
        for (const LeaseStore::Change& change : changes) small_.written(change.path, nowNs);
        // The rest follows at once.
        if (more) writableNs_ = 0;
        written(changes, revision);
        step();
      },
      [this, lease = owners_.self](const absl::Status& error) {
        if (absl::IsAborted(error) || absl::IsNotFound(error)) {
          tellEndpoint();
          if (lease == owners_.self) writeRefused(error);
          return step();
        }
        // It may have been carried out.
        holdings_.reset();
        callFailed(error);
      });
}

// Those who follow the store take a revision that only deletes for the end of a lease.
void Publisher::sayWritten(std::vector<LeaseStore::Change>& changes) const {
  bool puts =
      std::any_of(changes.begin(), changes.end(), [](const auto& one) { return one.text.has_value(); });
  if (puts) return;
  if (auto key = proof(*content_, owners_.self, *holdings_)) changes.push_back(*std::move(key));
}

// Figures are written with the clock and the uptime as they are then.
void Publisher::readClock() {
  auto figures = content_->find({Kelstore::Kind::figures, std::to_string(settings_.member), ""});
  if (figures == content_->end()) return;
  uint64_t beforeNs = std::exchange(clockReadNs_, clock_.monotonicNs());
  figures->second = Kelstore::withClock(figures->second, static_cast<double>(clock_.utcNs()) / 1e9,
                                        static_cast<double>(clockReadNs_ - beforeNs) / 1e9);
}

// The differences, but for small ones. If there are none, and it is to be shown whether writes work: the
// small one that has waited for longest, or a key as it is.
std::vector<LeaseStore::Change> Publisher::due() {
  readClock();
  std::vector<LeaseStore::Change> changes = differences(*content_, *holdings_, owners_);
  uint64_t nowNs = clock_.monotonicNs();
  auto small = small_.takeOut(changes, *holdings_, owners_.self, nowNs);
  if (!changes.empty() || nowNs < provenNs_ + proofNs()) return changes;
  if (!small) small = proof(*content_, owners_.self, *holdings_);
  if (small) changes.push_back(*std::move(small));
  return changes;
}

void Publisher::writeRefused(const absl::Status& error) {
  writeError_ = Runtime::textOf(error);
  if (absl::IsNotFound(error)) return leaseIsGone();
  // Somebody else wrote; the next listing shows who, and what.
  holdings_.reset();
}

void Publisher::written(const std::vector<LeaseStore::Change>& changes, int64_t revision) {
  worked(Trouble::call);
  written_ = true;
  // A lower revision than before: the store was restored.
  if (revision < std::exchange(revision_, revision)) return holdings_.reset();
  if (!holdings_) return;
  for (const LeaseStore::Change& change : changes) {
    if (change.text) {
      (*holdings_)[change.path] = {*change.text, owners_.self, revision};
    } else {
      holdings_->erase(change.path);
    }
  }
}

// Logs each foreign interface once, and has the store read again when its lease may have ended.
void Publisher::noteForeign() {
  auto foreign = [this](const Kelstore::Path& path) { return isForeign(path, *holdings_, owners_); };
  std::erase_if(foreign_, [&foreign](const Kelstore::Path& path) { return !foreign(path); });
  for (const auto& [path, text] : *content_) {
    if (!foreign(path)) continue;
    if (foreign_.insert(path).second) {
      traceHandle.trace(kErrorLevel, "{} is published by somebody else, under lease {:x}: it is left alone",
                        path.text(), holdings_->at(path).lease);
    }
    lookAgainNs_ =
        std::min(lookAgainNs_, clock_.monotonicNs() + settings_.ttlSeconds * kMsPerSecond * kNsPerMs);
  }
}

// Renewals, in every state that has a lease.

void Publisher::renewLater() {
  renewalSetNs_ = clock_.monotonicNs();
  nextRenewal_ = io_.after(kRenewalMs, [this] { renew(); });
}

void Publisher::renew() {
  noteSleep();
  renewLater();
  if (renewing_ || !mayRenew()) return;
  renewing_ = true;
  offLoop_.run([store = store_, lease = owners_.self] { return store->renew(lease); },
               [this, lease = owners_.self](const absl::Status& answer) {
                 renewing_ = false;
                 if (lease == owners_.self && !ending()) renewed(answer);
               });
}

void Publisher::renewed(const absl::Status& answer) {
  if (!answer.ok() && !absl::IsNotFound(answer)) return failed(answer, Trouble::renewal);
  worked(Trouble::renewal);
  if (answer.ok()) return;
  leaseIsGone();
  if (!callUnderWay()) step();
}

// While this process did not run, nothing could be written, and nothing is wrong with the store. Whether the
// lease has ended meanwhile, the renewal shows.
void Publisher::noteSleep() {
  uint64_t nowNs = clock_.monotonicNs();
  uint64_t awayNs = nowNs - renewalSetNs_;
  if (awayNs < kRenewalMs * kNsPerMs + ttlNs() / 3) return;
  provenNs_ = std::min(provenNs_ + awayNs, nowNs);
  traceHandle.trace(kErrorLevel,
                    "did not run for {} s: was stopped, or the machine was suspended or overloaded",
                    awayNs / kNsPerMs / kMsPerSecond);
}

bool Publisher::mayRenew() {
  if (lapsing_ || clock_.monotonicNs() - provenNs_ <= ttlNs()) return !lapsing_;
  lapsing_ = true;
  traceHandle.trace(kErrorLevel,
                    "lease {:x} is not renewed any more: nothing could be written for {} s, the last time: "
                    "{}; the rows of member {} go, rather than stand still, until writes work: see that the "
                    "store has space (etcdctl alarm list) and this user the permission",
                    owners_.self, settings_.ttlSeconds, writeError_.empty() ? "no answer" : writeError_,
                    settings_.member);
  tellStatus();
  return false;
}

void Publisher::proven(uint64_t atNs) {
  provenNs_ = std::max(provenNs_, atNs);
  if (clock_.monotonicNs() - provenNs_ > ttlNs()) return;
  writeError_.clear();
  if (!std::exchange(lapsing_, false)) return;
  traceHandle.trace(kHealthLevel, "writes work again, lease {:x} is renewed", owners_.self);
  tellStatus();
  renew();
}

// Its keys went with it.
void Publisher::leaseIsGone() {
  traceHandle.trace(kErrorLevel, "lease {:x} is gone: everything is written anew, under another one",
                    owners_.self);
  if (!holdings_) holdings_.emplace();
  std::erase_if(*holdings_, [this](const auto& entry) { return entry.second.lease == owners_.self; });
  leaseEnds();
  writableNs_ = 0;
  lookAgainNs_ = clock_.monotonicNs() + kLookAgainSeconds * kMsPerSecond * kNsPerMs;
}

void Publisher::leaseEnds() {
  owners_.predecessors.insert(std::exchange(owners_.self, LeaseStore::kNoLease));
  nextRenewal_.reset();
  lapsing_ = false;
}

// The end.

void Publisher::giveBack() {
  if (owners_.self == LeaseStore::kNoLease) return over(absl::OkStatus());
  enter(State::givingBack, msUntil(endByNs_));
  bool handover = handsOver();
  offLoop_.run(
      [store = store_, lease = owners_.self, handover] {
        return handover ? store->renew(lease) : store->revoke(lease, LeaseStore::Why::leaves);
      },
      [this, handover](const absl::Status& answer) {
        if (handover && answer.ok()) {
          traceHandle.trace(kHealthLevel, "lease {:x} is left to a successor, for {} s", owners_.self,
                            settings_.ttlSeconds);
        }
        over(answer);
      });
}

// A later answer has no effect.
void Publisher::over(const absl::Status& error) {
  if (state_ == State::ended) return;
  enter(State::ended);
  if (owners_.self != LeaseStore::kNoLease && !error.ok()) {
    traceHandle.trace(kErrorLevel, "lease {:x} is not {}: {}", owners_.self,
                      handsOver() ? "left to a successor" : "given back", Runtime::textOf(error));
  }
  ended_();
}

// Calls of the store, and its trouble.

template <class Answer>
void Publisher::call(std::function<absl::StatusOr<Answer>(LeaseStore&)> ask, std::function<void(Answer)> take,
                     std::function<void(const absl::Status&)> fail) {
  offLoop_.run([store = store_, ask = std::move(ask)] { return ask(*store); },
               [this, take = std::move(take), fail = std::move(fail)](absl::StatusOr<Answer> answer) {
                 if (ending() && state_ != State::leaving) return;
                 if (!answer.ok()) return fail ? fail(answer.status()) : callFailed(answer.status());
                 tellEndpoint();
                 take(*std::move(answer));
               });
}

void Publisher::callFailed(const absl::Status& error) {
  if (ending()) return step();
  writeError_ = Runtime::textOf(error);
  writableNs_ = 0;
  failed(error, Trouble::call);
  enter(state_ == State::looking ? State::standby : State::retrying, backoff_.nextMs());
}

// Only what failed can end the trouble: a store that accepts renewals but no writes does not work, and vice
// versa.
void Publisher::worked(Trouble trouble) {
  if (trouble == Trouble::call) backoff_.reset();
  if (trouble_ != trouble) return;
  trouble_.reset();
  double seconds = static_cast<double>(clock_.monotonicNs() - troubleSinceNs_) / 1e9;
  traceHandle.trace(kHealthLevel, "the store works again, after {:.1f} s", seconds);
  tellStatus();
}

void Publisher::failed(const absl::Status& error, Trouble trouble) {
  if (trouble_ && trouble_ != trouble) return;
  if (!std::exchange(trouble_, trouble)) {
    troubleSinceNs_ = clock_.monotonicNs();
    causes_.clear();
  }
  error_ = Runtime::textOf(error);
  // Servers that are asked in turn repeat their errors.
  if (causes_.size() < kCausesTold && causes_.insert(error_).second)
    traceHandle.trace(kErrorLevel, "the store cannot be used: {}; it is tried again and again", error_);
  tellStatus();
}

void Publisher::tellEndpoint() {
  std::string endpoint = store_->endpoint();
  if (endpoint == endpoint_) return;
  endpoint_ = std::move(endpoint);
  traceHandle.trace(kHealthLevel, "connected to {}", endpoint_);
}

void Publisher::tellStatus() {
  std::string now = status();
  if (now == status_) return;
  status_ = std::move(now);
  listener_.statusIs(status_);
}

std::string Publisher::status() const {
  if (ending()) return "ending";
  if (lapsing_) return fmt::format("nothing can be written, lease {:x} is not renewed", owners_.self);
  if (trouble_) return fmt::format("the store cannot be used: {}", error_);
  if (state_ == State::silent) return "waiting for this machine's figures";
  if (state_ == State::standby || state_ == State::looking) {
    return fmt::format("on standby, as another publisher has member {}, under lease {:x}", settings_.member,
                       rival_);
  }
  if (owners_.self == LeaseStore::kNoLease) return "asking the store for a lease";
  return fmt::format("publishing member {}, under lease {:x}", settings_.member, owners_.self);
}

uint64_t Publisher::ttlNs() const { return settings_.ttlSeconds * kMsPerSecond * kNsPerMs; }

uint64_t Publisher::msUntil(uint64_t whenNs) const {
  uint64_t nowNs = clock_.monotonicNs();
  return whenNs <= nowNs ? 1 : (whenNs - nowNs + kNsPerMs - 1) / kNsPerMs;
}

}  // namespace Member
