// libTrelEtcd.so.
#include "kelstore/etcd/Client.h"
#include "kelstore/etcd/Driver.h"
#include "kelstore/etcd/EtcdSource.h"
#include "runtime/Version.h"

namespace Kelstore::Etcd {
namespace {

class GrpcDriver final : public Driver {
 public:
  std::unique_ptr<Source> source(const std::string& name, const FollowSettings& settings,
                                 LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock,
                                 Runtime::Threads& threads) const override {
    return std::make_unique<EtcdSource>(name, settings, layers, io, clock, threads);
  }
  std::unique_ptr<Calls> calls(const Address& address, const Access& access) const override {
    return std::make_unique<Client>(address.endpoints, access);
  }
};

const GrpcDriver theDriver;

}  // namespace
}  // namespace Kelstore::Etcd

extern "C" __attribute__((visibility("default"))) const Kelstore::Etcd::DriverEntry trelEtcdDriver;
const Kelstore::Etcd::DriverEntry trelEtcdDriver = {Runtime::kVersion, &Kelstore::Etcd::theDriver};
