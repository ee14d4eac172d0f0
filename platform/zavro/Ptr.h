// Counted pointers. A shared object is immutable, or belongs to the event loop's thread.
#pragma once

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstdint>
#include <utility>

namespace Zavro {

template <class T>
using Ptr = boost::intrusive_ptr<T>;

// Whether other threads may use counted objects; reference counts are atomic only then. Set it before the
// first such thread starts. Default: false.
bool threadsActive();
void threadsActiveIs(bool active);

// Base of all counted objects. The count starts at 0, and is 1 when makePtr() returns; the last reference
// destroys the object.
class Counted {
 public:
  Counted() = default;
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  uint32_t useCount() const { return count_.load(std::memory_order_relaxed); }

 protected:
  virtual ~Counted();

 private:
  friend void intrusive_ptr_add_ref(const Counted* object);
  friend void intrusive_ptr_release(const Counted* object);
  mutable std::atomic<uint32_t> count_{0};
};

void intrusive_ptr_add_ref(const Counted* object);
void intrusive_ptr_release(const Counted* object);

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Zavro
