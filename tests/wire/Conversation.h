// Asks many messages in a row, some at a time, and holds each answer against the model.
#pragma once

#include <map>

#include "tests/wire/Subject.h"

namespace Wire {

class Conversation {
 public:
  explicit Conversation(Subject& subject) : subject_(subject) {}

  // Takes up one more; waits for the answers to those taken up when they are many.
  void add(Message request);
  // Waits for the answers to all that were taken up.
  void finish();

  // What was answered otherwise than it should have been, in as few varbinds as show it; empty while all is
  // well. Nothing more is asked from then on.
  const std::string& mismatch() const { return mismatch_; }
  // Messages that were asked again, since they or their answers were lost on the way.
  size_t repeated() const { return repeated_; }

 private:
  struct Asked {
    Message request;
    Message expected;
  };
  void askLast();
  void judge(const Bytes& answer);
  void askAgain(const Asked& asked);
  // What is wrong with this answer, or with there being none; empty when it is right.
  static std::string verdict(const std::optional<Message>& expected, const std::optional<Bytes>& answer);
  void found(Message request, std::string what);

  Subject& subject_;
  std::map<int64_t, Asked> open_;    // by request id: no answer yet, but there is to be one
  std::map<int64_t, Message> mute_;  // there is to be none
  size_t openBytes_ = 0;
  size_t repeated_ = 0;
  std::string mismatch_;
};

}  // namespace Wire
