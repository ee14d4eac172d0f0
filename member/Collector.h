// Asks the machine one question again and again, each time in a job of its own off the loop.
//
// While a question has no answer, it is not asked again. A failure changes no known figure. Both are shown in
// the status, and logged once. On the event loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kelstore/Source.h"
#include "member/LocalMachine.h"
#include "platform/zavro/Clock.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Member {

class Collector final {
 public:
  using State = Kelstore::CollectorStatus::State;
  // Takes an answer over, on the loop.
  using Take = std::function<void()>;
  // Asks, on another thread. Errors are one line; an exception counts as an error.
  using Ask = std::function<absl::StatusOr<Take>()>;

  // A question without an answer for so long counts as hanging.
  static constexpr uint64_t kPatienceMs = 3000;

  // told: called on the loop after each answer, and when a question begins to hang. Io and clock outlive the
  // collector.
  Collector(std::string name, Ask ask, Runtime::Io& io, const Zavro::Clock& clock,
            std::function<void()> told);
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // Asks, unless the last question has no answer yet.
  void collect();
  // Sets what is asked from the next time on.
  void askIs(Ask ask) { ask_ = std::move(ask); }
  bool asking() const { return asking_; }
  // Whether its first question was answered, failed or hangs.
  bool heard() const { return status_.state != State::starting; }
  // Whether it fails or hangs.
  bool troubled() const;
  const Kelstore::CollectorStatus& status() const { return status_; }

 private:
  void answered(absl::StatusOr<Take> answer);
  void hangs();
  void isTroubled(State state, uint64_t sinceUtcNs);
  void works();
  void fails(std::string error);

  Ask ask_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> told_;
  Kelstore::CollectorStatus status_;
  bool asking_ = false;
  uint64_t askedUtcNs_ = 0;
  std::unique_ptr<Runtime::Io::Activity> patience_;
  Runtime::OffLoop offLoop_{io_};
};

// A question whose answer is passed to `take`, on the loop. What `ask` captures lives as long as the question
// hangs.
template <class Answer>
Collector::Ask asking(std::function<absl::StatusOr<Answer>()> ask, std::function<void(Answer)> take) {
  return [ask = std::move(ask), take = std::move(take)]() -> absl::StatusOr<Collector::Take> {
    absl::StatusOr<Answer> answer = ask();
    if (!answer.ok()) return answer.status();
    return Collector::Take([take, value = *std::move(answer)] { take(value); });
  };
}

}  // namespace Member
