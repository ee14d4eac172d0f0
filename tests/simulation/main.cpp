// simulate: lets simulated clusters happen to the library until something is wrong.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

#include "tests/simulation/Campaign.h"
#include "tests/simulation/Draw.h"
#include "tests/simulation/Isolated.h"

namespace {

using namespace Simulation;

struct Arguments {
  double hours = 0;
  unsigned jobs = 1;
  std::optional<uint64_t> seed;
  Limits limits;
  std::string progress;
  std::optional<uint64_t> show;
};

// Prints what happens in one seed.
int show(uint64_t seed) {
  Scenario scenario = scenarioOf(seed);
  Isolated process([&scenario](Report& report) {
    prepareProcess(scenario.conditions);
    Outcome outcome = run(scenario, [](std::string_view line) { fmt::print("{}\n", line); });
    report.failureIs(outcome.failure);
  });
  std::string failure = process.failure();
  if (failure.empty()) return 0;
  fmt::print(stderr, "Seed {}: {}\n", seed, failure);
  return 1;
}

int campaign(const Arguments& arguments) {
  auto say = [](const std::string& line) {
    fmt::print("{}\n", line);
    std::fflush(stdout);
  };
  ProgressFile file(arguments.progress);
  Progress progress{.first = arguments.seed.value_or(1), .next = arguments.seed.value_or(1)};
  if (auto before = file.read(arguments.seed)) {
    progress = *before;
    say("Going on after " + textOf(progress));
  }
  std::signal(SIGINT, [](int) { Campaign::interrupt(); });
  std::signal(SIGTERM, [](int) { Campaign::interrupt(); });
  Campaign campaign(arguments.jobs, say);
  auto divergence =
      campaign.run(progress, arguments.limits, [&file](const Progress& now) { file.write(now); });
  say(textOf(progress));
  if (!divergence) return 0;
  fmt::print(stderr, "Divergence in seed {}: {}\nMaking it short ...\n", divergence->seed,
             divergence->failure);
  fmt::print(stderr, "{}", explained(*divergence));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app{
      "Simulates clusters, tasks, agents and SNMP walks, seed after seed, and compares all that happens with "
      "an "
      "independent model. Exits with 0 when nothing was wrong, with 1 and the shortest scenario otherwise."};
  app.add_option("--hours", arguments.hours, "How long, in hours (default: until interrupted)")
      ->check(CLI::PositiveNumber);
  app.add_option("--jobs", arguments.jobs, "Processes at a time")
      ->check(CLI::Range(1U, 1024U))
      ->capture_default_str();
  app.add_option("--seed", arguments.seed, "The first seed (default: go on, or 1)");
  app.add_option("--seeds", arguments.limits.seeds, "At most so many seeds");
  app.add_option("--events", arguments.limits.events, "No more seeds after so many events");
  app.add_option("--progress", arguments.progress,
                 "File that keeps how far the seeds have come (default: none)");
  app.add_option("--show", arguments.show, "Print what happens in this seed, and nothing else");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  try {
    if (arguments.hours > 0) arguments.limits.time = std::chrono::duration<double>(arguments.hours * 3600);
    return arguments.show ? show(*arguments.show) : campaign(arguments);
  } catch (const std::exception& error) {
    fmt::print(stderr, "simulate: {}\n", error.what());
    return 2;
  }
}
