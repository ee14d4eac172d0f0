// A cluster whose state changes at random, as a state document, and what a manager must see of it.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/Random.h"

class RandomCluster {
 public:
  RandomCluster(unsigned seed, unsigned members);

  // One thing changes.
  void change();
  std::string document() const { return state_.dump(); }

  // What a walk over both modules finds: object identifier (relative to the modules' common root) and value,
  // in the order of the walk.
  using Walk = std::map<std::vector<uint32_t>, std::string>;
  Walk expected() const;

 private:
  using Json = nlohmann::json;

  unsigned below(unsigned bound) { return random_.below(bound); }
  std::string anyMember() { return std::to_string(1 + below(members_)); }
  std::string anyMount();
  void joins(const std::string& member);
  void changeLink(const std::string& member);
  void changeIndex();
  void changeReachability(const std::string& member);
  void changeHost(const std::string& member);
  void changeMapping();
  Json anyMemory();

  Support::Random random_;
  const unsigned members_;
  Json state_;
};
