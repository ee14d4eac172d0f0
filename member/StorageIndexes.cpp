#include "StorageIndexes.h"

#include <algorithm>

namespace Member {

void StorageIndexes::known(ByMountPoint indexes) {
  byMountPoint_ = std::move(indexes);
  given_.clear();
  for (const auto& [mountPoint, index] : byMountPoint_) given_.insert(index);
}

uint32_t StorageIndexes::indexOf(const std::string& mountPoint, const Taken& taken) {
  asked_.insert(mountPoint);
  auto found = byMountPoint_.find(mountPoint);
  if (found != byMountPoint_.end()) {
    if (!taken(found->second, mountPoint)) return found->second;
    given_.erase(found->second);
  }
  uint32_t index = newIndex(mountPoint, taken);
  byMountPoint_[mountPoint] = index;
  given_.insert(index);
  makeRoom();
  return index;
}

// Goes on after the largest, so that an index is not given to a second mount point soon.
uint32_t StorageIndexes::newIndex(const std::string& mountPoint, const Taken& taken) const {
  uint32_t index = given_.empty() ? kFirst : std::max(kFirst, *given_.rbegin() + 1);
  while (index > kLast || given_.contains(index) || taken(index, mountPoint)) {
    index = index >= kLast ? kFirst : index + 1;
  }
  return index;
}

void StorageIndexes::makeRoom() {
  if (byMountPoint_.size() <= kMaxMountPoints) return;
  auto oldest = byMountPoint_.end();
  for (auto at = byMountPoint_.begin(); at != byMountPoint_.end(); ++at) {
    if (asked_.contains(at->first)) continue;
    if (oldest == byMountPoint_.end() || at->second < oldest->second) oldest = at;
  }
  if (oldest == byMountPoint_.end()) return;
  given_.erase(oldest->second);
  byMountPoint_.erase(oldest);
}

}  // namespace Member
