// The servers of a store, for the blocking client and the follower. The current one stays until it fails,
// since it is the most likely to answer again. The first is where its user belongs: the home, to which it
// goes back some time after it had to leave.
//
// Each of many users has another order of the servers, after its number, so that all servers have an equal
// share of them; also of those who had to leave one. What all do at intervals is spread likewise.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Kelstore::Etcd {

inline constexpr uint64_t kGoHomeMs = 120'000;  // at another server, before home is asked whether it is back
inline constexpr uint64_t kGoHomeSpreadMs = 180'000;  // more, by the user's number

inline constexpr std::chrono::milliseconds kHomeAnswer(1'000);  // how long it may take to say so

// The order for user number `place`.
inline std::vector<std::string> inOrderOf(uint64_t place, std::vector<std::string> all) {
  for (auto next = all.begin(); next != all.end(); ++next) {
    auto left = static_cast<uint64_t>(all.end() - next);
    std::rotate(next, next + static_cast<std::ptrdiff_t>(place % left), all.end());
    place /= left;
  }
  return all;
}

// A time below `span` that differs for users with different numbers, far also for those in a row.
inline uint64_t shareOf(uint64_t place, uint64_t span) {
  constexpr uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
  return ((place * kGoldenRatio >> 32) * span) >> 32;
}

class Endpoints final {
 public:
  // "host:port" each. Requires: at least one.
  explicit Endpoints(std::vector<std::string> all) : all_(std::move(all)) {}

  size_t size() const { return all_.size(); }
  const std::string& current() const { return all_[at_]; }
  const std::string& home() const { return all_.front(); }
  bool atHome() const { return at_ == 0; }
  void goHome() { at_ = 0; }
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
