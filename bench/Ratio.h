// Benchmarks that tell how much longer one thing takes than another. Both are measured in the same run, turn
// by turn, so that what else the machine does in the meantime touches both; what is reported is the median of
// several repetitions. Times are of one machine, ratios hold on others too.
//
//   static const bool registered = Bench::ratio("insert", rows, [] { return ours(); }, [] { return bare();
//   });
//
// A subject is made once for each repetition, and then prepared (not timed) and run (timed) for each turn.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Bench {

class Subject {
 public:
  virtual ~Subject() = default;
  // Brings everything into the state that run() starts from.
  virtual void prepare() {}
  virtual void run() = 0;
};

using MakeSubject = std::function<std::unique_ptr<Subject>()>;

inline constexpr int kRepetitions = 9;

// Registers the benchmark. It reports the counters "ours_ns" and "bare_ns", the time for one of the items
// that each run() handles, and "ratio", the first divided by the second. Returns true.
bool ratio(const std::string& name, size_t items, MakeSubject ours, MakeSubject bare,
           int repetitions = kRepetitions);

// The same with different numbers of items: a time per item is divided by a time per item.
bool ratio(const std::string& name, size_t ourItems, MakeSubject ours, size_t bareItems, MakeSubject bare,
           int repetitions = kRepetitions);

// Keeps the compiler from leaving out what computes the value.
void keep(size_t value);

}  // namespace Bench
