#include "kelstore/etcd/KeyTable.h"

#include <algorithm>
#include <utility>

namespace Kelstore::Etcd {

KeyTable::KeyTable(GroupOf groupOf, size_t most)
    : groupOf_(groupOf ? std::move(groupOf) : [](const std::string&) { return Group(); }), most_(most) {}

// With the value: in a store that was restored from a copy, the same revision may have another one.
KeyTable::Known KeyTable::knownOf(const Record& record) {
  return {record.modRevision, record.lease, static_cast<uint32_t>(std::hash<std::string>()(record.value))};
}

bool KeyTable::agrees(const Record& record, const Known& known) {
  bool same = record.modRevision == known.modRevision && record.lease == known.lease;
  return same && (record.keyOnly || knownOf(record).valueHash == known.valueHash);
}

Change KeyTable::changeOf(Record record) {
  return {std::move(record.key), std::move(record.value), record.lease, record.oversizeBytes};
}

bool KeyTable::admits(const Keys& keys, const std::string& key, const Group& group,
                      AllRefused& refused) const {
  auto size = keys.sizes.find(group.name);
  size_t beside = size == keys.sizes.end() ? 0 : size->second;
  if (beside < group.most && keys.known.size() < most_) return true;
  Refused& one = refused[group.name];
  if (one.keys++ == 0) one.example = key;
  one.most = beside < group.most ? most_ : group.most;
  return false;
}

bool KeyTable::add(Keys& keys, const Record& record, AllRefused& refused) const {
  Group group = groupOf_(record.key);
  if (!admits(keys, record.key, group, refused)) return false;
  ++keys.sizes[group.name];
  keys.put(record.key, std::nullopt, knownOf(record));
  return true;
}

void KeyTable::Keys::put(const std::string& key, const std::optional<Known>& before, const Known& now) {
  if (now.lease != 0) ++leases[now.lease];
  if (before) leaseGoes(before->lease);
  known.put(key, now);
}

void KeyTable::Keys::del(const std::string& key, const Known& before) {
  leaseGoes(before.lease);
  known.del(key);
}

void KeyTable::Keys::leaseGoes(int64_t lease) {
  auto keys = leases.find(lease);
  if (keys != leases.end() && --keys->second == 0) leases.erase(keys);
}

void KeyTable::remove(const std::string& key, const Known& known) {
  auto size = keys_.sizes.find(groupOf_(key).name);
  if (--size->second == 0) keys_.sizes.erase(size);
  keys_.del(key, known);
}

bool KeyTable::deletedAfter(const std::string& key, int64_t revision) const {
  auto deletion = tombstones_.find(key);
  return deletion != tombstones_.end() && deletion->second > revision;
}

std::string KeyTable::newest(int64_t revision) const {
  std::string newest;
  int64_t changed = 0;
  for (auto at = keys_.known.begin(); !at.atEnd(); at.next()) {
    int64_t modified = at.known().modRevision;
    if (modified > revision || modified <= changed) continue;
    newest = at.key();
    changed = modified;
  }
  return newest;
}

bool KeyTable::contradicts(const Record& record, int64_t revision) const {
  auto known = keys_.known.find(record.key);
  if (!known || known->modRevision > revision) return false;
  if (record.modRevision != known->modRevision) return record.modRevision < known->modRevision;
  return !agrees(record, *known);
}

bool KeyTable::put(const Record& record) {
  if (deletedAfter(record.key, record.modRevision)) return false;
  auto known = keys_.known.find(record.key);
  if (!known) return add(keys_, record, refused_);
  if (known->modRevision >= record.modRevision) return false;
  keys_.put(record.key, known, knownOf(record));
  return true;
}

// Tombstones are limited like keys. Beyond that a resync may bring a deleted key back until the next resync.
std::optional<int64_t> KeyTable::del(const std::string& key, int64_t revision) {
  if (resyncing_ && tombstones_.size() < most_ && !deletedAfter(key, revision)) tombstones_[key] = revision;
  auto known = keys_.known.find(key);
  if (!known || known->modRevision > revision) return std::nullopt;
  remove(key, *known);
  return known->lease;
}

void KeyTable::listingBegins() {
  listedKeys_ = {};
  listedRefused_ = {};
  listedChanges_ = {};
}

void KeyTable::listed(std::vector<Record> page) {
  for (Record& record : page) {
    if (!add(listedKeys_, record, listedRefused_)) continue;
    auto before = keys_.known.find(record.key);
    bool same = before && agrees(record, *before);
    if (!same) listedChanges_.push_back(changeOf(std::move(record)));
  }
}

std::vector<Change> KeyTable::listingEnds() {
  auto listed = listedKeys_.known.begin();
  for (auto before = keys_.known.begin(); !before.atEnd(); before.next()) {
    while (!listed.atEnd() && listed.key() < before.key()) listed.next();
    if (!listed.atEnd() && listed.key() == before.key()) continue;
    listedChanges_.push_back({before.key(), std::nullopt, before.known().lease});
  }
  keys_ = std::exchange(listedKeys_, {});
  refused_ = std::exchange(listedRefused_, {});
  tombstones_.clear();
  return std::exchange(listedChanges_, {});
}

void KeyTable::resyncBegins() {
  resyncing_ = true;
  wentBack_ = false;
  resyncRefused_.clear();
}

void KeyTable::resyncEnds(int64_t applied, bool complete) {
  if (resyncing_ && complete) refused_ = std::exchange(resyncRefused_, {});
  resyncing_ = false;
  std::erase_if(tombstones_, [applied](const auto& deletion) { return deletion.second <= applied; });
}

std::vector<KeyTable::Suspect> KeyTable::compare(const std::string& from, const Page& page) {
  std::vector<Suspect> suspects;
  AllRefused countedBefore;
  AllRefused& refused = wentBack_ ? countedBefore : resyncRefused_;
  int64_t revision = page.header.revision;
  auto known = keys_.known.from(from);
  auto knownBefore = [&](const std::string* key) {
    return !known.atEnd() && (key != nullptr ? known.key() < *key : !page.more);
  };
  auto missingBefore = [&](const std::string* key) {
    for (; knownBefore(key); known.next()) {
      Suspect suspect{known.key(), std::nullopt, revision};
      if (differs(suspect, known.known())) suspects.push_back(std::move(suspect));
    }
  };
  for (const Record& found : page.records) {
    missingBefore(&found.key);
    std::optional<Known> same;
    if (!known.atEnd() && known.key() == found.key) {
      same = known.known();
      known.next();
    } else if (!admits(keys_, found.key, groupOf_(found.key), refused)) {
      continue;
    }
    Suspect suspect{found.key, found, revision};
    if (differs(suspect, same)) suspects.push_back(std::move(suspect));
  }
  missingBefore(nullptr);
  return suspects;
}

bool KeyTable::differs(const Suspect& suspect) const {
  return differs(suspect, keys_.known.find(suspect.key));
}

bool KeyTable::differs(const Suspect& suspect, const std::optional<Known>& known) const {
  if (!known) return suspect.found && !deletedAfter(suspect.key, suspect.revision);
  if (known->modRevision > suspect.revision) return false;
  return !suspect.found || !agrees(*suspect.found, *known);
}

std::optional<Change> KeyTable::repair(Suspect suspect) {
  auto known = keys_.known.find(suspect.key);
  if (!suspect.found) {
    int64_t lease = known ? known->lease : 0;
    if (known) remove(suspect.key, *known);
    tombstones_[suspect.key] = suspect.revision;
    return Change{std::move(suspect.key), std::nullopt, lease};
  }
  if (known) {
    keys_.put(suspect.key, known, knownOf(*suspect.found));
  } else if (!add(keys_, *suspect.found, resyncRefused_)) {
    return std::nullopt;
  }
  return changeOf(*std::move(suspect.found));
}

}  // namespace Kelstore::Etcd
