#include "tests/wire/Conversation.h"

#include <fmt/format.h>

namespace Wire {
namespace {

// Under way at a time: few enough for the daemon's receive buffer.
constexpr size_t kMaxOpen = 16;
constexpr size_t kMaxOpenBytes = 60'000;
constexpr Support::Millis kPatience(3000);

std::string shown(const std::optional<Message>& message) { return message ? text(*message) : "no answer\n"; }

}  // namespace

void Conversation::add(Message request) {
  if (!mismatch_.empty()) return;
  Bytes bytes = encode(request);
  std::optional<Message> expected = subject_.model().answerTo(request);
  int64_t id = request.pdu.requestId;
  if (expected) {
    open_[id] = {std::move(request), std::move(*expected)};
  } else {
    mute_[id] = std::move(request);
  }
  subject_.exchange().send(bytes);
  openBytes_ += bytes.size();
  if (open_.size() >= kMaxOpen || openBytes_ >= kMaxOpenBytes) finish();
}

void Conversation::finish() {
  if (!mute_.empty()) askLast();
  while (!open_.empty() && mismatch_.empty()) {
    if (std::optional<Bytes> answer = subject_.exchange().receive(kPatience)) {
      judge(*answer);
      continue;
    }
    std::map<int64_t, Asked> unanswered;
    unanswered.swap(open_);
    for (const auto& [id, asked] : unanswered) askAgain(asked);
  }
  mute_.clear();
  openBytes_ = 0;
}

// Answers come in the order of requests: once this one is there, no other will come.
void Conversation::askLast() {
  Message last;
  last.community = kReader;
  while (mute_.contains(last.pdu.requestId) || open_.contains(last.pdu.requestId)) ++last.pdu.requestId;
  open_[last.pdu.requestId] = {last, subject_.model().answerTo(last).value()};
  subject_.exchange().send(encode(last));
}

void Conversation::judge(const Bytes& answer) {
  int64_t id = 0;
  try {
    id = requestIdOf(answer);
  } catch (const Malformed& e) {
    mismatch_ = fmt::format("an answer that cannot be read ({}): {}\n", e.what(), hex(answer));
    return;
  }
  if (auto muted = mute_.find(id); muted != mute_.end()) {
    found(muted->second, verdict(std::nullopt, answer));
  } else if (auto at = open_.find(id); at != open_.end()) {
    Asked asked = std::move(at->second);
    open_.erase(at);
    std::string wrong = verdict(asked.expected, answer);
    if (!wrong.empty()) found(std::move(asked.request), std::move(wrong));
  }
  // Any other is a second answer to what was asked twice.
}

void Conversation::askAgain(const Asked& asked) {
  if (!mismatch_.empty()) return;
  ++repeated_;
  std::string wrong = verdict(asked.expected, subject_.exchange().ask(asked.request));
  if (!wrong.empty()) found(asked.request, std::move(wrong));
}

std::string Conversation::verdict(const std::optional<Message>& expected,
                                  const std::optional<Bytes>& answer) {
  std::optional<Message> got;
  try {
    if (answer) got = decode(*answer);
  } catch (const Malformed& e) {
    return fmt::format("expected: {}answered, which cannot be read ({}): {}\n", shown(expected), e.what(),
                       hex(*answer));
  }
  if (got == expected) return {};
  return fmt::format("expected: {}answered: {}", shown(expected), shown(got));
}

// With each varbind left away that is not needed to see it.
void Conversation::found(Message request, std::string what) {
  for (size_t i = request.pdu.varbinds.size(); i > 0 && subject_.complaint().empty(); --i) {
    Message fewer = request;
    fewer.pdu.varbinds.erase(fewer.pdu.varbinds.begin() + static_cast<std::ptrdiff_t>(i - 1));
    std::optional<Message> expected = subject_.model().answerTo(fewer);
    if (!expected) continue;  // that no answer comes would take its time
    std::string wrong = verdict(expected, subject_.exchange().ask(fewer));
    if (wrong.empty()) continue;
    request = std::move(fewer);
    what = std::move(wrong);
  }
  mismatch_ =
      fmt::format("asked: {}{}\n{}{}", text(request), hex(encode(request)), what, subject_.complaint());
}

}  // namespace Wire
