#include "kelstore/etcd/Driver.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>

#include "kelstore/Limits.h"
#include "runtime/Version.h"

namespace Kelstore::Etcd {
namespace {

// Looks beside this program's libTrelKelstore.so first: the loader alone would not, if a sanitizer is part of
// the program. Never closed, since gRPC's threads run in the library.
void* load(const char* library) {
  Dl_info beside{};
  if (dladdr(reinterpret_cast<const void*>(&allLimits), &beside) != 0) {
    std::filesystem::path path = std::filesystem::path(beside.dli_fname).replace_filename(library);
    if (void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); handle != nullptr) return handle;
  }
  return dlopen(library, RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

const Driver& driver(const char* library) {
  void* handle = load(library);
  if (handle == nullptr) {
    throw std::runtime_error(
        fmt::format("etcd takes a library that cannot be loaded: {}; install it beside libTrelKelstore.so, "
                    "or build it with "
                    "-DTREL_ETCD=ON",
                    dlerror()));
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
