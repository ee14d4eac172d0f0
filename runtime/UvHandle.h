// Owns a libuv handle, and closes it when destroyed: its callbacks do not come any more. libuv finishes
// closing in a later turn of the loop, so the handle's memory is freed only then.
#pragma once

#include <uv.h>

#include <stdexcept>
#include <string>

namespace Runtime {

template <class Handle>
class UvHandle {
 public:
  // init(Handle*) initialises the handle and returns libuv's result. Throws std::runtime_error when that is
  // an error.
  template <class Init>
  explicit UvHandle(Init init) : handle_(new Handle) {
    int result = init(handle_);
    if (result == 0) return;
    delete handle_;
    throw std::runtime_error(std::string("no event loop: ") + uv_strerror(result));
  }
  UvHandle(const UvHandle&) = delete;
  UvHandle& operator=(const UvHandle&) = delete;
  ~UvHandle() {
    uv_close(reinterpret_cast<uv_handle_t*>(handle_),
             [](uv_handle_t* closed) { delete reinterpret_cast<Handle*>(closed); });
  }

  Handle* get() const { return handle_; }
  Handle* operator->() const { return handle_; }

 private:
  Handle* handle_;
};

}  // namespace Runtime
