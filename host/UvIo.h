// Kelstore::Io on the event loop.
#pragma once

#include "EventLoop.h"
#include "Io.h"

namespace Host {

// The loop must outlive it.
class UvIo final : public Kelstore::Io {
 public:
  // How often a watched file is looked at, for changes that its directory does not tell of: a directory that
  // was not there or was replaced, a link to elsewhere, a file system without notification.
  static constexpr uint64_t kPollMs = 400;

  explicit UvIo(EventLoop& loop) : loop_(loop) {}
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override;
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override;
  void offLoop(std::function<void()> work, std::function<void()> done) override;

 private:
  EventLoop& loop_;
};

}  // namespace Host
