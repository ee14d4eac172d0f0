// Blocking calls to an etcd cluster.
//
// A call goes to the endpoint that answered last, a second time if the connection to it had ended, and then
// to the other endpoints in turn. If there are others, the first has half of the time, and each of them an
// equal share of the rest. An endpoint that did not answer may have carried out the call, so a call may be
// carried out twice. The store holds the same then, but the revision is the second one's; the second deletion
// finds nothing to delete; and the preconditions of a transaction may no longer hold. Of two leases that were
// granted so, the one that nobody knows runs out.
//
// Throws nothing. Errors are one line, and their code says what to do:
//   Unavailable, DeadlineExceeded  no endpoint answers, or the cluster has no leader: try again later
//   Unauthenticated                the credentials are refused
//   PermissionDenied               the user may not do this
//   FailedPrecondition             a file of `Access` cannot be used, or the server cannot do this now
//   NotFound                       there is no such lease
//   AlreadyExists                  there is such a user or role
//   Aborted                        a precondition of a transaction does not hold
//   anything else                  etcd does not accept the request
//
// For one thread at a time. A thread that must not wait for another's calls has a client of its own.
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
#include "kelstore/etcd/KnownStore.h"
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
    int64_t pageKeys = PageSize::kUsual;                           // keys in one page of a listing, at most
    size_t valueBytes = std::numeric_limits<size_t>::max();        // larger values are left out of listings
    // For so long a store with another history than the one known is taken for unavailable (History.h); 0:
    // any counts.
    std::chrono::milliseconds hold{0};
    // For how long it stays at another endpoint than the first before it asks that one whether it is back,
    // and goes there if so; 0: for ever.
    std::chrono::milliseconds goHomeAfter{0};
    // Shared with other clients of the same store; nothing: the client has one of its own.
    std::shared_ptr<KnownStore> known = nullptr;
  };

  // endpoints: "host:port" each. Connects with the first call. Requires: there is an endpoint.
  Client(std::vector<std::string> endpoints, Access access, Options options);
  Client(std::vector<std::string> endpoints, Access access)
      : Client(std::move(endpoints), std::move(access), Options()) {}
  ~Client() override;

  absl::StatusOr<std::string> version() override;
  // The deadline applies to each page.
  absl::StatusOr<Listing> range(const KeyRange& keys) override;
  // A listing of one key or none.
  absl::StatusOr<Listing> get(const std::string& key);
  // Those of the keys that there are; kMaxTxnOps of them are of one revision.
  absl::StatusOr<Listing> getAll(const std::vector<std::string>& keys);

  absl::StatusOr<int64_t> put(const std::string& key, const std::string& value, int64_t lease = 0) override;
  absl::StatusOr<int64_t> del(const std::string& key);
  absl::StatusOr<Deletion> del(const KeyRange& keys) override;
  absl::StatusOr<int64_t> txn(const std::vector<Op>& ops,
                              const std::vector<Precondition>& preconditions = {}) override;

  absl::Status addUser(const std::string& user, const std::string& password) override;
  absl::Status addRole(const std::string& role) override;
  absl::Status grantRole(const std::string& user, const std::string& role) override;
  absl::Status grantKeys(const std::string& role, const KeyRange& keys, Right right) override;
  absl::Status askWhoItIs() override;

  // The new lease's id. etcd may grant more time than this, never less.
  absl::StatusOr<int64_t> grant(std::chrono::seconds ttl);
  // Renews the lease; the time that it lasts from now on.
  absl::StatusOr<std::chrono::seconds> keepAliveOnce(int64_t lease);
  // Ends the lease, and deletes its keys in one revision.
  absl::Status revoke(int64_t lease);
  absl::StatusOr<LeaseTime> timeToLive(int64_t lease);

  // The next call begins with this endpoint. No effect if it is none of the client's.
  void prefer(const std::string& endpoint);
  // The endpoint with which the next call begins.
  const std::string& endpoint() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Kelstore::Etcd
