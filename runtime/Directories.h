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

// What is wrong with the directory, or empty when it is one, no link to one, belongs to this user or root,
// and no other may write into it. With the sticky bit, `mayBeShared` lets others write: they cannot touch
// what is not theirs.
std::string wrongWithDirectory(const std::string& path, bool mayBeShared = false);

// Makes the directory unless something stands there, with this mode whatever the umask is. Returns what is
// wrong, or empty.
std::string makeDirectory(const std::string& path, mode_t mode);
// The same with those above it that are missing.
std::string makeDirectories(const std::string& path, mode_t mode);

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
