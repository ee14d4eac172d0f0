#include "host/control/ControlProtocol.h"

#include <unistd.h>

#include <cstdlib>

namespace Control {
namespace {

constexpr const char* kSocketName = "/trelsnmpd.sock";

// Empty when it is not set.
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

std::string defaultSocketPath() {
  std::string systemd = environment("RUNTIME_DIRECTORY");
  // systemd separates several directories by colons; the first is the daemon's.
  if (!systemd.empty()) return systemd.substr(0, systemd.find(':')) + kSocketName;
  if (geteuid() == 0) return std::string("/run/trelsnmpd") + kSocketName;
  std::string session = environment("XDG_RUNTIME_DIR");
  if (!session.empty()) return session + kSocketName;
  return "/tmp/trelsnmpd-" + std::to_string(geteuid()) + kSocketName;
}

std::optional<std::string> LineBuffer::takeLine() {
  size_t end = bytes_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = bytes_.substr(0, end);
  bytes_.erase(0, end + 1);
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

}  // namespace Control
