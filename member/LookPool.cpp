#include "member/LookPool.h"

#include <algorithm>
#include <utility>

namespace Member {

void LookPool::offLoop(std::function<void()> work, std::function<void()> done) {
  waiting_.push_back({std::move(work), std::move(done)});
  startSome();
}

void LookPool::startSome() {
  auto isQuick = [](const Quick& quick) { return quick != nullptr; };
  while (!waiting_.empty() && underWay_.size() < kMost &&
         static_cast<size_t>(std::count_if(underWay_.begin(), underWay_.end(), isQuick)) < kQuick) {
    Work next = std::move(waiting_.front());
    waiting_.pop_front();
    start(std::move(next));
  }
}

// `done` comes last, as it may destroy this.
void LookPool::start(Work work) {
  auto at = underWay_.emplace(underWay_.end());
  *at = io_.after(kSlowMs, [this, at] {
    at->reset();
    startSome();
  });
  auto look = [look = std::move(work.work)] {
    look();
    return true;
  };
  offLoop_.run(std::move(look), [this, at, done = std::move(work.done)](bool) {
    underWay_.erase(at);
    startSome();
    done();
  });
}

}  // namespace Member
