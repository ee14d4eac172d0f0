#include "kelstore/etcd/KeyTable.h"

#include <algorithm>
#include <utility>

namespace Kelstore::Etcd {

KeyTable::KeyTable(GroupOf groupOf, size_t most)
    : groupOf_(groupOf ? std::move(groupOf) : [](const std::string&) { return Group(); }), most_(most) {}

// With the value: in a store that was restored from a copy, the same revision may have another one.
KeyTable::Known KeyTable::knownOf(const Record& record) {
  return {record.modRevision, record.lease, std::hash<std::string>()(record.value)};
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
  keys.change(keys.known.try_emplace(keys.known.end(), record.key)->second, knownOf(record));
  return true;
}

// Nothing known: the key is new, or goes.
void KeyTable::Keys::change(Known& key, const Known& now) {
  if (now.lease != 0) ++leases[now.lease];
  auto before = leases.find(key.lease);
  if (before != leases.end() && --before->second == 0) leases.erase(before);
  key = now;
}

void KeyTable::remove(std::map<std::string, Known>::iterator key) {
  auto size = keys_.sizes.find(groupOf_(key->first).name);
  if (--size->second == 0) keys_.sizes.erase(size);
  keys_.change(key->second, {});
  keys_.known.erase(key);
}

bool KeyTable::deletedAfter(const std::string& key, int64_t revision) const {
  auto deletion = tombstones_.find(key);
  return deletion != tombstones_.end() && deletion->second > revision;
}

std::string KeyTable::newest(int64_t revision) const {
  const std::string* newest = nullptr;
  int64_t changed = 0;
  for (const auto& [key, known] : keys_.known) {
    if (known.modRevision > revision || known.modRevision <= changed) continue;
    newest = &key;
    changed = known.modRevision;
  }
  return newest == nullptr ? std::string() : *newest;
}

bool KeyTable::contradicts(const Record& record, int64_t revision) const {
  auto at = keys_.known.find(record.key);
  if (at == keys_.known.end() || at->second.modRevision > revision) return false;
  if (record.modRevision != at->second.modRevision) return record.modRevision < at->second.modRevision;
  return !agrees(record, at->second);
}

bool KeyTable::put(const Record& record) {
  if (deletedAfter(record.key, record.modRevision)) return false;
  auto at = keys_.known.find(record.key);
  if (at == keys_.known.end()) return add(keys_, record, refused_);
  if (at->second.modRevision >= record.modRevision) return false;
  keys_.change(at->second, knownOf(record));
  return true;
}

// Tombstones are limited like keys. Beyond that a resync may bring a deleted key back until the next resync.
std::optional<int64_t> KeyTable::del(const std::string& key, int64_t revision) {
  if (resyncing_ && tombstones_.size() < most_ && !deletedAfter(key, revision)) tombstones_[key] = revision;
  auto found = keys_.known.find(key);
  if (found == keys_.known.end() || found->second.modRevision > revision) return std::nullopt;
  int64_t lease = found->second.lease;
  remove(found);
  return lease;
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
    bool same = before != keys_.known.end() && agrees(record, before->second);
    if (!same) listedChanges_.push_back(changeOf(std::move(record)));
  }
}

std::vector<Change> KeyTable::listingEnds() {
  for (const auto& [key, known] : keys_.known) {
    if (listedKeys_.known.contains(key)) continue;
    listedChanges_.push_back({key, std::nullopt, known.lease});
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
  auto end = page.more ? keys_.known.upper_bound(page.records.back().key) : keys_.known.end();
  auto known = keys_.known.lower_bound(from);
  auto missingBefore = [&](const std::string* key) {
    for (; known != end && (key == nullptr || known->first < *key); ++known) {
      Suspect suspect{known->first, std::nullopt, revision};
      if (differs(suspect)) suspects.push_back(std::move(suspect));
    }
  };
  for (const Record& found : page.records) {
    missingBefore(&found.key);
    if (known != end && known->first == found.key) {
      ++known;
    } else if (!admits(keys_, found.key, groupOf_(found.key), refused)) {
      continue;
    }
    Suspect suspect{found.key, found, revision};
    if (differs(suspect)) suspects.push_back(std::move(suspect));
  }
  missingBefore(nullptr);
  return suspects;
}

bool KeyTable::differs(const Suspect& suspect) const {
  auto known = keys_.known.find(suspect.key);
  if (known == keys_.known.end()) return suspect.found && !deletedAfter(suspect.key, suspect.revision);
  if (known->second.modRevision > suspect.revision) return false;
  return !suspect.found || !agrees(*suspect.found, known->second);
}

std::optional<Change> KeyTable::repair(Suspect suspect) {
  auto known = keys_.known.find(suspect.key);
  if (!suspect.found) {
    int64_t lease = known == keys_.known.end() ? 0 : known->second.lease;
    if (known != keys_.known.end()) remove(known);
    tombstones_[suspect.key] = suspect.revision;
    return Change{std::move(suspect.key), std::nullopt, lease};
  }
  if (known != keys_.known.end()) {
    keys_.change(known->second, knownOf(*suspect.found));
  } else if (!add(keys_, *suspect.found, resyncRefused_)) {
    return std::nullopt;
  }
  return changeOf(*std::move(suspect.found));
}

}  // namespace Kelstore::Etcd
