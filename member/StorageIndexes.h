// Which row of the storage table each mount point has: indexes that were given once stay.
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
  // Whether somebody else has the index for another row than that of the mount point.
  using Taken = std::function<bool(uint32_t index, const std::string& mountPoint)>;

  // What is below is left to kinds of memory and to those who give indexes by hand.
  static constexpr uint32_t kFirst = 1001;
  static constexpr uint32_t kLast = 2147483647;  // the largest hrStorageIndex
  // How many mount points are remembered, unless more of them are there.
  static constexpr size_t kMaxMountPoints = 4096;

  // Those of an earlier life. Requires: no index occurs twice.
  void known(ByMountPoint indexes);
  // The mount point's index; a new one when it has none yet, or somebody else has taken it.
  uint32_t indexOf(const std::string& mountPoint, const Taken& taken);
  // Forgets what is more than is remembered, of the mount points that are gone, the smallest indexes first:
  // those were given first.
  void forget(const std::function<bool(const std::string& mountPoint)>& gone);
  const ByMountPoint& all() const { return byMountPoint_; }

 private:
  uint32_t newIndex(const std::string& mountPoint, const Taken& taken) const;

  ByMountPoint byMountPoint_;
  std::set<uint32_t> given_;  // all of its indexes
};

}  // namespace Member
