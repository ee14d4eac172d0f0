// Tracing. Each source of traces has its own handle. Levels go from 0 (errors) to 9 (lifecycle detail); a
// handle emits the levels up to its own. A line is formatted only when its level is enabled.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "platform/zavro/Clock.h"

namespace Lumalog {

inline constexpr int kErrorLevel = 0;
inline constexpr int kWarningLevel = 1;
inline constexpr int kMaxLevel = 9;
inline constexpr int kDefaultLevel = 1;  // errors, warnings, and one line for each registered table

// What a line is about, for a log that limits the lines about each thing. Both may be empty.
struct Subject {
  std::string_view source;  // such as a file; there are few
  std::string_view key;     // such as a path in the file; there may be any number
};

struct Line {
  std::string_view handle;
  int level;
  std::string_view text;    // without a trailing newline
  std::string_view format;  // the text's format string, the same for all lines from one place in the code
  Subject subject;
};

// Receives every enabled trace line, on the tracing thread.
class Sink {
 public:
  virtual ~Sink() = default;
  virtual void trace(const Line& line) = 0;
};

// Sets where traces go; null discards them. The sink must outlive its use. Default: standard error.
void sinkIs(Sink* sink);
Sink* sink();

// Sets the level of the handle of that name, which may be created later. -1 silences it. "*" means every
// handle without a setting of its own.
void levelIs(std::string_view handle, int level);
// Undoes every levelIs().
void levelsReset();

// Sets the clock of block timers, which must outlive its use. Default: the system's.
void clockIs(const Zavro::Clock* clock);

class Handle {
 public:
  explicit Handle(std::string name);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const std::string& name() const { return name_; }
  bool enabled(int level) const { return level <= level_; }

  template <class... Args>
  void trace(int level, fmt::format_string<Args...> format, Args&&... args) const {
    trace(Subject{}, level, format, std::forward<Args>(args)...);
  }
  template <class... Args>
  void trace(const Subject& subject, int level, fmt::format_string<Args...> format, Args&&... args) const {
    if (!enabled(level)) return;
    fmt::string_view made = format;
    emit(level, fmt::format(format, std::forward<Args>(args)...), {made.data(), made.size()}, subject);
  }

  // For format strings that are not known at compile time, such as a pipeline's statements.
  template <class... Args>
  void traceRuntime(int level, std::string_view format, const Args&... args) const {
    if (enabled(level)) emit(level, fmt::format(fmt::runtime(format), args...), format, {});
  }

 private:
  friend void levelIs(std::string_view, int);
  friend void levelsReset();
  void emit(int level, std::string_view text, std::string_view format, const Subject& subject) const;

  std::string name_;
  int level_;
};

// Traces, at level 9, the entry of a block ("<function>[: <text>]") and how long it took ("<function> took
// <n> us").
class BlockTimer {
 public:
  BlockTimer(const Handle& handle, std::string_view function, std::string_view text = {});
  ~BlockTimer();
  BlockTimer(const BlockTimer&) = delete;
  BlockTimer& operator=(const BlockTimer&) = delete;

 private:
  const Handle& handle_;
  std::string_view function_;
  uint64_t startNs_ = 0;
  bool enabled_;  // at entry
};

}  // namespace Lumalog
