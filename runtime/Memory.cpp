#include "runtime/Memory.h"

#include <malloc.h>
#include <sys/mman.h>

#include <new>

namespace Runtime {

bool hasMemoryFor(size_t bytes) {
  size_t all = bytes + kSpareBytes;
  void* reserved = mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (reserved == MAP_FAILED) return false;
  munmap(reserved, all);
  return true;
}

void needMemoryFor(size_t bytes) {
  if (!hasMemoryFor(bytes)) throw std::bad_alloc();
}

void returnFreedMemory() { malloc_trim(0); }

}  // namespace Runtime
