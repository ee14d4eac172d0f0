// What speaks to etcd, for programs that do so only when they are asked to: a library of its own,
// libTrelEtcd.so, which brings gRPC and its threads.
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
  // A source that is called `name`. All references outlive it, but for the settings; the clock is read on two
  // threads.
  virtual std::unique_ptr<Source> source(const std::string& name, const FollowSettings& settings,
                                         LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock,
                                         Runtime::Threads& threads) const = 0;
  // Calls to these servers. Connects with the first one.
  virtual std::unique_ptr<Calls> calls(const Address& address, const Access& access) const = 0;
};

// The library's one symbol, kDriverEntry. It is asked for its version before anything else: programs and
// library have to be of the same.
struct DriverEntry {
  const char* version;
  const Driver* driver;
};
inline constexpr const char* kDriverLibrary = "libTrelEtcd.so";
inline constexpr const char* kDriverEntry = "trelEtcdDriver";

// Loads the library, from where the program's own libraries are, unless it is loaded already; it stays until
// the process ends. Throws std::runtime_error, with one line that says what to do, when it cannot be used.
const Driver& driver(const char* library = kDriverLibrary);

}  // namespace Kelstore::Etcd
