#include "runtime/Directories.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "runtime/Status.h"
#include "runtime/Text.h"

namespace Runtime {
namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

// Empty when it is not set.
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  std::string path = value == nullptr ? "" : value;
  if (!path.empty() && path.front() != '/') {
    throw std::invalid_argument(
        fmt::format("found ${} set to {}, expected an absolute path", name, inQuotes(path)));
  }
  return path;
}

// Of several directories, which systemd separates by colons, the first is the daemon's.
std::string systemdDirectory(const char* name) {
  std::string all = environment(name);
  std::string first = all.substr(0, all.find(':'));
  while (first.ends_with('/')) first.pop_back();
  return first;
}

}  // namespace

std::string stateDirectory(const std::string& program) {
  if (std::string systemd = systemdDirectory("STATE_DIRECTORY"); !systemd.empty()) return systemd;
  if (geteuid() == 0) return "/var/lib/" + program;
  if (std::string state = environment("XDG_STATE_HOME"); !state.empty()) return state + "/" + program;
  if (std::string home = environment("HOME"); !home.empty()) return home + "/.local/state/" + program;
  throw std::invalid_argument(
      "found no state directory, expected $STATE_DIRECTORY, $XDG_STATE_HOME or $HOME");
}

std::string runtimeDirectory(const std::string& program) {
  if (std::string systemd = systemdDirectory("RUNTIME_DIRECTORY"); !systemd.empty()) return systemd;
  if (geteuid() == 0) return "/run/" + program;
  if (std::string session = environment("XDG_RUNTIME_DIR"); !session.empty()) return session;
  throw std::invalid_argument("found no runtime directory, expected $RUNTIME_DIRECTORY or $XDG_RUNTIME_DIR");
}

std::string wrongWithDirectory(const std::string& path, bool mayBeShared) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return textOf(systemError(errno));
  if (S_ISLNK(found.st_mode)) return "found a symbolic link, expected a directory";
  if (!S_ISDIR(found.st_mode)) return "found a file, expected a directory";
  if (found.st_uid != geteuid() && found.st_uid != 0) {
    return fmt::format("found a directory of the user {}, expected one of the user {} or of root",
                       found.st_uid, geteuid());
  }
  bool shared = mayBeShared && (found.st_mode & S_ISVTX) != 0;
  if ((found.st_mode & kWritableByOthers) != 0 && !shared) {
    return fmt::format("found mode {:04o}, expected a directory that no other user may write into",
                       found.st_mode & 07777u);
  }
  return "";
}

std::string makeDirectory(const std::string& path, mode_t mode) {
  struct stat found {};
  if (lstat(path.c_str(), &found) == 0) return "";
  // The umask may have taken rights away.
  bool made = mkdir(path.c_str(), mode) == 0 && chmod(path.c_str(), mode) == 0;
  return made ? "" : textOf(systemError(errno));
}

std::string makeDirectories(const std::string& path, mode_t mode) {
  std::string parent = std::filesystem::path(path).parent_path();
  std::string problem = parent.empty() || parent == path ? "" : makeDirectories(parent, mode);
  return problem.empty() ? makeDirectory(path, mode) : problem;
}

LockFile::~LockFile() {
  if (fd_ >= 0) close(fd_);
}

std::string LockFile::take(const std::string& path) {
  fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (fd_ < 0) return fmt::format("{}: {}", path, textOf(systemError(errno)));
  if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return "";
  return errno == EWOULDBLOCK ? "another daemon uses it"
                              : fmt::format("{}: {}", path, textOf(systemError(errno)));
}

}  // namespace Runtime
