#include "platform/zavro/Ptr.h"

namespace Zavro {
namespace {

std::atomic<bool> threaded{false};

}  // namespace

bool threadsActive() { return threaded.load(std::memory_order_relaxed); }
void threadsActiveIs(bool active) { threaded.store(active, std::memory_order_relaxed); }

Counted::~Counted() = default;

void intrusive_ptr_add_ref(const Counted* object) {
  if (threadsActive()) {
    object->count_.fetch_add(1, std::memory_order_relaxed);
  } else {
    object->count_.store(object->useCount() + 1, std::memory_order_relaxed);
  }
}

void intrusive_ptr_release(const Counted* object) {
  uint32_t left = 0;
  if (threadsActive()) {
    left = object->count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    left = object->useCount() - 1;
    object->count_.store(left, std::memory_order_relaxed);
  }
  if (left == 0) delete object;
}

}  // namespace Zavro
