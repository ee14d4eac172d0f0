// The source `etcd:`, as far as a host knows of it. It brings gRPC and its threads, which have no place in
// every process that a host is part of: a program that has the source passes it on (EtcdSupport.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kelstore/Source.h"
#include "kelstore/Store.h"
#include "kelstore/etcd/Access.h"
#include "runtime/Io.h"
#include "runtime/Threads.h"

namespace Trelsnmpd {

struct EtcdOptions {
  Kelstore::Etcd::Access access;
  uint32_t holdSeconds = 300;
  bool clearAfterHold = false;
  uint32_t auditSeconds = 60;
};

class EtcdSources {
 public:
  virtual ~EtcdSources() = default;
  // Throws std::invalid_argument, with what was found and expected, unless the name is one that make() takes.
  virtual void checkName(const std::string& name) const = 0;
  // The same for the files.
  virtual void checkFiles(const EtcdOptions& options) const = 0;
  // Requires: both have been checked. Store, io, clock and threads outlive the source.
  virtual std::unique_ptr<Kelstore::Source> make(const std::string& name, const EtcdOptions& options,
                                                 Kelstore::Store& store, Runtime::Io& io,
                                                 const Zavro::Clock& clock,
                                                 Runtime::Threads& threads) const = 0;
};

}  // namespace Trelsnmpd
