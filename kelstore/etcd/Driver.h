// Everything that speaks to etcd is in a library of its own, libTrelEtcd.so, which brings gRPC and its
// threads. Programs load it when they need it, and use it through this interface.
#pragma once

#include <memory>
#include <string>

#include "kelstore/LayeredState.h"
#include "kelstore/Source.h"
#include "kelstore/etcd/Access.h"
#include "kelstore/etcd/Calls.h"
#include "kelstore/etcd/FollowSettings.h"
#include "platform/zavro/Clock.h"
#include "runtime/Io.h"
#include "runtime/Threads.h"

namespace Kelstore::Etcd {

class Driver {
 public:
  virtual ~Driver() = default;
  // A source with this name in status and log. Layers, io, clock and threads outlive it; the clock is read on
  // two threads.
  virtual std::unique_ptr<Source> source(const std::string& name, const FollowSettings& settings,
                                         LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock,
                                         Runtime::Threads& threads) const = 0;
  // Calls to these servers, which connect with the first call.
  virtual std::unique_ptr<Calls> calls(const Address& address, const Access& access) const = 0;
};

// The library's one symbol, kDriverEntry. Program and library must have the same version.
struct DriverEntry {
  const char* version;
  const Driver* driver;
};
inline constexpr const char* kDriverLibrary = "libTrelEtcd.so";
inline constexpr const char* kDriverEntry = "trelEtcdDriver";

// Loads the library from where the program's own libraries are, if it is not loaded yet; it stays loaded.
// Throws std::runtime_error, one line that says what to do, if it cannot be used.
const Driver& driver(const char* library = kDriverLibrary);

}  // namespace Kelstore::Etcd
