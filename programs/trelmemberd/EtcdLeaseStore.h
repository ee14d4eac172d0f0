// The publisher's store in an etcd cluster.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Client.h"
#include "kelstore/etcd/KeySpace.h"
#include "member/LeaseStore.h"

namespace Member {

class EtcdLeaseStore final : public LeaseStore {
 public:
  // The deadlines of what is asked of the store, over all servers; others have the client's default. hold:
  // for how long a store with another history than the one known is taken for unavailable.
  struct Patience {
    std::chrono::milliseconds renewal;
    std::chrono::milliseconds revocation;
    std::chrono::milliseconds hold{0};
  };
  // The member decides which server is asked first.
  EtcdLeaseStore(uint8_t member, const Kelstore::Etcd::Address& address, const Kelstore::Etcd::Access& access,
                 const Patience& patience);

  absl::StatusOr<Lease> grant(std::chrono::seconds ttl) override;
  absl::Status renew(Lease lease) override;
  // Tries the server first that answered last. A lease that `leaves` is marked first
  // (KeySpace::leavingKey()).
  absl::Status revoke(Lease lease, Why why) override;
  // Leaves out keys that the state model does not have, or that are misspelt.
  absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) override;
  absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                const std::vector<Precondition>& preconditions, Lease lease) override;
  std::string endpoint() const override;

 private:
  // A client is for one thread at a time.
  struct Locked {
    mutable std::mutex mutex;
    Kelstore::Etcd::Client client;
  };

  void answered(const Kelstore::Etcd::Client& client);

  const uint8_t member_;
  const Kelstore::Etcd::KeySpace keys_;
  const std::shared_ptr<Kelstore::Etcd::KnownStore> known_;
  Locked calls_;
  // Clients of their own, so that these calls do not wait for others.
  Locked renewals_;
  Locked revocations_;
  mutable std::mutex answeringMutex_;  // guards answering_; locked after the others
  std::string answering_;              // the server that answered last
};

}  // namespace Member
