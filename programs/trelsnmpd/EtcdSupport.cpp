#include "programs/trelsnmpd/EtcdSupport.h"

#include <stdexcept>

#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/EtcdSource.h"
#include "runtime/Status.h"

namespace Trelsnmpd {
namespace {

namespace Etcd = Kelstore::Etcd;

void check(const absl::Status& status) {
  if (!status.ok()) throw std::invalid_argument(Runtime::textOf(status));
}

}  // namespace

void EtcdSupport::checkName(const std::string& name) const { check(Etcd::parseStore(name).status()); }

void EtcdSupport::checkFiles(const EtcdOptions& options) const { check(Etcd::checkAccess(options.access)); }

std::unique_ptr<Kelstore::Source> EtcdSupport::make(const std::string& name, const EtcdOptions& options,
                                                    Kelstore::Store& store, Runtime::Io& io,
                                                    const Zavro::Clock& clock,
                                                    Runtime::Threads& threads) const {
  Etcd::FollowSettings settings{*Etcd::parseStore(name), options.access, options.holdSeconds,
                                options.clearAfterHold, options.auditSeconds};
  return std::make_unique<Etcd::EtcdSource>(name, settings, store, io, clock, threads);
}

}  // namespace Trelsnmpd
