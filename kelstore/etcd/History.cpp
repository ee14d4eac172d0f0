#include "kelstore/etcd/History.h"

#include <fmt/format.h>

#include <algorithm>

namespace Kelstore::Etcd {

void History::is(const Header& header) {
  clusterId_ = header.clusterId;
  raftTerm_ = header.raftTerm;
  confirmed();
}

void History::heard(const Header& header) {
  if (header.clusterId == clusterId_) raftTerm_ = std::max(raftTerm_, header.raftTerm);
}

bool History::foreign(const Header& header, const Header& known) {
  if (known.clusterId == 0) return false;
  return header.clusterId != known.clusterId || header.revision < known.revision ||
         header.raftTerm < known.raftTerm;
}

std::string History::difference(const Header& header) const {
  if (header.clusterId != clusterId_)
    return fmt::format("found cluster {:x}, expected {:x}", header.clusterId, clusterId_);
  return fmt::format("found another history of cluster {:x} than was followed", clusterId_);
}

void History::confirmed() {
  contradicted_ = false;
  heldMs_ = 0;
  left_ = 0;
  leftInVain_ = 0;
}

void History::contradicted(uint64_t nowMs) {
  if (contradicted_) timePasses(nowMs);
  contradicted_ = true;
  lastMs_ = nowMs;
  leftInVain_ = 0;
}

void History::serverLeft(uint64_t nowMs) {
  if (!contradicted_) return;
  timePasses(nowMs);
  ++left_;
  // The server that had another history was tried again, as were all others, and none has answered.
  if (++leftInVain_ > servers_) confirmed();
}

void History::timePasses(uint64_t nowMs) {
  heldMs_ += std::min(nowMs - lastMs_, kMostBetweenMs);
  lastMs_ = nowMs;
}

}  // namespace Kelstore::Etcd
