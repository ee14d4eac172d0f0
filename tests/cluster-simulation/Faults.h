// What happens to a cluster in a run: drawn fault after fault, each with its end.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tests/cluster-simulation/Simulation.h"

namespace ClusterSimulation {

class Faults final {
 public:
  explicit Faults(Simulation& simulation) : all_(simulation) {}

  // Draws faults that begin within that time. All of them have ended `kLongestMs` later.
  void draw(size_t count, uint64_t withinMs);

  static constexpr uint64_t kLongestMs = 90'000;

 private:
  void drawOne(uint64_t atMs);
  // Begins at that time, and ends after another. Without an end: it lasts for a moment.
  void fault(uint64_t atMs, const std::string& what, std::function<void()> begins,
             std::function<void()> ends = {});
  void ofServer(uint64_t atMs);
  void ofStore(uint64_t atMs);
  void ofFollower(uint64_t atMs);
  void ofMember(uint64_t atMs);
  void ofProcess(uint64_t atMs, uint8_t member);

  void wakeAll(uint8_t member);

  Simulation& all_;
};

}  // namespace ClusterSimulation
