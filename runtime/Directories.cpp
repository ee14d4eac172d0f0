#include "runtime/Directories.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>
#include <stdexcept>

#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"

namespace Runtime {
namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

// Empty when it is not set. Throws std::invalid_argument unless it is an absolute path.
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  std::string path = value == nullptr ? "" : value;
  if (!path.empty() && path.front() != '/') {
    throw std::invalid_argument(
        fmt::format("found ${} set to {}, expected an absolute path", name, inQuotes(path)));
  }
  return path;
}

// systemd may set several, separated by colons. The first is the daemon's.
std::string systemdDirectory(const char* name) {
  std::string all = environment(name);
  std::string first = all.substr(0, all.find(':'));
  while (first.ends_with('/')) first.pop_back();
  return first;
}

struct stat aboutOf(const Descriptor& opened) {
  struct stat about {};
  fstat(opened.get(), &about);
  return about;
}

bool isOurs(const struct stat& about) { return about.st_uid == geteuid() || about.st_uid == 0; }
bool isClosed(const struct stat& about) { return (about.st_mode & kWritableByOthers) == 0; }

std::deque<std::string> namesIn(std::string_view path) {
  std::deque<std::string> names;
  while (!path.empty()) {
    size_t end = std::min(path.find('/'), path.size());
    if (end > 0) names.emplace_back(path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return names;
}

// Walks down a path, one openat() for each name, so that nobody can exchange a directory that was checked.
class Way final {
 public:
  Way(const std::string& path, const DirectoryTerms& terms) : terms_(terms) { leadsTo(path); }

  // Returns what is wrong; empty at the end of the path.
  std::string go() {
    std::string problem;
    while (problem.empty() && here_.opened() && !names_.empty()) problem = step();
    if (problem.empty() && !here_.opened()) problem = textOf(systemError(errno));
    return problem;
  }
  struct stat end() const {
    return aboutOf(here_);
  }

 private:
  static constexpr int kMaxLinks = 40;
  static constexpr int kLookedAt = O_PATH | O_NOFOLLOW | O_CLOEXEC;

  void leadsTo(const std::string& path) {
    std::deque<std::string> names = namesIn(path);
    names_.insert(names_.begin(), names.begin(), names.end());
    if (path.starts_with('/')) {
      here_ = Descriptor(open("/", kLookedAt));
    } else if (!here_.opened()) {
      here_ = Descriptor(open(".", kLookedAt));
    }
  }

  std::string step() {
    std::string name = names_.front();
    names_.pop_front();
    Descriptor next(openat(here_.get(), name.c_str(), kLookedAt));
    if (!next.opened() && errno == ENOENT && (terms_.withParents || names_.empty())) next = made(name);
    if (!next.opened()) return textOf(systemError(errno));
    mode_t mode = aboutOf(next).st_mode;
    if (S_ISLNK(mode)) return follow(name, next);
    if (!S_ISDIR(mode)) return "found a file, expected a directory";
    here_ = std::move(next);
    return "";
  }

  Descriptor made(const std::string& name) const {
    Umask none(0);
    bool made = mkdirat(here_.get(), name.c_str(), terms_.mode) == 0 || errno == EEXIST;
    return Descriptor(made ? openat(here_.get(), name.c_str(), kLookedAt) : -1);
  }

  std::string follow(const std::string& name, const Descriptor& link) {
    struct stat holder = aboutOf(here_);
    if (!isOurs(holder) || !isClosed(holder)) {
      return fmt::format("found a symbolic link {} that another user may have made, expected a directory",
                         inQuotes(name));
    }
    if (++links_ > kMaxLinks) return textOf(systemError(ELOOP));
    std::string target(PATH_MAX, '\0');
    ssize_t size = readlinkat(link.get(), "", target.data(), target.size());
    if (size < 0) return textOf(systemError(errno));
    target.resize(static_cast<size_t>(size));
    leadsTo(target);
    return "";
  }

  const DirectoryTerms terms_;
  Descriptor here_;
  std::deque<std::string> names_;
  int links_ = 0;
};

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

std::string claimDirectory(const std::string& path, const DirectoryTerms& terms) {
  Way way(path, terms);
  if (std::string problem = way.go(); !problem.empty()) return problem;
  struct stat found = way.end();
  if (!isOurs(found)) {
    return fmt::format("found a directory of the user {}, expected one of the user {} or of root",
                       found.st_uid, geteuid());
  }
  bool shared = terms.mayBeShared && (found.st_mode & S_ISVTX) != 0;
  if (!isClosed(found) && !shared) {
    return fmt::format("found mode {:04o}, expected a directory that no other user may write into",
                       found.st_mode & 07777u);
  }
  return "";
}

Umask::Umask(mode_t mask) : before_(umask(mask)) {}
Umask::~Umask() { umask(before_); }

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
