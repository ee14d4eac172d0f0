// A program's own directories, and a lock that keeps a second process of the program out of them. A directory
// that another user owns or may write into is refused, as he could put files of his own there.
#pragma once

#include <sys/types.h>

#include <string>

namespace Runtime {

// Where a program keeps what must survive a restart: $STATE_DIRECTORY (set by systemd), else
// /var/lib/PROGRAM for root and $XDG_STATE_HOME/PROGRAM or ~/.local/state/PROGRAM for others. It may not
// exist yet. Throws std::invalid_argument, with what to do, when the environment names none or a relative
// path.
std::string stateDirectory(const std::string& program);

// Where a program has its sockets: $RUNTIME_DIRECTORY (set by systemd), else /run/PROGRAM for root and
// $XDG_RUNTIME_DIR for others. Otherwise like stateDirectory().
std::string runtimeDirectory(const std::string& program);

struct DirectoryTerms {
  mode_t mode;               // of directories that are made, whatever the umask
  bool withParents = false;  // make missing parents, too
  bool mayBeShared = false;  // others may write into it when it has the sticky bit
};

// Makes the directory unless the path exists. Returns what is wrong with it; empty when it is a directory of
// this user or root into which no other user may write. Follows a symbolic link only where no other user can
// have put it. Requires: no other thread makes files meanwhile, as this changes the umask.
std::string claimDirectory(const std::string& path, const DirectoryTerms& terms);

// Sets the process's umask as long as this lives.
class Umask final {
 public:
  explicit Umask(mode_t mask);
  ~Umask();
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  const mode_t before_;
};

// A lock that the system releases when the process ends, however it ends. The file is never removed:
// otherwise one process could hold the lock of the removed file and another that of a new one.
class LockFile final {
 public:
  LockFile() = default;
  ~LockFile();
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  // Makes the file unless it exists, and takes the lock without waiting. Returns the reason when it cannot,
  // else empty. To be called once.
  std::string take(const std::string& path);

 private:
  int fd_ = -1;
};

}  // namespace Runtime
