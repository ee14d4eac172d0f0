// What the publisher needs of the cluster's store: keys that live as long as a lease.
//
// Every call waits for its answer, for a bounded time, on whatever thread it is made. A call that fails may
// have been carried out all the same. renew() and revoke() may be called while another call waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/Path.h"
#include "member/Machine.h"

namespace Member {

class LeaseStore {
 public:
  using Lease = int64_t;
  static constexpr Lease kNoLease = 0;

  struct Held {
    std::string text;
    Lease lease = kNoLease;  // with which the key goes
    int64_t revision = 0;    // of its last change
    bool operator==(const Held&) const = default;
  };
  using Holdings = std::map<Kelstore::Path, Held>;

  struct Change {
    Kelstore::Path path;
    std::optional<std::string> text;  // nothing: the key is deleted
  };
  // The key is as it was at its last change.
  struct Guard {
    Kelstore::Path path;
    int64_t revision = 0;  // 0: there is no such key
  };
  struct Written {
    enum class How : uint8_t { done, guardFailed, leaseGone };
    How how = How::done;
    int64_t revision = 0;  // of the change
  };

  virtual ~LeaseStore() = default;
  virtual Result<Lease> grant(std::chrono::seconds ttl) = 0;
  // False: there is no such lease any more.
  virtual Result<bool> renew(Lease lease) = 0;
  virtual Result<std::monostate> revoke(Lease lease) = 0;
  // The keys below members/<member> and topology/<member>, and those of the interfaces.
  virtual Result<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) = 0;
  // All changes in one revision, or none of them. Requires: no path twice, at most kMaxChanges.
  virtual Result<Written> write(const std::vector<Change>& changes, const std::vector<Guard>& guards,
                                Lease lease) = 0;
  // Who answered last, for people to read.
  virtual std::string endpoint() const = 0;

  static constexpr size_t kMaxChanges = 128;
};

}  // namespace Member
