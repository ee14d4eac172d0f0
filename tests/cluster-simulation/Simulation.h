// One run: a cluster that is drawn from a seed, and what happens to it. Members publish, followers follow,
// faults come and go; then all faults end, and after a while all tables have to agree with the store.
#pragma once

#include <functional>
#include <string>

#include "tests/cluster-simulation/Judge.h"
#include "tests/cluster-simulation/Sabotage.h"

namespace ClusterSimulation {

// One seed of so many has all 255 members.
inline constexpr uint64_t kFullSizeEvery = 500;

struct Outcome {
  std::string verdict;  // empty: all was well
  uint64_t checks = 0;
  int64_t revisions = 0;
  std::string history;  // what happened, a line each
};

struct Size {
  size_t members = 0;
  size_t followers = 0;
  uint64_t changeMs = 5000;  // between two changes of what a member publishes
};

class Simulation final {
 public:
  explicit Simulation(uint64_t seed, Sabotage sabotage = Sabotage::none);
  Simulation(uint64_t seed, const Size& size, Sabotage sabotage);

  Outcome run();

 private:
  friend class Faults;

  // What members do.
  void startProcess(uint8_t member);
  void change(uint8_t member);
  void keepChanging(uint8_t member);
  MemberHost* running(uint8_t member) const;
  void look();
  void note(const std::string& what);

  Sabotage sabotage_;
  World world_;
  Size size_;
  Followers followers_;
  Members members_;
  Judge judge_;
  Store store_;
  bool changing_ = true;
  uint64_t version_ = 0;
  std::map<uint8_t, MemberHost::Content> content_;  // of each member, for all processes of it
  std::string history_;
};

}  // namespace ClusterSimulation
