// An Io whose work runs on few threads at a time, for looks at file systems, of which a machine may have
// hundreds. Work that is slow makes room for other work, so that file systems that hang stop no others until
// there are very many. On the event loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Member {

class LookPool final : public Runtime::Io {
 public:
  static constexpr size_t kQuick = 8;       // threads for work that is not known to be slow
  static constexpr uint64_t kSlowMs = 250;  // from then on it is
  static constexpr size_t kMost = 64;       // threads in all; then work waits for one to end

  // Io outlives this.
  explicit LookPool(Runtime::Io& io) : io_(io) {}

  // Work that waits is dropped when this is destroyed.
  void offLoop(std::function<void()> work, std::function<void()> done) override;

  std::unique_ptr<Waker> waker(std::function<void()> woken) override { return io_.waker(std::move(woken)); }
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override {
    return io_.watch(path, std::move(changed));
  }
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override {
    return io_.after(milliseconds, std::move(elapsed));
  }

 private:
  struct Work {
    std::function<void()> work;
    std::function<void()> done;
  };
  // Work under way: until when it counts as quick; nothing: it is slow.
  using Quick = std::unique_ptr<Activity>;

  void startSome();
  void start(Work work);

  Runtime::Io& io_;
  std::deque<Work> waiting_;
  std::list<Quick> underWay_;
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Member
