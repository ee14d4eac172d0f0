// Runs one seed after the other, in several processes at a time, until something is wrong or it is told to
// end; and goes on where an earlier campaign stopped.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tests/simulation/Step.h"

namespace Simulation {

struct Limits {
  std::chrono::duration<double> time = std::chrono::hours(24 * 365);
  uint64_t seeds = ~uint64_t{0};
  uint64_t events = ~uint64_t{0};
};

// How far all campaigns with a first seed have come.
struct Progress {
  uint64_t first = 1;  // seed
  uint64_t next = 1;   // the first seed that is not known to be done
  uint64_t seeds = 0;
  uint64_t events = 0;
  uint64_t publications = 0;
  uint64_t twice = 0;  // seeds that were run a second time, to the same effect
  double seconds = 0;
};

// Keeps progress in a file. Without a path nothing is kept.
class ProgressFile {
 public:
  explicit ProgressFile(std::string path) : path_(std::move(path)) {}
  // Nothing when there is no file, or it is of campaigns with another first seed (if one is given). Throws
  // std::runtime_error for a file that cannot be understood.
  std::optional<Progress> read(std::optional<uint64_t> first) const;
  void write(const Progress& progress) const;

 private:
  std::string path_;
};

struct Divergence {
  uint64_t seed;
  std::string failure;
};

// One seed of so many is run twice.
inline constexpr uint64_t kSeedsRunOnce = 100;

class Campaign {
 public:
  // say: gets a line for people now and then.
  Campaign(unsigned jobs, std::function<void(const std::string&)> say) : jobs_(jobs), say_(std::move(say)) {}

  // Goes on from progress, and brings it up to date. What was wrong, if anything was; progress.next is then
  // not beyond that seed. keep is called when progress is worth keeping.
  std::optional<Divergence> run(Progress& progress, const Limits& limits,
                                const std::function<void(const Progress&)>& keep);
  // Ends it soon; may be called from a signal handler.
  static void interrupt();

 private:
  unsigned jobs_;
  std::function<void(const std::string&)> say_;
};

// "1,234 seeds, 5,678,901 events ..."
std::string textOf(const Progress& progress);

// What to do about a divergence: the scenario made short, with what it fails with, as text.
std::string explained(const Divergence& divergence);

}  // namespace Simulation
