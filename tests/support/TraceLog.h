// Collects trace lines for comparison. While one lives it is the process's trace sink.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lumalog/Lumalog.h"

class TraceLog final : public Lumalog::Sink {
 public:
  // Enables every level of the named handles; of all handles when none is named.
  explicit TraceLog(std::initializer_list<std::string_view> handles = {"*"}) : before_(Lumalog::sink()) {
    for (std::string_view handle : handles) Lumalog::levelIs(handle, Lumalog::kMaxLevel);
    Lumalog::sinkIs(this);
  }
  ~TraceLog() override {
    Lumalog::sinkIs(before_);
    Lumalog::levelsReset();
  }

  void trace(const Lumalog::Line& traced) override {
    lines_.push_back(line(traced.handle, traced.level, traced.text));
  }
  // A trace as lines() has it.
  static std::string line(std::string_view handle, int level, std::string_view text) {
    return fmt::format("{}/{} {}", handle, level, text);
  }

  // "<handle>/<level> <text>", in order.
  const std::vector<std::string>& lines() const { return lines_; }
  bool contains(std::string_view line) const {
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }
  size_t count(std::string_view line) const {
    return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line));
  }
  void clear() { lines_.clear(); }

 private:
  Lumalog::Sink* before_;
  std::vector<std::string> lines_;
};
