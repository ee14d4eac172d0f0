#include "runtime/StateDirectory.h"

#include <unistd.h>

#include <cstdlib>

namespace Runtime {

std::string stateDirectory(const std::string& program) {
  if (const char* systemd = std::getenv("STATE_DIRECTORY")) {
    std::string all = systemd;
    return all.substr(0, all.find(':'));
  }
  if (geteuid() == 0) return "/var/lib/" + program;
  if (const char* state = std::getenv("XDG_STATE_HOME")) return std::string(state) + "/" + program;
  const char* home = std::getenv("HOME");
  return std::string(home == nullptr ? "/tmp" : home) + "/.local/state/" + program;
}

}  // namespace Runtime
