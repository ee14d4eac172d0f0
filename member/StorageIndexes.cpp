#include "member/StorageIndexes.h"

#include <algorithm>

namespace Member {

void StorageIndexes::known(ByMountPoint indexes) {
  byMountPoint_ = std::move(indexes);
  given_.clear();
  for (const auto& [mountPoint, index] : byMountPoint_) given_.insert(index);
}

uint32_t StorageIndexes::indexOf(const std::string& mountPoint, const Taken& taken) {
  auto found = byMountPoint_.find(mountPoint);
  if (found != byMountPoint_.end()) {
    if (!taken(found->second, mountPoint)) return found->second;
    given_.erase(found->second);
  }
  uint32_t index = newIndex(mountPoint, taken);
  byMountPoint_[mountPoint] = index;
  given_.insert(index);
  return index;
}

// After the largest index, so that an index is not soon given to another mount point.
uint32_t StorageIndexes::newIndex(const std::string& mountPoint, const Taken& taken) const {
  uint32_t index = given_.empty() ? kFirst : std::max(kFirst, *given_.rbegin() + 1);
  while (index > kLast || given_.contains(index) || taken(index, mountPoint)) {
    index = index >= kLast ? kFirst : index + 1;
  }
  return index;
}

void StorageIndexes::forget(const std::function<bool(const std::string& mountPoint)>& gone) {
  if (byMountPoint_.size() <= kMaxMountPoints) return;
  std::map<uint32_t, std::string> oldest;
  for (const auto& [mountPoint, index] : byMountPoint_) {
    if (gone(mountPoint)) oldest[index] = mountPoint;
  }
  for (const auto& [index, mountPoint] : oldest) {
    if (byMountPoint_.size() <= kMaxMountPoints) return;
    byMountPoint_.erase(mountPoint);
    given_.erase(index);
  }
}

}  // namespace Member
