// An etcd server that carries out deletions, and whose connections break off before it can say so.
#pragma once

#include <fmt/format.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "kelstore/etcd/rpc.grpc.pb.h"
#include "tests/support/Relay.h"

namespace Kelstore::Etcd {

class BrokenOff final : private etcdserverpb::KV::Service {
 public:
  // It does what it does at the server at this endpoint.
  explicit BrokenOff(const std::string& server)
      : kv_(etcdserverpb::KV::NewStub(grpc::CreateChannel(server, grpc::InsecureChannelCredentials()))) {
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(this);
    server_ = builder.BuildAndStart();
    if (!server_ || port == 0) throw std::runtime_error("no port for a server");
    relay_.emplace(static_cast<uint16_t>(port));
  }
  ~BrokenOff() override {
    server_->Shutdown(std::chrono::system_clock::now());
    server_->Wait();
  }
  std::string endpoint() const { return relay_->endpoint(); }

 private:
  grpc::Status DeleteRange(grpc::ServerContext* /*client*/, const etcdserverpb::DeleteRangeRequest* request,
                           etcdserverpb::DeleteRangeResponse* response) override {
    grpc::ClientContext context;
    grpc::Status status = kv_->DeleteRange(&context, *request, response);
    relay_->cut();
    return status;
  }

  std::unique_ptr<etcdserverpb::KV::Stub> kv_;
  std::unique_ptr<grpc::Server> server_;
  std::optional<Support::Relay> relay_;
};

}  // namespace Kelstore::Etcd
