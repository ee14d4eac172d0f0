#include "runtime/Thinning.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Runtime {

bool Thinning::admits(uint64_t nowMs, const Likeness& likeness, const LogLine& line) {
  Kind& kind = kinds_.try_emplace(likeness.kind, Kind{nowMs}).first->second;
  if (nowMs >= kind.sinceMs + kWhileMs) {
    end(nowMs, kind);
    kind = Kind{nowMs};
  }
  auto subject = kind.subjects.find(likeness.subject);
  bool known = subject != kind.subjects.end();
  if (known && subject->second.said == kOfSubject) {
    leaveOut(subject->second, line);
    return false;
  }
  if (kind.lines.said == kOfKind) {
    leaveOut(kind.lines, line);
    return false;
  }
  ++kind.lines.said;
  if (!likeness.subject.empty()) ++kind.subjects[likeness.subject].said;
  return true;
}

void Thinning::leaveOut(Count& count, const LogLine& line) {
  ++count.leftOut;
  ++leftOut_;
  count.last = line;
}

void Thinning::end(uint64_t nowMs, const Kind& kind) {
  auto tell = [&](const Count& count) {
    if (count.leftOut == 0) return;
    std::string text = fmt::format("{} more like this in the last {} s left out, the last: {}", count.leftOut,
                                   (nowMs - kind.sinceMs + 500) / 1000, count.last.text);
    ended_.push_back({count.last.severity, count.last.label, std::move(text)});
  };
  for (const auto& [name, count] : kind.subjects) tell(count);
  tell(kind.lines);
}

std::vector<LogLine> Thinning::over(uint64_t nowMs) {
  std::erase_if(kinds_, [&](const auto& named) {
    bool isOver = nowMs >= named.second.sinceMs + kWhileMs;
    if (isOver) end(nowMs, named.second);
    return isOver;
  });
  return std::exchange(ended_, {});
}

std::vector<LogLine> Thinning::all(uint64_t nowMs) {
  for (const auto& [name, kind] : kinds_) end(nowMs, kind);
  kinds_.clear();
  return std::exchange(ended_, {});
}

uint64_t Thinning::nextMs() const {
  if (!ended_.empty()) return 0;
  uint64_t next = kNever;
  for (const auto& [name, kind] : kinds_) next = std::min(next, kind.sinceMs + kWhileMs);
  return next;
}

}  // namespace Runtime
