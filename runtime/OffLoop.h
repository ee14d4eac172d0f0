// Work on another thread for an object that may be destroyed before the work is done.
#pragma once

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "runtime/Io.h"

namespace Runtime {

class OffLoop final {
 public:
  // `io` outlives this. To be a member of the object that takes the results.
  explicit OffLoop(Io& io) : io_(io) {}
  ~OffLoop() { *alive_ = false; }
  OffLoop(const OffLoop&) = delete;
  OffLoop& operator=(const OffLoop&) = delete;

  // Runs `work` as Io::offLoop() does, then calls `take` with its result, on the loop, unless this is
  // destroyed by then. `take` may destroy this.
  template <class Work, class Take>
  void run(Work work, Take take) {
    auto answer = std::make_shared<std::optional<std::invoke_result_t<Work>>>();
    io_.offLoop([answer, work = std::move(work)] { answer->emplace(work()); },
                [answer, take = std::move(take), alive = alive_] {
                  if (*alive) take(*std::move(*answer));
                });
  }

 private:
  Io& io_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Runtime
