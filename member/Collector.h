// Asks the machine one question again and again, each time in a job of its own off the loop.
//
// A question that is not answered is not asked again until it is, and one that fails takes nothing away that
// was known: both are told in the status, and in one line of the log. On the event loop's thread.
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
  // What is to be done on the loop with an answer.
  using Take = std::function<void()>;
  // Asks, on another thread.
  using Ask = std::function<absl::StatusOr<Take>()>;

  // How long a question may remain without an answer before it counts as hanging.
  static constexpr uint64_t kPatienceMs = 3000;

  // `told` is called on the loop when there is news: an answer was taken, or the state is another one. Io and
  // clock outlive the collector.
  Collector(std::string name, Ask ask, Runtime::Io& io, const Zavro::Clock& clock,
            std::function<void()> told);
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // Asks, unless the last question is still without an answer.
  void collect();
  // What is asked from the next time on.
  void askIs(Ask ask) { ask_ = std::move(ask); }
  bool asking() const { return asking_; }
  // Whether it is known how the collector does: it answered, failed or hangs.
  bool heard() const { return status_.state != State::starting; }
  const Kelstore::CollectorStatus& status() const { return status_; }

 private:
  void answered(absl::StatusOr<Take> answer);
  void hangs();
  void works();
  void fails(std::string error);

  Ask ask_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> told_;
  Kelstore::CollectorStatus status_;
  bool asking_ = false;
  uint64_t askedUtcNs_ = 0;  // when the last question was asked
  std::unique_ptr<Runtime::Io::Activity> patience_;
  Runtime::OffLoop offLoop_{io_};
};

// A question whose answer is handed to `take`, on the loop. What `ask` holds lives as long as a question
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
