#include "kelstore/etcd/Follower.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

namespace Kelstore::Etcd {
namespace {

// The revisions that somebody wrote. A lease that ends deletes keys that had it, and does nothing else.
std::set<int64_t> revisionsWithPuts(const std::vector<Event>& events) {
  std::set<int64_t> revisions;
  for (const Event& event : events) {
    if (!event.deleted) revisions.insert(event.record.modRevision);
  }
  return revisions;
}

}  // namespace

const char* stateName(Follower::State state) {
  switch (state) {
    case Follower::State::listing:
      return "listing";
    case Follower::State::watching:
      return "watching";
    case Follower::State::held:
      return "held";
    case Follower::State::stale:
      break;
  }
  return "stale";
}

Follower::Follower(Settings settings, Runtime::Random random)
    : settings_(std::move(settings)),
      endpoints_(settings_.endpoints),
      backoff_(kFirstRetryMs, kLastRetryMs, std::move(random)),
      table_(settings_.groupOf, settings_.keys),
      history_(settings_.holdMs, settings_.endpoints.size()) {}

Follower::State Follower::state() const {
  if (phase_ == Phase::watching) return State::watching;
  if (stale_) return State::stale;
  return !complete_ || connected() ? State::listing : State::held;
}

void Follower::start(uint64_t nowMs) { connect(nowMs); }

void Follower::startAfter(uint64_t delayMs, uint64_t nowMs, std::string error) {
  lastError_ = std::move(error);
  retryAtMs_ = nowMs + delayMs;
}

void Follower::connect(uint64_t nowMs) {
  retryAtMs_ = kNever;
  answered_ = false;
  commands_.emplace_back(Connect{endpoints_.current()});
  if (!mustList_) {
    phase_ = Phase::resuming;
    newestKey_ = table_.newest(applied_);
    readPage(nowMs, newestKey_.empty() ? settings_.prefix : newestKey_, applied_, 1);
    return;
  }
  phase_ = Phase::listing;
  table_.listingBegins();
  listFrom_ = settings_.prefix;
  listingAt_ = {};
  pageSize_.anew();
  listOn(nowMs);
}

void Follower::listOn(uint64_t nowMs) { readPage(nowMs, listFrom_, listingAt_.revision, pageSize_.keys()); }

// How long a page may take. A silent server must not keep the others from being asked; if all of them are
// slow, each gets more time in the next round.
uint64_t Follower::patienceMs() const {
  if (complete_ || answered_ || endpoints_.size() == 1) return kAnswerMs;
  uint64_t rounds = std::min<uint64_t>(failures_ / endpoints_.size(), 10);
  return std::min(kAnswerMs, kFirstAnswerMs << rounds);
}

void Follower::readPage(uint64_t nowMs, std::string from, int64_t revision, int64_t limit, bool keysOnly) {
  answerByMs_ = nowMs + patienceMs();
  page_ = ++pages_;
  commands_.emplace_back(ReadPage{std::move(from), revision, limit, page_, keysOnly});
}

void Follower::pageRead(uint64_t nowMs, uint64_t number, Page page) {
  if (number != page_) return;
  page_ = 0;
  answerByMs_ = kNever;
  // Asking again would give the same answer.
  if (page.more && page.records.empty())
    return lost(nowMs, ofServer("found no keys, expected a page of them"));
  heard(nowMs, page.header);
  if (phase_ == Phase::listing) {
    listed(nowMs, std::move(page));
  } else if (phase_ == Phase::resuming) {
    resumed(nowMs, page);
  } else if (resyncPageAsked_) {
    resyncPageAsked_ = false;
    resynced(nowMs, page);
  }
}

// The answer is about the revision from which the watch goes on.
void Follower::resumed(uint64_t nowMs, const Page& page) {
  if (foreign(page.header) || contradicts(page.records, applied_)) return otherStoreIs(nowMs, page.header);
  bool there = newestKey_.empty() || (!page.records.empty() && page.records.front().key == newestKey_);
  if (!there) return relist(nowMs, ofServer("a key is gone, and the watch had not told it"));
  history_.confirmed();
  otherStore_.clear();
  openWatch(nowMs);
}

// Whether the records, as they were at the revision, can have no common past with the keys that are known.
bool Follower::contradicts(const std::vector<Record>& records, int64_t revision) const {
  return history_.known() && !replaced_ &&
         std::any_of(records.begin(), records.end(),
                     [&](const Record& record) { return table_.contradicts(record, revision); });
}

// What is known stays, and the other servers are asked.
void Follower::otherStoreIs(uint64_t nowMs, const Header& header) {
  std::string found = ofServer(history_.difference(header));
  uint64_t holdSeconds = settings_.holdMs / 1000;
  history_.contradicted(nowMs);
  if (history_.overdue()) {
    return believe(
        nowMs, header,
        fmt::format("{}; it counts now, as no server had the expected one for {} s", found, holdSeconds));
  }
  otherStore_ = fmt::format(
      "{}: was it wiped or restored, or is the address wrong? What was read before stays until no server has "
      "had the expected one for {} s; to take this one over now: restart trelmemberd on each member, then "
      "trelctl store accept",
      found, holdSeconds);
  otherEndpoint_ = endpoint();
  otherHeader_ = header;
  answered_ = false;
  lost(nowMs, otherStore_);
}

// The store with that header counts in place of the known one, and is listed.
void Follower::believe(uint64_t nowMs, const Header& header, const std::string& why) {
  history_.is(header);
  replaced_ = true;
  otherStore_.clear();
  relistsInARow_ = 0;
  relist(nowMs, why);
}

void Follower::accept(uint64_t nowMs) {
  if (otherStore_.empty()) return;
  endpoints_.prefer(otherEndpoint_);
  accepted_ = true;
  believe(nowMs, otherHeader_, ofServer("this store counts now, as an operator says so"));
}

void Follower::succeeds(const Follower& other) {
  history_ = other.history_;
  replaced_ = other.replaced_;
  applied_ = other.applied_;
}

void Follower::listed(uint64_t nowMs, Page page) {
  int64_t revision = answered_ ? listingAt_.revision : page.header.revision;
  if (foreign(page.header) || contradicts(page.records, revision)) return otherStoreIs(nowMs, page.header);
  if (!answered_) {
    listingAt_ = page.header;
    valuesDue_ = false;
  }
  answered_ = true;
  otherStore_.clear();
  if (page.header.clusterId != listingAt_.clusterId) {
    return lost(nowMs, ofServer("the pages of a listing come from different clusters"));
  }
  pageSize_.worked();
  if (!page.records.empty()) listFrom_ = keyAfter(page.records.back().key);
  table_.listed(std::move(page.records));
  if (page.more) return listOn(nowMs);

  // A table of no keys does not mean that nothing was handed over: keys may be held back (Grace.h).
  bool whole = !complete_;
  if (complete_) ++counters_.relists;
  resyncEnds(kNever);
  applied_ = listingAt_.revision;
  history_.is(listingAt_);
  replaced_ = false;
  newest_ = applied_;
  giveCompared({applied_, table_.listingEnds(), whole});
  complete_ = true;
  mustList_ = false;
  openWatch(nowMs);
}

void Follower::pageFailed(uint64_t nowMs, uint64_t number, PageFailure why, const std::string& error) {
  if (number != page_) return;
  page_ = 0;
  answerByMs_ = kNever;
  if (phase_ == Phase::listing || phase_ == Phase::resuming) {
    if (why == PageFailure::noRevision) return relist(nowMs, phase_ == Phase::listing ? error : noRevision());
    // Asks for the same page again, so that the pages before are not lost. A server that has not answered at
    // all is left instead.
    bool hopeful = phase_ == Phase::listing && pageSize_.failed(why);
    bool answers = answered_ || why == PageFailure::tooLarge;
    if (!hopeful || !answers) return lost(nowMs, error);
    lastError_ = error;
    return listOn(nowMs);
  }
  if (!resyncPageAsked_) return;
  // The watch goes on, and would show if the store were lost.
  lastError_ = error;
  resyncPageAsked_ = false;
  if (resyncSize_.failed(why)) {
    resyncAtMs_ = nowMs + kResyncPauseMs;
  } else {
    ++counters_.resyncFailures;
    resyncSize_ = PageSize(kResyncPageKeys);
    resyncEnds(nowMs + settings_.resyncMs);
  }
}

std::string Follower::noRevision() const {
  return ofServer(
      fmt::format("has not, or no longer, revision {}, up to which the store was followed: it was "
                  "compacted, wiped or restored, and all keys are read again",
                  applied_));
}

void Follower::openWatch(uint64_t nowMs) {
  phase_ = Phase::opening;
  events_.clear();
  answerByMs_ = nowMs + kAnswerMs;
  commands_.emplace_back(OpenWatch{applied_ + 1});
}

void Follower::watchSaid(uint64_t nowMs, WatchResponse response) {
  if (phase_ != Phase::opening && phase_ != Phase::watching) return;
  if (response.canceled) {
    bool compacted = response.compactRevision > 0;
    mustList_ = true;
    return compacted ? relist(nowMs, ofServer("the revision to go on from is compacted"))
                     : lost(nowMs, ofServer("the watch was cancelled: " + response.cancelReason));
  }
  // Answers to progress requests may overtake others, so only the first answer's revision is compared.
  bool otherPast = response.created && foreign(response.header);
  bool otherCluster = response.header.clusterId != history_.at(applied_).clusterId;
  // A proxy at which others watch the same keys answers by itself, and tells nothing of the store.
  bool ofProxy = response.created && response.events.empty() && response.header.clusterId == 0;
  if (!ofProxy && (otherPast || otherCluster)) return otherStoreIs(nowMs, response.header);
  heard(nowMs, response.header);
  watchHeardMs_ = nowMs;
  askedForProgress_ = false;
  toldSinceCreated_ = phase_ == Phase::watching;
  if (response.created && phase_ == Phase::opening) watches(nowMs);
  // An answer without events may come between two fragments, and is none of them.
  if (response.events.empty()) return;
  std::move(response.events.begin(), response.events.end(), std::back_inserter(events_));
  if (response.fragment) {
    applyFinished();
  } else {
    apply(std::exchange(events_, {}));
  }
  settleSuspects(nowMs);
}

void Follower::heard(uint64_t nowMs, const Header& header) {
  heardMs_ = nowMs;
  if (foreign(header)) return;
  newest_ = std::max(newest_, header.revision);
  valuesDue_ |= header.raftTerm > history_.at(0).raftTerm;
  history_.heard(header);
  if (phase_ == Phase::watching) history_.confirmed();
}

void Follower::watches(uint64_t nowMs) {
  bool resumed = lostSinceMs_ != kNever;
  if (resumed) ++counters_.reconnections;
  phase_ = Phase::watching;
  stale_ = false;
  lostSinceMs_ = kNever;
  answerByMs_ = kNever;
  watchingSinceMs_ = nowMs;
  otherStore_.clear();
  if (std::exchange(accepted_, false)) lastError_.clear();
  // If the store was restored to what it held before the last of the known changes, and its revisions have
  // passed ours, only a resync shows it.
  // Not all followers at the same time, though all may have lost the same server.
  uint64_t soon = std::min(kResumedResyncMs, settings_.resyncMs);
  resyncAtMs_ = nowMs + (resumed ? soon + shareOf(settings_.place, settings_.resyncMs - soon)
                                 : settings_.resyncMs - shareOf(settings_.place, settings_.resyncMs));
  goHomeLater(nowMs);
}

// Not all at the same time.
void Follower::goHomeLater(uint64_t nowMs) {
  goesHome_ = false;
  askHomeAtMs_ = endpoints_.atHome() ? kNever : nowMs + kGoHomeMs + shareOf(settings_.place, kGoHomeSpreadMs);
}

void Follower::askHome() {
  askHomeAtMs_ = kNever;
  homeAskedAt_ = history_.at(applied_);
  std::string newest = table_.newest(applied_);
  commands_.emplace_back(AskHome{endpoints_.home(), newest.empty() ? settings_.prefix : newest, applied_});
}

// Home answers, and has the known history as far as is seen: the watch is resumed there.
void Follower::homeSaid(uint64_t nowMs, const Page& page) {
  if (phase_ != Phase::watching || endpoints_.atHome()) return;
  if (History::foreign(page.header, homeAskedAt_) || contradicts(page.records, homeAskedAt_.revision))
    return homeFailed(nowMs);
  forgetFailures(nowMs);
  lostSinceMs_ = nowMs;
  events_.clear();
  page_ = 0;
  resyncEnds(kNever);
  endpoints_.goHome();
  goesHome_ = true;
  connect(nowMs);
}

void Follower::homeFailed(uint64_t nowMs) {
  if (phase_ == Phase::watching) goHomeLater(nowMs);
}

// Applies the fragments so far, but for their last revision, which may not be whole. An answer may hold
// hundreds of revisions; if it breaks off, these need not be asked for again.
void Follower::applyFinished() {
  int64_t unfinished = events_.back().record.modRevision;
  auto rest = std::stable_partition(events_.begin(), events_.end(), [unfinished](const Event& event) {
    return event.record.modRevision < unfinished;
  });
  std::vector<Event> tail(std::make_move_iterator(rest), std::make_move_iterator(events_.end()));
  events_.erase(rest, events_.end());
  apply(std::exchange(events_, std::move(tail)));
}

void Follower::apply(const std::vector<Event>& events) {
  Batch batch;
  std::set<int64_t> written = revisionsWithPuts(events);
  int64_t last = applied_;
  for (const Event& event : events) {
    int64_t revision = event.record.modRevision;
    ++counters_.events;
    if (!applyEvent(event, written.contains(revision), batch.changes)) {
      ++counters_.dropped;
    } else if (revision > last) {
      ++counters_.revisions;
    }
    last = std::max(last, revision);
  }
  applied_ = last;
  newest_ = std::max(newest_, last);
  batch.revision = last;
  if (!batch.changes.empty()) batches_.push_back(std::move(batch));
}

// Of a listing or a resync, which do not tell in which revision a key went.
void Follower::giveCompared(Batch batch) {
  for (Change& change : batch.changes) {
    if (!change.value && !table_.ended(change.lease)) change.lease = 0;
  }
  batches_.push_back(std::move(batch));
}

// False if the event is nothing new, or its key is refused.
bool Follower::applyEvent(const Event& event, bool written, std::vector<Change>& changes) {
  const Record& record = event.record;
  if (record.modRevision <= applied_) return false;
  if (event.deleted) {
    std::optional<int64_t> lease = table_.del(record.key, record.modRevision);
    if (!lease) return false;
    changes.push_back({record.key, std::nullopt, written ? 0 : *lease});
  } else {
    if (!table_.put(record)) return false;
    changes.push_back({record.key, record.value, record.lease, record.oversizeBytes});
  }
  return true;
}

// Lists again at once; after a delay, if this happens again and again.
void Follower::relist(uint64_t nowMs, const std::string& why) {
  mustList_ = true;
  forgetFailures(nowMs);
  if (relistsInARow_++ > 0) return lost(nowMs, why);
  lastError_ = why;
  if (complete_ && lostSinceMs_ == kNever) lostSinceMs_ = nowMs;
  resyncEnds(kNever);
  connect(nowMs);
}

void Follower::lost(uint64_t nowMs, const std::string& error) {
  if (phase_ == Phase::waiting) return;
  forgetFailures(nowMs);
  if (complete_ && lostSinceMs_ == kNever) lostSinceMs_ = nowMs;
  // What it listed is the known store's, as far as that went.
  if (phase_ == Phase::listing && answered_) history_.confirmed();
  if (phase_ != Phase::watching) history_.serverLeft(nowMs);
  goesHome_ = false;
  valuesDue_ = true;
  lastError_ = error;
  ++triedInVain_;
  phase_ = Phase::waiting;
  answerByMs_ = kNever;
  events_.clear();
  page_ = 0;
  resyncEnds(kNever);
  commands_.emplace_back(Disconnect{});
  endpoints_.next();
  retryAtMs_ = nowMs + retryDelayMs();
}

// After a watch that lasted kStableMs, earlier failures no longer count.
void Follower::forgetFailures(uint64_t nowMs) {
  if (phase_ != Phase::watching || nowMs - watchingSinceMs_ < kStableMs) return;
  failures_ = 0;
  backoff_.reset();
  relistsInARow_ = 0;
}

// Short while there are servers to try, growing once all were tried.
uint64_t Follower::retryDelayMs() {
  bool othersLeft = ++failures_ % endpoints_.size() != 0;
  return othersLeft ? backoff_.variedMs(kFailoverMs) : backoff_.nextMs();
}

void Follower::elapsed(uint64_t nowMs) {
  if (lostSinceMs_ != kNever && nowMs - lostSinceMs_ >= settings_.holdMs) stale_ = true;
  if (nowMs >= retryAtMs_) return connect(nowMs);
  if (nowMs >= answerByMs_) {
    uint64_t patience = patienceMs();
    std::string error = ofServer("no answer for " + std::to_string(patience / 1000) + " s");
    if (!resyncPageAsked_ && phase_ != Phase::listing) return lost(nowMs, error);
    pageFailed(nowMs, page_, PageFailure::late, error);
    if (patience < kAnswerMs) triedInVain_ = 0;
    return;
  }
  if (phase_ != Phase::watching) return;
  if (nowMs - watchHeardMs_ >= kSilenceMs) {
    // The answer may be too large for the link. A listing comes in smaller pieces.
    mustList_ |= !toldSinceCreated_ && newest_ > applied_;
    return lost(nowMs, ofServer("silence for " + std::to_string(kSilenceMs / 1000) + " s"));
  }
  if (nowMs - watchHeardMs_ >= kQuietMs && !askedForProgress_) {
    askedForProgress_ = true;
    commands_.emplace_back(RequestProgress{});
  }
  if (nowMs >= askHomeAtMs_) askHome();
  if (nowMs >= resyncAtMs_ && !resyncPageAsked_ && !resyncRead_) resyncNext(nowMs);
  settleSuspects(nowMs);
}

uint64_t Follower::wakeAtMs() const {
  uint64_t at = std::min(retryAtMs_, answerByMs_);
  if (lostSinceMs_ != kNever && !stale_) at = std::min(at, lostSinceMs_ + settings_.holdMs);
  if (phase_ != Phase::watching) return at;
  at = std::min({at, watchHeardMs_ + (askedForProgress_ ? kSilenceMs : kQuietMs), askHomeAtMs_});
  if (!resyncPageAsked_ && !resyncRead_) at = std::min(at, resyncAtMs_);
  for (const Waiting& one : suspects_) at = std::min(at, one.untilMs);
  return at;
}

}  // namespace Kelstore::Etcd
