#include "programs/trelctl/ControlClient.h"

#include <fmt/format.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

namespace TrelCtl {
namespace {

// The bound of one line of an answer: a few dozen rows, or the daemon's status.
constexpr size_t kMaxAnswerBytes = 64 << 20;

// The owner of the socket's directory, when only root, or the service manager for it, could have made that
// one: the directory above is root's, and no other may write into it.
std::optional<uid_t> userOfDirectory(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code failure;
  fs::path directory = fs::canonical(fs::absolute(path).parent_path(), failure);
  struct stat own {};
  struct stat above {};
  if (failure || stat(directory.c_str(), &own) != 0 || stat(directory.parent_path().c_str(), &above) != 0) {
    return std::nullopt;
  }
  bool byRoot = above.st_uid == 0 && (above.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return byRoot ? std::optional(own.st_uid) : std::nullopt;
}

// Empty when the process that listens may be trusted.
std::string wrongWithPeer(int fd, const std::string& path) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::strerror(errno);
  if (peer.uid == 0 || peer.uid == geteuid() || peer.uid == userOfDirectory(path)) return "";
  return fmt::format(
      "found a daemon of the user {}, expected one of root, of this user, or of the user to whom "
      "root gave the directory",
      peer.uid);
}

// The group to which the socket is open: whoever may not look into its directory cannot see it.
std::string groupOf(const std::string& path) {
  struct stat socket {};
  const group* found = stat(path.c_str(), &socket) == 0 ? getgrgid(socket.st_gid) : nullptr;
  return found != nullptr ? found->gr_name : "trel";
}

// Behind the error of connecting to the path.
std::string whatToDo(int error, const std::string& path) {
  if (error == EACCES) return fmt::format(": be root, or in the group {}", groupOf(path));
  if (error == ENOENT || error == ECONNREFUSED) return ": start trelsnmpd, or name its socket with --control";
  return "";
}

}  // namespace

ControlClient::ControlClient(const std::string& path, int answerMs)
    : path_(path),
      answerMs_(answerMs),
      fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      lines_(kMaxAnswerBytes) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string problem;
  int connectError = 0;
  if (path.size() >= sizeof address.sun_path) {
    problem = std::strerror(ENAMETOOLONG);
  } else {
    path.copy(address.sun_path, path.size());
    // A daemon that hangs does not accept; connect() obeys the timeout for sending.
    timeval patience{answerMs / 1000, answerMs % 1000 * 1000};
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      connectError = errno;
      problem = connectError == EAGAIN ? "no answer" : std::strerror(connectError);
    }
  }
  if (!problem.empty()) {
    problem = fmt::format("no daemon at {}: {}{}", path_, problem, whatToDo(connectError, path_));
  } else if (problem = wrongWithPeer(fd_, path_); !problem.empty()) {
    problem = fmt::format("{}: {}", path_, problem);
  }
  if (problem.empty()) return;
  ::close(fd_);
  throw Unreachable(problem);
}

ControlClient::~ControlClient() { ::close(fd_); }

void ControlClient::send(const char* op) { send(Json{{"op", op}}); }

void ControlClient::send(const Json& request) {
  std::string line = request.dump() + "\n";
  ssize_t sent = ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(line.size())) fail(std::strerror(errno));
}

pid_t ControlClient::peer() const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) fail(std::strerror(errno));
  return peer.pid;
}

Json ControlClient::receive() {
  std::optional<std::string> line;
  while (!(line = lines_.takeLine())) {
    if (lines_.overflown()) fail("the answer is too long");
    pollfd readable{fd_, POLLIN, 0};
    int ready = ::poll(&readable, 1, answerMs_);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) fail("no answer");
    std::array<char, 64 * 1024> bytes{};
    ssize_t count = ::recv(fd_, bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail(std::strerror(errno));
    if (count == 0) fail("the daemon closed the connection");
    lines_.append({bytes.data(), static_cast<size_t>(count)});
  }
  Json answer = Json::parse(*line, nullptr, /*allow_exceptions=*/false);
  if (!answer.is_object() || !answer.contains("ok")) fail("the answer is not one of this protocol");
  if (answer["ok"] != true) fail(answer.value("error", "the request was refused"));
  return answer;
}

void ControlClient::fail(const std::string& why) const {
  throw Unreachable(fmt::format("{}: {}", path_, why));
}

}  // namespace TrelCtl
