#include "platform/lumalog/Lumalog.h"

#include <cstdio>
#include <map>
#include <set>

#include "platform/lumalog/Levels.h"

namespace Lumalog {
namespace {

constexpr int kBlockTimerLevel = 9;
constexpr std::string_view kEveryHandle = "*";

class StderrSink final : public Sink {
 public:
  void trace(const Line& line) override {
    // Not fmt::print(), which throws when standard error is closed or full.
    std::string text = fmt::format("{}/{} {}\n", line.handle, line.level, line.text);
    std::fwrite(text.data(), 1, text.size(), stderr);
  }
};

// Created by the first handle and never destroyed: handles are static objects of many files, and deregister
// during static destruction.
struct Registry {
  std::set<Handle*> handles;
  std::map<std::string, int, std::less<>> levels;
  StderrSink standardError;
  Sink* sink = &standardError;
  Zavro::SystemClock systemClock;
  const Zavro::Clock* clock = &systemClock;

  int levelOf(std::string_view name) const {
    auto own = levels.find(name);
    if (own == levels.end()) own = levels.find(kEveryHandle);
    return own == levels.end() ? kDefaultLevel : own->second;
  }
};

Registry& registry() {
  static auto* instance = new Registry;
  return *instance;
}

}  // namespace

void sinkIs(Sink* sink) { registry().sink = sink; }
Sink* sink() { return registry().sink; }
void clockIs(const Zavro::Clock* clock) { registry().clock = clock; }

void levelIs(std::string_view handle, int level) {
  registry().levels.insert_or_assign(std::string(handle), level);
  for (Handle* h : registry().handles) h->level_ = registry().levelOf(h->name());
}

std::map<std::string, int> levels() {
  std::map<std::string, int> levels;
  for (const Handle* handle : registry().handles)
    levels.emplace(handle->name(), registry().levelOf(handle->name()));
  return levels;
}

void levelsReset() {
  registry().levels.clear();
  for (Handle* h : registry().handles) h->level_ = kDefaultLevel;
}

Handle::Handle(std::string name) : name_(std::move(name)), level_(registry().levelOf(name_)) {
  registry().handles.insert(this);
}

Handle::~Handle() { registry().handles.erase(this); }

void Handle::emit(int level, std::string_view text, std::string_view format, const Subject& subject) const {
  if (Sink* to = registry().sink) to->trace({name_, level, text, format, subject});
}

BlockTimer::BlockTimer(const Handle& handle, std::string_view function, std::string_view text)
    : handle_(handle), function_(function), enabled_(handle.enabled(kBlockTimerLevel)) {
  if (!enabled_) return;
  startNs_ = registry().clock->monotonicNs();
  handle_.trace(kBlockTimerLevel, "{}{}{}", function_, text.empty() ? "" : ": ", text);
}

BlockTimer::~BlockTimer() {
  if (!enabled_) return;
  handle_.trace(kBlockTimerLevel, "{} took {} us", function_,
                (registry().clock->monotonicNs() - startNs_) / 1000);
}

}  // namespace Lumalog
