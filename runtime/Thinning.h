// How much a log says of one thing in a while: of lines that are like each other the first few are said,
// those left out are counted, and the count is told at the end of the while. What is kept is bounded by what
// is said. Without a clock: times are milliseconds on one that never steps back.
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
  std::string label;  // what it begins with, such as "Kelstore/0"
  std::string text;
};

// What a line has in common with those that are like it.
struct Likeness {
  std::string kind;     // one of a bounded number
  std::string subject;  // what it is about, of which there may be any number; may be empty
};

class Thinning {
 public:
  static constexpr uint64_t kWhileMs = 60'000;  // from the first line of a kind on
  static constexpr unsigned kOfKind = 60;       // lines that are said in it
  static constexpr unsigned kOfSubject = 5;     // of these about one subject
  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

  // Whether the line is to be said. When not, it is counted.
  bool admits(uint64_t nowMs, const Likeness& likeness, const LogLine& line);
  // What there is to say of lines that were left out: of those whose while is over, or of all.
  std::vector<LogLine> over(uint64_t nowMs);
  std::vector<LogLine> all(uint64_t nowMs);
  // When over() has something to say again.
  uint64_t nextMs() const;
  // How many lines were left out since the beginning.
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
