// hanging-mounts DIRECTORY... -- PROGRAM [ARGUMENT...]
//
// Runs the program where a file system is mounted at each directory that answers nothing, as a network file
// system does whose server is gone: in a mount namespace of its own, with FUSE file systems that nobody
// serves. Who is not root is root in a user namespace of his own. Exits with 77 and one line where the system
// allows none of this.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

constexpr int kNotAllowed = 77;

[[noreturn]] void notAllowed(const char* what) {
  std::fprintf(stderr, "hanging-mounts: %s: %s\n", what, std::strerror(errno));
  std::exit(kNotAllowed);
}

void enterNamespace() {
  uid_t user = geteuid();
  gid_t group = getegid();
  if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) notAllowed("unshare");
  if (user != 0) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) notAllowed("mount");
}

// The program inherits the file by which the file system would be served; nobody reads it.
void mountHanging(const char* directory) {
  int served = open("/dev/fuse", O_RDWR);
  if (served < 0) notAllowed("/dev/fuse");
  std::string options = "fd=" + std::to_string(served) + ",rootmode=40000,user_id=0,group_id=0";
  if (mount("hanging", directory, "fuse.hanging", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    notAllowed(directory);
  }
}

}  // namespace

int main(int argc, char** argv) {
  enterNamespace();
  int at = 1;
  for (; at < argc && std::strcmp(argv[at], "--") != 0; ++at) mountHanging(argv[at]);
  if (at + 1 >= argc) {
    std::fprintf(stderr, "hanging-mounts: expected DIRECTORY... -- PROGRAM [ARGUMENT...]\n");
    return 2;
  }
  execv(argv[at + 1], argv + at + 1);
  std::fprintf(stderr, "hanging-mounts: %s: %s\n", argv[at + 1], std::strerror(errno));
  return 127;
}
