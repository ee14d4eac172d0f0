// State documents of random clusters, whose rows and values lie at the edges of what there can be.
#pragma once

#include <nlohmann/json.hpp>

#include "tests/support/Random.h"
#include "tests/wire/Tables.h"

namespace Wire {

class Clusters {
 public:
  Clusters(uint64_t seed, const AgentClock& clock) : random_(seed), clock_(clock) {}

  // A cluster with nothing in common with the last one, or the last one with a few changes; now and then it
  // is empty.
  const nlohmann::json& next();

 private:
  nlohmann::json any();
  void addLinks(nlohmann::json& document);
  nlohmann::json interfaces();
  nlohmann::json mappings();
  nlohmann::json mapping();
  nlohmann::json member();
  nlohmann::json report();
  nlohmann::json system();
  nlohmann::json memory();
  nlohmann::json file();
  uint64_t lastChange();
  std::string memberId();
  std::string type();
  // Of the first, with some of what is below it as in the second.
  nlohmann::json mixed(const nlohmann::json& first, const nlohmann::json& second);

  Support::Random random_;
  AgentClock clock_;
  nlohmann::json last_;
};

}  // namespace Wire
