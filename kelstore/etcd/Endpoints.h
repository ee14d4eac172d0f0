// The servers of a store, for the blocking client and the follower. The current one stays until it fails,
// since it is the most likely to answer again.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Kelstore::Etcd {

class Endpoints final {
 public:
  // "host:port" each. Requires: at least one.
  explicit Endpoints(std::vector<std::string> all) : all_(std::move(all)) {}

  size_t size() const { return all_.size(); }
  const std::string& current() const { return all_[at_]; }
  // The current one failed: goes on to the next, and from the last to the first.
  void next() { at_ = (at_ + 1) % all_.size(); }
  // Makes this one current. False if it is already, or is none of these.
  bool prefer(const std::string& endpoint) {
    auto found = std::find(all_.begin(), all_.end(), endpoint);
    if (found == all_.end() || *found == current()) return false;
    at_ = static_cast<size_t>(found - all_.begin());
    return true;
  }

 private:
  std::vector<std::string> all_;
  size_t at_ = 0;
};

}  // namespace Kelstore::Etcd
