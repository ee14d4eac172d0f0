// An Io whose work comes to an end by itself, as it has deadlines. When some does not, its thread hangs where
// none may, which is for the watchdog. Not for looks at file systems, which may hang for as long as they
// like.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Runtime {

class BoundedIo final : public Io {
 public:
  // atMostMs: after this time, work hangs. Io outlives this.
  BoundedIo(Io& io, uint64_t atMostMs) : io_(io), atMostMs_(atMostMs) {}

  // Whether some work hangs now.
  bool hangs() const { return hanging_ != 0; }

  // `done` is not called once this is destroyed.
  void offLoop(std::function<void()> work, std::function<void()> done) override;
  std::unique_ptr<Waker> waker(std::function<void()> woken) override { return io_.waker(std::move(woken)); }
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override {
    return io_.watch(path, std::move(changed));
  }
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override {
    return io_.after(milliseconds, std::move(elapsed));
  }

 private:
  // Work under way: until when it may be; null: it hangs.
  using Bound = std::unique_ptr<Activity>;

  Io& io_;
  const uint64_t atMostMs_;
  std::list<Bound> underWay_;
  size_t hanging_ = 0;
  OffLoop offLoop_{io_};
};

}  // namespace Runtime
