#include "bench/fullsize/Board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace FullSize {

uint64_t nowNs() {
  return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                               std::chrono::nanoseconds(1));
}

std::shared_ptr<Board> mapBoard(const std::string& file, bool create) {
  int fd = open(file.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
  if (fd < 0 || (create && ftruncate(fd, sizeof(Board)) != 0)) throw std::runtime_error("no file " + file);
  void* mapped = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped == MAP_FAILED) throw std::runtime_error("no memory for " + file);
  return {static_cast<Board*>(mapped), [](Board* board) { munmap(board, sizeof(Board)); }};
}

}  // namespace FullSize
