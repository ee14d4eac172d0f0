// Calls to an etcd cluster for programs that may wait for the answer.
//
// A call goes to the endpoint that answered last, once more where the connection to it had ended, and on to
// the others, in turn, when that one does not answer. Where there are others, the first has half of the time,
// and each of them an equal share of what is left of it. A call that an endpoint left unanswered may have
// been carried out all the same, and be carried out twice. What is in the store then is the same; but the
// revision is that of the second time, which finds nothing left to delete, and the guards of a transaction no
// longer as they were. A lease that nobody knows of runs out.
//
// Nothing is thrown. Errors are one line, and their code says what to do:
//   Unavailable, DeadlineExceeded  no endpoint answers, or the cluster has no leader: again later
//   Unauthenticated                the credentials are refused
//   PermissionDenied               the user may not do that
//   FailedPrecondition             a file of `Access` cannot be used, or the server cannot do this now
//   NotFound                       there is no such lease
//   Aborted                        a guard of a transaction does not hold
//   anything else                  etcd does not take the request as it is
//
// For one thread at a time; a thread that is not to wait for another's calls has a client of its own.
#pragma once

#include <absl/status/statusor.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelstore/etcd/Access.h"
#include "kelstore/etcd/Keys.h"

namespace Kelstore::Etcd {

struct KeyValue {
  std::string key;
  std::string value;
  int64_t createRevision = 0;
  int64_t modRevision = 0;
  int64_t lease = 0;  // 0: none
};

// All keys of a range, in order, as they were at one revision.
struct Listing {
  std::vector<KeyValue> keyValues;
  int64_t revision = 0;
  uint64_t clusterId = 0;
};

struct Op {
  enum class What : uint8_t { put, del };
  What what = What::put;
  std::string key;
  std::string value = {};
  int64_t lease = 0;  // of a put: the lease that the key goes with; 0: none
};

struct Deletion {
  int64_t revision = 0;
  int64_t keys = 0;
  bool repeated = false;  // an endpoint that did not answer may have deleted more keys
};

// What must be so for a transaction to be carried out.
struct Guard {
  std::string key;
  int64_t modRevision = 0;  // 0: there is no such key
};

struct LeaseTime {
  std::chrono::seconds left{0};
  std::chrono::seconds granted{0};
};

class Client final {
 public:
  // As many operations as etcd takes in one transaction unless it is told otherwise.
  static constexpr size_t kMaxTxnOps = 128;

  struct Options {
    std::chrono::milliseconds deadline = std::chrono::seconds(5);  // of one call, all endpoints together
    int64_t pageKeys = 1000;                                       // keys that are asked for at once
  };

  // Connects with the first call. Requires: endpoints is not empty.
  Client(std::vector<std::string> endpoints, Access access, Options options);
  Client(std::vector<std::string> endpoints, Access access)
      : Client(std::move(endpoints), std::move(access), Options()) {}
  ~Client();

  // The deadline holds for each page.
  absl::StatusOr<Listing> range(const KeyRange& keys);
  // A listing of one key or none.
  absl::StatusOr<Listing> get(const std::string& key);

  // These return the revision of the change; where there was nothing to delete, the latest.
  absl::StatusOr<int64_t> put(const std::string& key, const std::string& value, int64_t lease = 0);
  absl::StatusOr<int64_t> del(const std::string& key);
  absl::StatusOr<Deletion> del(const KeyRange& keys);
  // All of them in one revision, or none; none when a guard does not hold. Requires: no key twice, at most
  // kMaxTxnOps operations and as many guards.
  absl::StatusOr<int64_t> txn(const std::vector<Op>& ops, const std::vector<Guard>& guards = {});

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
