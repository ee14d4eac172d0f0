// The storage index of each mount point. It stays, unless another source takes it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace Member {

class StorageIndexes {
 public:
  using ByMountPoint = std::map<std::string, uint32_t>;
  // Whether another source uses the index, for another row than that of the mount point.
  using Taken = std::function<bool(uint32_t index, const std::string& mountPoint)>;

  // Lower indexes are for kinds of memory, and for operators.
  static constexpr uint32_t kFirst = 1001;
  static constexpr uint32_t kLast = 2147483647;  // the largest hrStorageIndex
  // How many mount points are remembered, unless more are mounted.
  static constexpr size_t kMaxMountPoints = 4096;

  // Sets the indexes that were kept. Requires: no index occurs twice.
  void known(ByMountPoint indexes);
  // The mount point's index; a new one if it has none yet, or another source has taken it.
  uint32_t indexOf(const std::string& mountPoint, const Taken& taken);
  // Beyond kMaxMountPoints, forgets mount points that are gone, those with the smallest indexes first.
  void forget(const std::function<bool(const std::string& mountPoint)>& gone);
  const ByMountPoint& all() const { return byMountPoint_; }

 private:
  uint32_t newIndex(const std::string& mountPoint, const Taken& taken) const;

  ByMountPoint byMountPoint_;
  std::set<uint32_t> given_;  // all of its indexes
};

}  // namespace Member
