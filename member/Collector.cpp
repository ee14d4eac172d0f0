#include "member/Collector.h"

#include "member/Trace.h"
#include "runtime/Errors.h"

namespace Member {
namespace {

using Lumalog::kErrorLevel;
constexpr int kRecoveryLevel = 1;

absl::StatusOr<Collector::Take> askSafely(const Collector::Ask& ask) {
  try {
    return ask();
  } catch (const std::exception& error) {
    return absl::UnknownError(error.what());
  }
}

}  // namespace

Collector::Collector(std::string name, Ask ask, Runtime::Io& io, const Zavro::Clock& clock,
                     std::function<void()> told)
    : ask_(std::move(ask)), io_(io), clock_(clock), told_(std::move(told)) {
  status_.name = std::move(name);
}

void Collector::collect() {
  if (asking_) return;
  asking_ = true;
  askedUtcNs_ = clock_.utcNs();
  patience_ = io_.after(kPatienceMs, [this] { hangs(); });
  offLoop_.run([ask = ask_] { return askSafely(ask); },
               [this](absl::StatusOr<Take> answer) { answered(std::move(answer)); });
}

void Collector::answered(absl::StatusOr<Take> answer) {
  patience_.reset();
  asking_ = false;
  if (answer.ok()) {
    works();
    (*answer)();
  } else {
    fails(Runtime::textOf(answer.status()));
  }
  told_();
}

void Collector::hangs() {
  patience_.reset();
  isTroubled(State::hangs, askedUtcNs_);
  status_.error = fmt::format("no answer for {} s", kPatienceMs / 1000);
  traceHandle.trace(kErrorLevel, "collector {} hangs: {}", status_.name, status_.error);
  told_();
}

bool Collector::troubled() const { return status_.state == State::fails || status_.state == State::hangs; }

void Collector::isTroubled(State state, uint64_t sinceUtcNs) {
  if (!troubled()) status_.sinceUtcNs = sinceUtcNs;
  status_.state = state;
}

void Collector::works() {
  if (troubled()) traceHandle.trace(kRecoveryLevel, "collector {} works again", status_.name);
  status_.state = State::works;
  status_.sinceUtcNs = 0;
  status_.error.clear();
}

void Collector::fails(std::string error) {
  bool news = status_.state != State::fails || status_.error != error;
  if (news) traceHandle.trace(kErrorLevel, "collector {} fails: {}", status_.name, error);
  isTroubled(State::fails, clock_.utcNs());
  status_.error = std::move(error);
}

}  // namespace Member
