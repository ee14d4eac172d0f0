// The follower's audits: all keys are read again while a watch goes on, and what differs is repaired.
#include <algorithm>
#include <utility>

#include "kelstore/etcd/Follower.h"

namespace Kelstore::Etcd {

// Begins a resync, or goes on with it. Each page is read at the latest revision and compared by itself, so
// that no compaction ends a resync.
void Follower::resyncNext(uint64_t nowMs) {
  if (!resyncing_) {
    resyncing_ = true;
    withValues_ = std::exchange(valuesDue_, false);
    resyncFrom_ = settings_.prefix;
    missed_ = false;
    table_.resyncBegins();
  }
  resyncPageAsked_ = true;
  resyncAskedAt_ = history_.at(applied_);
  readPage(nowMs, resyncFrom_, 0, resyncSize_.keys(), !withValues_);
}

void Follower::resynced(uint64_t nowMs, const Page& page) {
  // Compared with what was known when it was asked for: events may have overtaken the page since.
  if (History::foreign(page.header, resyncAskedAt_)) return otherStoreIs(nowMs, page.header);
  if (contradicts(page.records, page.header.revision)) {
    return believe(nowMs, page.header,
                   ofServer("the resync found another history than was followed, so the store was "
                            "restored or is damaged; what it has counts"));
  }
  resyncSize_.worked();
  for (KeyTable::Suspect& suspect : table_.compare(resyncFrom_, page)) {
    suspects_.push_back({std::move(suspect), nowMs + kGraceMs, applied_});
  }
  if (page.more && (resyncTo_.empty() || page.records.back().key < resyncTo_)) {
    resyncFrom_ = keyAfter(page.records.back().key);
    resyncAtMs_ = nowMs + kResyncPauseMs;
  } else {
    resyncRead_ = true;
  }
  settleSuspects(nowMs);
}

// One that is given up is still due.
void Follower::resyncEnds(uint64_t atMs) {
  valuesDue_ |= resyncing_ && withValues_ && resyncTo_.empty();
  table_.resyncEnds(applied_, resyncRead_);
  resyncing_ = false;
  resyncPageAsked_ = false;
  resyncRead_ = false;
  resyncTo_.clear();
  differsTo_.clear();
  resyncAtMs_ = atMs;
  suspects_.clear();
}

// The resync goes on with the values of the keys from the first that differs to the last.
void Follower::readValues(uint64_t nowMs) {
  table_.resyncGoesBack();
  withValues_ = true;
  resyncRead_ = false;
  resyncFrom_ = differsFrom_;
  resyncTo_ = std::exchange(differsTo_, {});
  resyncAtMs_ = nowMs;
}

// Repairs what still differs from a page, once the page's revision is applied or kGraceMs have passed: until
// then an event may explain the difference.
void Follower::settleSuspects(uint64_t nowMs) {
  Batch repaired{applied_, {}, false};
  std::erase_if(suspects_, [&](Waiting& one) {
    if (applied_ < one.suspect.revision && nowMs < one.untilMs) return false;
    if (!table_.differs(one.suspect)) return true;
    missed_ |= applied_ >= one.suspect.revision || applied_ == one.applied;
    if (one.suspect.found && one.suspect.found->keyOnly) {
      const std::string& key = one.suspect.key;
      if (differsTo_.empty() || key < differsFrom_) differsFrom_ = key;
      differsTo_ = std::max(differsTo_, key);
      return true;
    }
    if (auto change = table_.repair(std::move(one.suspect))) repaired.changes.push_back(*std::move(change));
    return true;
  });
  counters_.repairs += repaired.changes.size();
  if (!repaired.changes.empty()) giveCompared(std::move(repaired));
  if (!resyncRead_ || !suspects_.empty()) return;
  if (!differsTo_.empty()) return readValues(nowMs);
  withValues_ = false;
  ++counters_.resyncs;
  resyncEnds(nowMs + settings_.resyncMs);
  if (!missed_) return;
  // It may never tell anything again, although its server answers.
  ++counters_.reopenings;
  lost(nowMs, ofServer("the watch missed what the resync repaired; another one is opened"));
}

}  // namespace Kelstore::Etcd
