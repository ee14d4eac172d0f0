// Stands in front of an etcd server, speaks its interface, and keeps back events when it is told to.
#pragma once

#include <grpcpp/server.h>

#include <memory>
#include <string>

namespace Faults {

class LossyProxy {
 public:
  // For the server at this endpoint; throws when it cannot listen.
  explicit LossyProxy(const std::string& endpoint);
  ~LossyProxy();

  std::string endpoint() const;
  // The next deletion that a watch tells of is kept back. Everything else goes through.
  void loseNextDeletion();
  // The watches that are open tell of no event any more, but answer requests for progress.
  void killWatches();
  // The key whose deletion was kept back; empty until then.
  std::string lost() const;

 private:
  class Services;
  std::unique_ptr<Services> services_;
  std::unique_ptr<grpc::Server> server_;
  int port_ = 0;
};

}  // namespace Faults
