#include "tests/simulation/Shrink.h"

#include <algorithm>

namespace Simulation {
namespace {

class Shrinking {
 public:
  Shrinking(Scenario scenario, const std::function<std::string(const Scenario&)>& failureOf, size_t tries)
      : best_(std::move(scenario)), failureOf_(failureOf), tries_(tries), sort_(sortOf(failureOf(best_))) {}

  Scenario result() {
    for (size_t before = 0; before != tries_ && tries_ > 0;) {
      before = tries_;
      size_t steps = best_.steps.size();
      leaveOut();
      if (best_.steps.size() == steps && !simplify()) break;
    }
    return std::move(best_);
  }

 private:
  bool takes(Scenario candidate) {
    if (tries_ == 0) return false;
    --tries_;
    if (sortOf(failureOf_(candidate)) != sort_) return false;
    best_ = std::move(candidate);
    return true;
  }

  // Runs of steps, from the longest to the shortest (delta debugging), from the end on.
  void leaveOut() {
    for (size_t length = std::max<size_t>(best_.steps.size() / 2, 1); length > 0; length /= 2) {
      for (size_t end = best_.steps.size(); end > 0;) {
        size_t begin = end > length ? end - length : 0;
        Scenario candidate = best_;
        candidate.steps.erase(candidate.steps.begin() + static_cast<long>(begin),
                              candidate.steps.begin() + static_cast<long>(end));
        takes(std::move(candidate));
        end = begin;
      }
    }
  }

  // Whether anything became simpler.
  bool simplify() {
    bool any = false;
    for (bool Conditions::*flag :
         {&Conditions::storageToggle, &Conditions::memoryToggle, &Conditions::keepRecords}) {
      Scenario candidate = best_;
      candidate.conditions.*flag = Conditions().*flag;
      if (candidate.conditions != best_.conditions) any |= takes(std::move(candidate));
    }
    for (size_t i = 0; i < best_.steps.size(); ++i) {
      for (uint32_t Step::*field : {&Step::within, &Step::set, &Step::key, &Step::item, &Step::value}) {
        for (uint32_t simpler : {0U, 1U, best_.steps[i].*field / 2}) {
          if (simpler >= best_.steps[i].*field) continue;
          Scenario candidate = best_;
          candidate.steps[i].*field = simpler;
          any |= takes(std::move(candidate));
        }
      }
    }
    return any;
  }

  Scenario best_;
  const std::function<std::string(const Scenario&)>& failureOf_;
  size_t tries_;
  const std::string sort_;
};

}  // namespace

std::string sortOf(const std::string& failure) {
  std::string sort;
  for (char character : failure) {
    bool isNumber = (character >= '0' && character <= '9') || character == '-';
    if (!isNumber) sort += character;
  }
  return sort;
}

Scenario shrunk(Scenario scenario, const std::function<std::string(const Scenario&)>& failureOf,
                size_t tries) {
  return Shrinking(std::move(scenario), failureOf, tries).result();
}

}  // namespace Simulation
