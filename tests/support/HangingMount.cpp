#include "tests/support/HangingMount.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/support/TempDir.h"

namespace Support {

std::string enterOwnMounts() {
  auto why = [](const char* what) { return std::string(what) + ": " + std::strerror(errno); };
  if (unshare(CLONE_NEWNS) != 0) return why("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return why("mount");
  TempDir tried;
  try {
    HangingMount mount(tried.path());
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

// What it is asked is never read.
HangingMount::HangingMount(std::string directory)
    : directory_(std::move(directory)), served_(open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
  std::string options = "fd=" + std::to_string(served_) + ",rootmode=40000,user_id=0,group_id=0";
  if (served_ >= 0 &&
      mount("hanging", directory_.c_str(), "fuse.sshfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0) {
    return;
  }
  int error = errno;
  if (served_ >= 0) close(served_);
  throw std::runtime_error(directory_ + ": " + std::strerror(error));
}

HangingMount::~HangingMount() {
  close(served_);
  umount2(directory_.c_str(), MNT_DETACH);
}

}  // namespace Support
