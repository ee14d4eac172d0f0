#include "kelstore/etcd/KeyTable.h"

#include <algorithm>
#include <functional>

namespace Kelstore::Etcd {

// The value counts beside the revision: in a store that was restored from a copy, the same revision may have
// brought another value.
KeyTable::Known KeyTable::knownOf(const Record& record) {
  return {record.modRevision, record.lease, std::hash<std::string>()(record.value)};
}

bool KeyTable::deletedAfter(const std::string& key, int64_t revision) const {
  auto deletion = deletions_.find(key);
  return deletion != deletions_.end() && deletion->second > revision;
}

bool KeyTable::put(const Record& record) {
  if (deletedAfter(record.key, record.modRevision)) return false;
  auto [at, isNew] = keys_.try_emplace(record.key);
  if (!isNew && at->second.modRevision >= record.modRevision) return false;
  at->second = knownOf(record);
  return true;
}

bool KeyTable::del(const std::string& key, int64_t revision) {
  if (remembering_ && !deletedAfter(key, revision)) deletions_[key] = revision;
  auto found = keys_.find(key);
  if (found == keys_.end() || found->second.modRevision > revision) return false;
  keys_.erase(found);
  return true;
}

std::vector<Change> KeyTable::becomes(std::vector<Record> all) {
  std::vector<Change> changes;
  std::map<std::string, Known> now;
  for (Record& record : all) {
    Known known = knownOf(record);
    auto before = keys_.find(record.key);
    bool same = before != keys_.end() && before->second == known;
    if (before != keys_.end()) keys_.erase(before);
    now.insert_or_assign(now.end(), record.key, known);
    if (!same) changes.push_back({std::move(record.key), std::move(record.value), record.lease});
  }
  // What is left was not listed.
  for (const auto& [key, known] : keys_) changes.push_back({key, std::nullopt, 0});
  keys_ = std::move(now);
  deletions_.clear();
  return changes;
}

void KeyTable::deletionsForgotten(int64_t applied) {
  remembering_ = false;
  std::erase_if(deletions_, [applied](const auto& deletion) { return deletion.second <= applied; });
}

std::vector<KeyTable::Suspect> KeyTable::compare(const std::string& from, const Page& page) const {
  std::vector<Suspect> suspects;
  int64_t revision = page.header.revision;
  auto end = page.more ? keys_.upper_bound(page.records.back().key) : keys_.end();
  auto known = keys_.lower_bound(from);
  auto missingBefore = [&](const std::string* key) {
    for (; known != end && (key == nullptr || known->first < *key); ++known) {
      Suspect suspect{known->first, std::nullopt, revision};
      if (differs(suspect)) suspects.push_back(std::move(suspect));
    }
  };
  for (const Record& found : page.records) {
    missingBefore(&found.key);
    if (known != end && known->first == found.key) ++known;
    Suspect suspect{found.key, found, revision};
    if (differs(suspect)) suspects.push_back(std::move(suspect));
  }
  missingBefore(nullptr);
  return suspects;
}

bool KeyTable::differs(const Suspect& suspect) const {
  auto known = keys_.find(suspect.key);
  if (known == keys_.end()) return suspect.found && !deletedAfter(suspect.key, suspect.revision);
  if (known->second.modRevision > suspect.revision) return false;
  return !suspect.found || knownOf(*suspect.found) != known->second;
}

Change KeyTable::repair(Suspect suspect) {
  if (!suspect.found) {
    keys_.erase(suspect.key);
    deletions_[suspect.key] = suspect.revision;
    return {std::move(suspect.key), std::nullopt, 0};
  }
  keys_[suspect.key] = knownOf(*suspect.found);
  return {std::move(suspect.key), std::move(suspect.found->value), suspect.found->lease};
}

}  // namespace Kelstore::Etcd
