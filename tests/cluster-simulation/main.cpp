// cluster-simulate: lets clusters happen to followers and publishers, seed after seed, until something is
// wrong.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <limits>
#include <optional>

#include "platform/lumalog/Lumalog.h"
#include "tests/cluster-simulation/Simulation.h"

namespace {

using namespace ClusterSimulation;
using Clock = std::chrono::steady_clock;

struct Arguments {
  uint64_t seed = 1;
  std::optional<uint64_t> seeds;
  double seconds = std::numeric_limits<double>::infinity();
  bool show = false;
};

int simulate(const Arguments& arguments) {
  Lumalog::sinkIs(nullptr);
  auto begin = Clock::now();
  uint64_t runs = 0, checks = 0;
  int64_t revisions = 0;
  int status = 0;
  for (uint64_t seed = arguments.seed; runs < arguments.seeds.value_or(arguments.show ? 1 : ~0ULL); ++seed) {
    if (std::chrono::duration<double>(Clock::now() - begin).count() > arguments.seconds) break;
    Outcome outcome = Simulation(seed).run();
    ++runs;
    checks += outcome.checks;
    revisions += outcome.revisions;
    if (arguments.show) fmt::print("{}", outcome.history);
    if (outcome.verdict.empty()) continue;
    fmt::print(stderr, "Seed {}: {}\nWhat happened: cluster-simulate --seed {} --show\n", seed,
               outcome.verdict, seed);
    status = 1;
    break;
  }
  fmt::print("{} seeds from {} on, {} revisions, {} checks, {:.0f} s\n", runs, arguments.seed, revisions,
             checks, std::chrono::duration<double>(Clock::now() - begin).count());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app{
      "Simulates clusters of members, followers and a store to which things happen, seed after seed. Exits "
      "with "
      "0 when nothing was wrong, with 1 at the first seed in which something was."};
  app.add_option("--seed", arguments.seed, "The first seed")->capture_default_str();
  app.add_option("--seeds", arguments.seeds, "How many (default: until something is wrong)");
  app.add_option("--seconds", arguments.seconds, "For how long, in seconds");
  app.add_flag("--show", arguments.show,
               "Print what happens; one seed only, if --seeds does not say otherwise");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  return simulate(arguments);
}
