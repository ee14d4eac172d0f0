// A network of a test's own: a network namespace, with devices that the test makes.
#pragma once

#include <memory>
#include <string>

#include "tests/support/Process.h"

namespace Support {

// Moves the calling thread, and the processes that it starts from now on, to a new network namespace in which
// there is a loopback device, which is up. Returns why that is not possible; empty when it was done. For test
// programs that do nothing else: there is no way back.
std::string enterOwnNetwork();

// Runs ip(8) with these arguments, separated by blanks. Throws std::runtime_error when it fails.
void ip(const std::string& arguments);

// Another network beside the one that the calling thread is in, for as long as it lives: of the far end of a
// cable, say.
class OtherNetwork final {
 public:
  // Throws std::runtime_error when it cannot be made.
  OtherNetwork();

  // Takes the device from the calling thread's network.
  void take(const std::string& device) const;
  // Moves the calling thread there, for good. Throws std::runtime_error when that fails.
  void enter() const;
  // Writes to a file, such as one below /proc/sys/net, as a thread there sees it.
  void writeTo(const std::string& path, const std::string& text) const;
  // ip(8) there.
  void ip(const std::string& arguments) const;

 private:
  std::unique_ptr<Process> holder_;
};

}  // namespace Support
