#include "EtcdSupport.h"

#include "etcd/EtcdSource.h"

namespace Host {
namespace {

namespace Etcd = Kelstore::Etcd;

Etcd::Access accessOf(const EtcdOptions& options) {
  return {options.caFile, options.certFile, options.keyFile, options.credentialsFile};
}

Etcd::Address addressOf(const std::string& name) { return Etcd::parseAddress(name.substr(kEtcd.size())); }

}  // namespace

void EtcdSupport::checkName(const std::string& name) const { addressOf(name); }

void EtcdSupport::checkFiles(const EtcdOptions& options) const { Etcd::checkAccess(accessOf(options)); }

std::unique_ptr<Kelstore::Source> EtcdSupport::make(const std::string& name, const EtcdOptions& options,
                                                    Kelstore::Store& store, Kelstore::Io& io,
                                                    const Zavro::Clock& clock) const {
  Etcd::FollowSettings settings{addressOf(name), accessOf(options), options.holdSeconds,
                                options.clearAfterHold, options.auditSeconds};
  return std::make_unique<Etcd::EtcdSource>(name, settings, store, io, clock);
}

}  // namespace Host
