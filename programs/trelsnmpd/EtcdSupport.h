// The source `etcd:` for programs that have it.
#pragma once

#include "programs/trelsnmpd/Etcd.h"

namespace Trelsnmpd {

class EtcdSupport final : public EtcdSources {
 public:
  void checkName(const std::string& name) const override;
  void checkFiles(const EtcdOptions& options) const override;
  std::unique_ptr<Kelstore::Source> make(const std::string& name, const EtcdOptions& options,
                                         Kelstore::Store& store, Runtime::Io& io, const Zavro::Clock& clock,
                                         Runtime::Threads& threads) const override;
};

}  // namespace Trelsnmpd
