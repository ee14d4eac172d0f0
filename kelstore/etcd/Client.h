// Calls to an etcd cluster for programs that may wait for the answer.
//
// A call goes to the endpoint that answered last, once more where the connection to it had ended, and on to
// the others, in turn, when that one does not answer. Where there are others, the first has half of the time,
// and each of them an equal share of what is left of it. A call that an endpoint left unanswered may have
// been carried out all the same, and be carried out twice. What is in the store then is the same; but the
// revision is that of the second time, which finds nothing left to delete, and the preconditions of a
// transaction no longer as they were. A lease that nobody knows of runs out.
//
// Nothing is thrown. Errors are one line, and their code says what to do:
//   Unavailable, DeadlineExceeded  no endpoint answers, or the cluster has no leader: again later
//   Unauthenticated                the credentials are refused
//   PermissionDenied               the user may not do that
//   FailedPrecondition             a file of `Access` cannot be used, or the server cannot do this now
//   NotFound                       there is no such lease
//   Aborted                        a precondition of a transaction does not hold
//   anything else                  etcd does not take the request as it is
//
// For one thread at a time; a thread that is not to wait for another's calls has a client of its own.
#pragma once

#include <absl/status/statusor.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "kelstore/etcd/Access.h"
#include "kelstore/etcd/Calls.h"
#include "kelstore/etcd/PageSize.h"

namespace Kelstore::Etcd {

struct LeaseTime {
  std::chrono::seconds left{0};
  std::chrono::seconds granted{0};
};

class Client final : public Calls {
 public:
  struct Options {
    std::chrono::milliseconds deadline = std::chrono::seconds(5);  // of one call, all endpoints together
    int64_t pageKeys = PageSize::kUsual;                           // keys that are asked for at once, at most
    size_t valueBytes = std::numeric_limits<size_t>::max();        // larger values are left out
  };

  // Connects with the first call. Requires: endpoints is not empty.
  Client(std::vector<std::string> endpoints, Access access, Options options);
  Client(std::vector<std::string> endpoints, Access access)
      : Client(std::move(endpoints), std::move(access), Options()) {}
  ~Client() override;

  // The deadline holds for each page.
  absl::StatusOr<Listing> range(const KeyRange& keys) override;
  // A listing of one key or none.
  absl::StatusOr<Listing> get(const std::string& key);

  absl::StatusOr<int64_t> put(const std::string& key, const std::string& value, int64_t lease = 0) override;
  absl::StatusOr<int64_t> del(const std::string& key);
  absl::StatusOr<Deletion> del(const KeyRange& keys) override;
  absl::StatusOr<int64_t> txn(const std::vector<Op>& ops,
                              const std::vector<Precondition>& preconditions = {}) override;

  // The new lease's id. etcd may grant more time than was asked for, never less.
  absl::StatusOr<int64_t> grant(std::chrono::seconds ttl);
  // The time left from now on.
  absl::StatusOr<std::chrono::seconds> keepAliveOnce(int64_t lease);
  // The lease's keys go with it, in one revision.
  absl::Status revoke(int64_t lease);
  absl::StatusOr<LeaseTime> timeToLive(int64_t lease);

  // The next call begins with this endpoint; any other than those of this client changes nothing.
  void prefer(const std::string& endpoint);
  // The endpoint that answered last, or that is asked next.
  const std::string& endpoint() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Kelstore::Etcd
