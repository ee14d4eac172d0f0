// The members of a cluster, as far as a store sees them: a steady stream of changes, from a seed. Most
// members are there all the time, and some of their rows are; others come and go.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "kelstore/etcd/Client.h"
#include "tests/support/Random.h"

namespace Faults {

class Writer {
 public:
  // Has its first state written when it returns, and no thread at work; throws when it cannot.
  Writer(std::vector<std::string> endpoints, Kelstore::Etcd::Access access, uint64_t seed);
  ~Writer();

  // What never goes away, whatever its values: a state document.
  const nlohmann::json& lasting() const { return lasting_; }

  // Goes on writing, a transaction every few milliseconds. What fails is not repeated.
  void goOn();
  // Returns once nothing is being written. No-one else writes below the prefix.
  void pause();
  // Transactions that were carried out so far.
  uint64_t written() const { return written_; }
  // The latest of their revisions, below the prefix.
  int64_t revision() const { return revision_; }

 private:
  using Ops = std::vector<Kelstore::Etcd::Op>;

  void run();
  void step();
  Ops next();
  void addMember(Ops& ops, int member, int neighbours);
  void done(const absl::StatusOr<int64_t>& revision);

  nlohmann::json system();
  nlohmann::json processor();
  nlohmann::json storage();
  nlohmann::json memory();
  nlohmann::json report(int member, int neighbour);

  Kelstore::Etcd::Client client_;
  Support::Random random_;
  nlohmann::json lasting_;
  std::atomic<uint64_t> written_ = 0;
  std::atomic<int64_t> revision_ = 0;
  std::mutex mutex_;  // guards the following
  std::condition_variable changed_;
  bool wanted_ = false;
  bool writing_ = false;
  bool ends_ = false;
  std::thread thread_;
};

}  // namespace Faults
