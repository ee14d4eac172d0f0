// An etcd server that knows its tokens until it forgets them, and notes how long each login would have
// waited.
#pragma once

#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelstore/etcd/rpc.grpc.pb.h"

namespace Kelstore::Etcd {

class AsksWhoItIs final : private etcdserverpb::KV::Service, private etcdserverpb::Auth::Service {
 public:
  AsksWhoItIs() {
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(static_cast<etcdserverpb::KV::Service*>(this));
    builder.RegisterService(static_cast<etcdserverpb::Auth::Service*>(this));
    server_ = builder.BuildAndStart();
    if (!server_ || port == 0) throw std::runtime_error("no port for a server");
    endpoint_ = "127.0.0.1:" + std::to_string(port);
  }
  ~AsksWhoItIs() override {
    server_->Shutdown(std::chrono::system_clock::now());
    server_->Wait();
  }
  const std::string& endpoint() const { return endpoint_; }

  // As after a start.
  void forgetTokens() {
    std::lock_guard lock(mutex_);
    token_.clear();
  }
  // For each login, the time that its deadline left.
  std::vector<std::chrono::milliseconds> logins() const {
    std::lock_guard lock(mutex_);
    return logins_;
  }

 private:
  grpc::Status Authenticate(grpc::ServerContext* client, const etcdserverpb::AuthenticateRequest* /*request*/,
                            etcdserverpb::AuthenticateResponse* response) override {
    std::lock_guard lock(mutex_);
    auto left = client->deadline() - std::chrono::system_clock::now();
    logins_.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(left));
    token_ = "token." + std::to_string(logins_.size());
    response->set_token(token_);
    return grpc::Status::OK;
  }
  grpc::Status Range(grpc::ServerContext* client, const etcdserverpb::RangeRequest* /*request*/,
                     etcdserverpb::RangeResponse* response) override {
    std::lock_guard lock(mutex_);
    auto token = client->client_metadata().find("token");
    if (token == client->client_metadata().end() || token_.empty() || token->second != token_) {
      return {grpc::StatusCode::UNAUTHENTICATED, "etcdserver: invalid auth token"};
    }
    response->mutable_header()->set_cluster_id(1);
    response->mutable_header()->set_revision(1);
    return grpc::Status::OK;
  }

  std::unique_ptr<grpc::Server> server_;
  std::string endpoint_;
  mutable std::mutex mutex_;  // guards what follows
  std::string token_;
  std::vector<std::chrono::milliseconds> logins_;
};

}  // namespace Kelstore::Etcd
