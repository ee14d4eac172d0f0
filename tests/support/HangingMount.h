// A file system that answers nothing, as a network file system does whose server is gone.
#pragma once

#include <string>

namespace Support {

// Moves the calling thread, and the threads and processes that it starts from now on, to a mount namespace of
// its own. Returns why that is not possible, or no such file system can be mounted there; empty when it was
// done. For test programs that do nothing else: there is no way back.
std::string enterOwnMounts();

class HangingMount final {
 public:
  // Mounts it over the directory. Throws std::runtime_error when it cannot.
  explicit HangingMount(std::string directory);
  // Takes it away; whoever waits for an answer gets an error.
  ~HangingMount();
  HangingMount(const HangingMount&) = delete;
  HangingMount& operator=(const HangingMount&) = delete;

 private:
  const std::string directory_;
  int served_;
};

}  // namespace Support
