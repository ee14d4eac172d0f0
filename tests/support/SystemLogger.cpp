#include "tests/support/SystemLogger.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace Support {

SystemLogger::SystemLogger(std::string directory, const std::string& name)
    : directory_(std::move(directory)),
      path_(directory_ + (name == "syslog" ? "/dev/log" : "/run/systemd/journal/socket")) {
  std::filesystem::create_directories(directory_ + "/dev");
  std::filesystem::create_directories(directory_ + "/run/systemd/journal");
  open();
}

SystemLogger::~SystemLogger() {
  close(socket_);
  if (before_ >= 0) close(before_);
}

std::string SystemLogger::notAllowed() {
  Result tried = run({"unshare", "--mount", "true"});
  return tried.status == 0 ? "" : "not allowed here: " + tried.err;
}

// The directories are the test's own: it is left with them, whatever the namespace does.
Argv SystemLogger::runner() const {
  const char* inNamespace = R"(cd "$0" || exit
for device in null urandom random zero; do : > dev/$device; mount --bind /dev/$device dev/$device || exit; done
mount --rbind dev /dev && mount --rbind run /run && cd / && exec "$@")";
  return {"unshare", "--mount", "/bin/sh", "-c", inNamespace, directory_};
}

void SystemLogger::startAnew() {
  if (before_ >= 0) close(before_);
  before_ = std::exchange(socket_, -1);
  std::filesystem::remove(path_);
  open();
}

void SystemLogger::open() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
  throw std::runtime_error(path_ + ": " + std::strerror(errno));
}

std::string SystemLogger::next(int socket) {
  std::string message(8192, '\0');
  ssize_t size = recv(socket, message.data(), message.size(), MSG_DONTWAIT);
  message.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
  return message;
}

}  // namespace Support
