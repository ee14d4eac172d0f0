#include "bench/Ratio.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <utility>

namespace Bench {
namespace {

// What one of the two took so far.
class Side {
 public:
  // The first turn, which pays for cold caches and first allocations, does not count.
  Side(const MakeSubject& make, size_t items) : subject_(make()), items_(items) {
    turn();
    turns_ = 0;
    seconds_ = 0;
  }

  double turn() {
    using Clock = std::chrono::steady_clock;
    subject_->prepare();
    auto start = Clock::now();
    subject_->run();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    seconds_ += seconds;
    ++turns_;
    return seconds;
  }
  double nsPerItem() const {
    return seconds_ * 1e9 / static_cast<double>(turns_) / static_cast<double>(items_);
  }

 private:
  std::unique_ptr<Subject> subject_;
  size_t items_;
  size_t turns_ = 0;
  double seconds_ = 0;
};

void measure(benchmark::State& state, Side ours, Side bare) {
  bool oursFirst = true;
  for (auto _ : state) {
    double seconds = oursFirst ? ours.turn() : bare.turn();
    seconds += oursFirst ? bare.turn() : ours.turn();
    oursFirst = !oursFirst;
    state.SetIterationTime(seconds);
  }
  state.counters["ours_ns"] = ours.nsPerItem();
  state.counters["bare_ns"] = bare.nsPerItem();
  state.counters["ratio"] = ours.nsPerItem() / bare.nsPerItem();
}

}  // namespace

bool ratio(const std::string& name, size_t ourItems, MakeSubject ours, size_t bareItems, MakeSubject bare,
           int repetitions) {
  auto run = [=](benchmark::State& state) { measure(state, Side(ours, ourItems), Side(bare, bareItems)); };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->MinTime(0.2)
      ->Repetitions(repetitions)
      ->ReportAggregatesOnly();
  return true;
}

bool ratio(const std::string& name, size_t items, MakeSubject ours, MakeSubject bare, int repetitions) {
  return ratio(name, items, std::move(ours), items, std::move(bare), repetitions);
}

void keep(size_t value) { benchmark::DoNotOptimize(value); }

}  // namespace Bench
