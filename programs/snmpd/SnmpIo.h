// Runtime::Io on the loop of the process's net-snmp agent: its alarms, and descriptors registered with it.
// There is no other thread: work "off the loop" runs on it, so that a file that hangs makes the agent hang.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "runtime/File.h"
#include "runtime/Io.h"

namespace InSnmpd {

// Calls `happened` in a turn of the loop after each wake(); several may become one call.
class Event final : public Runtime::Io::Waker {
 public:
  // Throws std::runtime_error when the system or net-snmp has no descriptor for it.
  explicit Event(std::function<void()> happened);
  ~Event() override;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  void wake() override;

 private:
  std::function<void()> happened_;
  Runtime::Descriptor descriptor_;
};

class SnmpIo final : public Runtime::Io {
 public:
  // How often a watched file is looked at.
  static constexpr uint64_t kLookMs = 1'000;

  std::unique_ptr<Waker> waker(std::function<void()> woken) override;
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override;
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override;
  void offLoop(std::function<void()> work, std::function<void()> done) override;

 private:
  std::vector<std::function<void()>> done_;
  Event worked_{[this] { workIsDone(); }};
  void workIsDone();
};

}  // namespace InSnmpd
