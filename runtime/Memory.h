// Whether memory can be had, before much is allocated at once.
#pragma once

#include <cstddef>

namespace Runtime {

// What a large allocation must leave for the rest of the process.
inline constexpr size_t kSpareBytes = 32 << 20;

// Whether so many bytes and kSpareBytes could be mapped now. Finds limits of the process's address space and
// of the system's commitments, not the out-of-memory killer's.
bool hasMemoryFor(size_t bytes);
// Throws std::bad_alloc otherwise: here, where the caller can give up, and not later in code that cannot.
void needMemoryFor(size_t bytes);
// Gives memory that the process has freed back to the system, as the allocator keeps most of it. Takes
// milliseconds for a large heap, so not on the event loop.
void returnFreedMemory();

}  // namespace Runtime
