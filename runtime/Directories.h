// The directories that a program calls its own, and a lock by which it is the only one that does. No file of
// another user stands for one of its own: a directory that others may prepare, as in /tmp, is never taken
// unless somebody names it, and not then if another user owns it or may write into it.
#pragma once

#include <sys/types.h>

#include <string>

namespace Runtime {

// Where a program keeps what must survive a restart: $STATE_DIRECTORY (set by systemd), else
// /var/lib/PROGRAM for root and $XDG_STATE_HOME/PROGRAM or ~/.local/state/PROGRAM for others. It may have yet
// to be made. Throws std::invalid_argument, with what to do, when the environment names none.
std::string stateDirectory(const std::string& program);

// Where a program has its sockets: $RUNTIME_DIRECTORY (set by systemd), else /run/PROGRAM for root and
// $XDG_RUNTIME_DIR for others. The same otherwise.
std::string runtimeDirectory(const std::string& program);

struct DirectoryTerms {
  mode_t mode;               // of those that are made, whatever the umask is
  bool withParents = false;  // those above it are made as well
  bool mayBeShared = false;  // with the sticky bit, others may write: they cannot touch what is not theirs
};

// Makes the directory unless something stands there. Returns what is wrong, or empty when it is a directory
// that belongs to this user or root, and no other may write into it. A symbolic link on the way is followed
// when only this user and root can have put it there. Requires: no other thread makes files meanwhile.
std::string claimDirectory(const std::string& path, const DirectoryTerms& terms);

// The process's umask while this lives.
class Umask final {
 public:
  explicit Umask(mode_t mask);
  ~Umask();
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  const mode_t before_;
};

// A lock that the system gives back when the process ends, however it ends. The file stays, so that nobody
// locks one that is not the next one's.
class LockFile final {
 public:
  LockFile() = default;
  ~LockFile();
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  // Makes the file unless it is there, and takes the lock, without waiting. Returns why it cannot, empty when
  // it is taken; once.
  std::string take(const std::string& path);

 private:
  int fd_ = -1;
};

}  // namespace Runtime
