#include "kelstore/etcd/Driver.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <stdexcept>

#include "runtime/Version.h"

namespace Kelstore::Etcd {

const Driver& driver(const char* library) {
  // Never closed: gRPC's threads run in it.
  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    throw std::runtime_error(fmt::format(
        "etcd takes a library that cannot be loaded: {}; install it beside libTrelKelstore.so", dlerror()));
  }
  const auto* entry = static_cast<const DriverEntry*>(dlsym(handle, kDriverEntry));
  if (entry == nullptr) {
    throw std::runtime_error(
        fmt::format("{}: found no {}, expected it in a library for etcd", library, kDriverEntry));
  }
  if (entry->version != std::string_view(Runtime::kVersion)) {
    throw std::runtime_error(fmt::format("{}: found version {}, expected {}; install the one of this version",
                                         library, entry->version, Runtime::kVersion));
  }
  return *entry->driver;
}

}  // namespace Kelstore::Etcd
