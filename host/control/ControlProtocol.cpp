#include "host/control/ControlProtocol.h"

#include "runtime/Directories.h"

namespace Control {
namespace {

constexpr const char* kSocketName = "/trelsnmpd.sock";

}  // namespace

std::string defaultSocketPath() { return Runtime::runtimeDirectory("trelsnmpd") + kSocketName; }

std::optional<std::string> LineBuffer::takeLine() {
  size_t end = bytes_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = bytes_.substr(0, end);
  bytes_.erase(0, end + 1);
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

}  // namespace Control
