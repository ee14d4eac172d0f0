// hanging-mounts [--after-one] DIRECTORY... -- PROGRAM [ARGUMENT...]
//
// Runs the program where a file system is mounted at each directory that answers nothing, as a network file
// system does whose server is gone: in a mount namespace of its own, with FUSE file systems that nobody
// serves. With --after-one, each says once how much room it has, 1000 blocks of 4096 bytes of which 400 are
// free, and hangs from then on. Who is not root is root in a user namespace of his own. Exits with 77 and one
// line where the system allows none of this.
#include <fcntl.h>
#include <linux/fuse.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
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

template <class Body>
void reply(int served, uint64_t request, Body body) {
  fuse_out_header header{sizeof header + sizeof body, 0, request};
  std::array<iovec, 2> parts{{{&header, sizeof header}, {&body, sizeof body}}};
  if (writev(served, parts.data(), parts.size()) < 0) notAllowed("reply");
}

// Until the room was asked for once.
void serve(int served) {
  alignas(fuse_in_header) std::array<char, 1 << 16> request{};
  while (read(served, request.data(), request.size()) > 0) {
    const auto& header = *reinterpret_cast<const fuse_in_header*>(request.data());
    if (header.opcode == FUSE_INIT) {
      fuse_init_out started{};
      started.major = FUSE_KERNEL_VERSION;
      started.minor = FUSE_KERNEL_MINOR_VERSION;
      started.max_write = 4096;
      reply(served, header.unique, started);
    } else if (header.opcode == FUSE_STATFS) {
      fuse_statfs_out room{};
      room.st.blocks = 1000;
      room.st.bfree = 400;
      room.st.bavail = 400;
      room.st.bsize = 4096;
      room.st.frsize = 4096;
      reply(served, header.unique, room);
      return;
    }
  }
}

// In a process of its own, which ends with the program.
void serveOnce(int served) {
  pid_t program = getpid();
  pid_t child = fork();
  if (child < 0) notAllowed("fork");
  if (child != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != program) _exit(0);  // it has ended already
  serve(served);
  while (true) pause();
}

// The program inherits the file by which the file system would be served, and does not read it.
void mountHanging(const char* directory, bool afterOne) {
  int served = open("/dev/fuse", O_RDWR);
  if (served < 0) notAllowed("/dev/fuse");
  std::string options = "fd=" + std::to_string(served) + ",rootmode=40000,user_id=0,group_id=0";
  // By its type one with a server, which counts wherever it is mounted.
  if (mount("hanging", directory, "fuse.sshfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    notAllowed(directory);
  }
  if (afterOne) serveOnce(served);
}

}  // namespace

int main(int argc, char** argv) {
  enterNamespace();
  bool afterOne = argc > 1 && std::strcmp(argv[1], "--after-one") == 0;
  int at = afterOne ? 2 : 1;
  for (; at < argc && std::strcmp(argv[at], "--") != 0; ++at) mountHanging(argv[at], afterOne);
  if (at + 1 >= argc) {
    std::fprintf(stderr, "hanging-mounts: expected [--after-one] DIRECTORY... -- PROGRAM [ARGUMENT...]\n");
    return 2;
  }
  execv(argv[at + 1], argv + at + 1);
  std::fprintf(stderr, "hanging-mounts: %s: %s\n", argv[at + 1], std::strerror(errno));
  return 127;
}
