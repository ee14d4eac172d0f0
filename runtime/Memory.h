// How much memory there is.
#pragma once

#include <cstddef>

namespace Runtime {

// What is to be left for everybody else by those who need much at once.
inline constexpr size_t kSpareBytes = 32 << 20;

// Whether so many bytes, and kSpareBytes, could be allocated now, where the process's address space or the
// system's commitments are limited.
bool hasMemoryFor(size_t bytes);
// The same, of what is needed next; throws std::bad_alloc where it could not, so that it is this one who
// finds no memory, and not somebody who has no way to do without it.
void needMemoryFor(size_t bytes);

}  // namespace Runtime
