// Limits how many similar lines a log has per minute. The first few are admitted; the others are left out and
// counted, and a line with the count follows at the end of the minute. Memory is bounded by what is admitted.
// Has no clock: times are milliseconds of a steady one.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace Runtime {

enum class Severity : uint8_t { error, information, detail };

struct LogLine {
  Severity severity;
  std::string label;  // before the text, such as "Kelstore/0"
  std::string text;
};

// Lines of one kind are similar, and even more so those about one subject.
struct Likeness {
  std::string kind;     // of a bounded number of kinds
  std::string subject;  // any; empty: about nothing in particular
};

class Thinning {
 public:
  static constexpr uint64_t kWhileMs = 60'000;  // from the first line of a kind
  static constexpr unsigned kOfKind = 60;       // lines admitted in that time
  static constexpr unsigned kOfSubject = 5;     // of these, lines about one subject
  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

  // Whether the line is to be written. If not, it is counted.
  bool admits(uint64_t nowMs, const Likeness& likeness, const LogLine& line);
  // The lines with the counts: those that are due, or all.
  std::vector<LogLine> over(uint64_t nowMs);
  std::vector<LogLine> all(uint64_t nowMs);
  // When to call over() next; kNever: no count is due.
  uint64_t nextMs() const;
  // Lines left out since this was made.
  uint64_t leftOut() const { return leftOut_; }

 private:
  struct Count {
    unsigned said = 0;
    uint64_t leftOut = 0;
    LogLine last{};  // that was left out
  };
  struct Kind {
    uint64_t sinceMs = 0;
    Count lines{};
    std::map<std::string, Count> subjects{};
  };

  void leaveOut(Count& count, const LogLine& line);
  void end(uint64_t nowMs, const Kind& kind);

  std::map<std::string, Kind> kinds_;
  std::vector<LogLine> ended_;
  uint64_t leftOut_ = 0;
};

}  // namespace Runtime
