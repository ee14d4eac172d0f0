// In a coverage build, processes that end otherwise than by returning from main() leave their counts, too:
// the simulation's seeds end with _exit(), and tests expect of processes of their own that an assertion
// aborts them.
#include <csignal>

extern "C" {

void __gcov_dump(void);                      // NOLINT: the compiler's name
[[noreturn]] void __real__exit(int status);  // NOLINT: the linker's
[[noreturn]] void __wrap__exit(int status);  // NOLINT

void __wrap__exit(int status) {  // NOLINT
  __gcov_dump();
  __real__exit(status);
}
}

namespace {

[[maybe_unused]] const auto before = std::signal(SIGABRT, [](int signal) {
  __gcov_dump();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
});

}  // namespace
