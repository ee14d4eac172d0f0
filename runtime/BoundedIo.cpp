#include "runtime/BoundedIo.h"

namespace Runtime {

// `done` comes last, as it may destroy this.
void BoundedIo::offLoop(std::function<void()> work, std::function<void()> done) {
  auto at = underWay_.emplace(underWay_.end());
  *at = io_.after(atMostMs_, [this, at] {
    at->reset();
    ++hanging_;
  });
  auto bounded = [work = std::move(work)] {
    work();
    return true;
  };
  offLoop_.run(std::move(bounded), [this, at, done = std::move(done)](bool) {
    if (*at == nullptr) --hanging_;
    underWay_.erase(at);
    done();
  });
}

}  // namespace Runtime
