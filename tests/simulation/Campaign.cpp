#include "tests/simulation/Campaign.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/simulation/Draw.h"
#include "tests/simulation/Isolated.h"
#include "tests/simulation/Shrink.h"

namespace Simulation {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint64_t kSeedsOfProcess = 32;
static_assert(kSeedsOfGroup % kSeedsOfProcess == 0);
constexpr auto kBetweenLines = 60s;
constexpr auto kBetweenLooks = 5ms;
constexpr size_t kShrinkingTries = 4000;

volatile std::sig_atomic_t interrupted = 0;

// The seeds from `first` up to, but without, `end`, in this process.
void runSeeds(uint64_t first, uint64_t end, Report& report) {
  prepareProcess(conditionsOf(first));
  for (report.seed = first; report.seed < end; ++report.seed) {
    Scenario scenario = scenarioOf(report.seed);
    Outcome outcome = run(scenario);
    if (outcome.failure.empty() && report.seed % kSeedsRunOnce == 0) {
      Outcome again = run(scenario);
      if (!again.failure.empty() || again.digest != outcome.digest || again.events != outcome.events) {
        outcome.failure = "another trace when it is run again " + again.failure;
      }
    }
    report.events += outcome.events;
    report.publications += outcome.publications;
    if (!outcome.failure.empty()) return report.failureIs(outcome.failure);
    ++report.seeds;
  }
}

// 1234567 as "1,234,567"
std::string grouped(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
  return text;
}

struct Piece {
  uint64_t first;
  uint64_t end;
  std::unique_ptr<Isolated> process;
};

}  // namespace

std::optional<Progress> ProgressFile::read(std::optional<uint64_t> first) const {
  std::ifstream file(path_);
  if (path_.empty() || !file) return std::nullopt;
  try {
    auto json = nlohmann::json::parse(file);
    Progress progress{.first = json.at("first"),
                      .next = json.at("next"),
                      .seeds = json.at("seeds"),
                      .events = json.at("events"),
                      .publications = json.at("publications"),
                      .twice = json.at("twice"),
                      .seconds = json.at("seconds")};
    if (first && progress.first != *first) return std::nullopt;
    return progress;
  } catch (const nlohmann::json::exception& e) {
    throw std::runtime_error(
        fmt::format("{}: {} (expected the progress of an earlier simulation)", path_, e.what()));
  }
}

void ProgressFile::write(const Progress& progress) const {
  if (path_.empty()) return;
  std::string beside = path_ + ".new";
  {
    std::ofstream file(beside);
    file << nlohmann::json{{"first", progress.first},
                           {"next", progress.next},
                           {"seeds", progress.seeds},
                           {"events", progress.events},
                           {"publications", progress.publications},
                           {"twice", progress.twice},
                           {"seconds", progress.seconds}}
         << '\n';
    if (!file.flush()) throw std::runtime_error(fmt::format("cannot write {}", beside));
  }
  if (std::rename(beside.c_str(), path_.c_str()) != 0)
    throw std::runtime_error(fmt::format("cannot write {}", path_));
}

void Campaign::interrupt() { interrupted = 1; }

std::optional<Divergence> Campaign::run(Progress& progress, const Limits& limits,
                                        const std::function<void(const Progress&)>& keep) {
  const auto begun = Clock::now();
  const double secondsBefore = progress.seconds;
  const uint64_t seedsBefore = progress.seeds;
  const uint64_t eventsBefore = progress.events;
  auto nextLine = begun + kBetweenLines;
  std::vector<Piece> pieces;  // in the order of their seeds
  uint64_t handedOut = progress.next;
  std::optional<Divergence> divergence;

  auto enough = [&] {
    return interrupted || divergence || Clock::now() - begun >= limits.time ||
           progress.seeds - seedsBefore >= limits.seeds || progress.events - eventsBefore >= limits.events;
  };
  for (;;) {
    while (pieces.size() < jobs_ && !enough() &&
           handedOut - progress.next + progress.seeds - seedsBefore < limits.seeds) {
      uint64_t left = limits.seeds - (handedOut - progress.next + progress.seeds - seedsBefore);
      uint64_t end = std::min((handedOut / kSeedsOfProcess + 1) * kSeedsOfProcess,
                              handedOut + std::min(left, kSeedsOfProcess));
      pieces.push_back({handedOut, end, nullptr});
      Piece& piece = pieces.back();
      piece.process = std::make_unique<Isolated>(
          [first = handedOut, end](Report& report) { runSeeds(first, end, report); });
      handedOut = end;
    }
    if (pieces.empty()) break;
    // In the order of seeds, so that what is done is always all seeds up to one.
    if (!pieces.front().process->ended()) {
      std::this_thread::sleep_for(kBetweenLooks);
    } else {
      Piece done = std::move(pieces.front());
      pieces.erase(pieces.begin());
      std::string failure = done.process->failure();
      const Report& report = done.process->report();
      if (!failure.empty()) divergence = Divergence{report.seed, failure};
      if (!divergence) {
        progress.next = done.end;
        progress.twice += (done.end - 1) / kSeedsRunOnce - (done.first - 1) / kSeedsRunOnce;
      }
      progress.seeds += report.seeds;
      progress.events += report.events;
      progress.publications += report.publications;
      if (divergence) break;
    }
    progress.seconds = secondsBefore + std::chrono::duration<double>(Clock::now() - begun).count();
    if (Clock::now() >= nextLine) {
      nextLine += kBetweenLines;
      say_(textOf(progress));
      keep(progress);
    }
  }
  progress.seconds = secondsBefore + std::chrono::duration<double>(Clock::now() - begun).count();
  keep(progress);
  return divergence;
}

std::string textOf(const Progress& progress) {
  double rate = progress.seconds > 0 ? static_cast<double>(progress.events) / progress.seconds : 0;
  return fmt::format(
      "{} seeds ({} to {}), {} events, {} changes of rows, {} seeds run twice; {:.0f} s, {} events/s",
      grouped(progress.seeds), progress.first, progress.next - 1, grouped(progress.events),
      grouped(progress.publications), grouped(progress.twice), progress.seconds,
      grouped(static_cast<uint64_t>(rate)));
}

std::string explained(const Divergence& divergence) {
  Scenario scenario = scenarioOf(divergence.seed);
  Outcome outcome = runIsolated(scenario);
  std::string text = fmt::format("Seed {}: {}\n", divergence.seed, divergence.failure);
  if (outcome.failure.empty()) return text + "It does so only now and then.\n";
  if (outcome.failedAt != 0) scenario.steps.resize(outcome.failedAt);
  auto failureOf = [](const Scenario& candidate) { return runIsolated(candidate).failure; };
  Scenario shortest = shrunk(std::move(scenario), failureOf, kShrinkingTries);
  return text + fmt::format("The shortest way there, for tests/simulation/RegressionTest.cpp ({}):\n\n{}",
                            failureOf(shortest), shortest.text());
}

}  // namespace Simulation
