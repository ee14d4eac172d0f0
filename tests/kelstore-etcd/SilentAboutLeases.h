// An etcd server that has 100 keys, each with a lease, says nothing when it is asked for a lease, and cancels
// watches as compacted when a test says so.
#pragma once

#include <absl/synchronization/mutex.h>
#include <fmt/format.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "kelstore/etcd/rpc.grpc.pb.h"

namespace Kelstore::Etcd {

class SilentAboutLeases final : private etcdserverpb::KV::Service,
                                private etcdserverpb::Watch::Service,
                                private etcdserverpb::Lease::Service {
 public:
  SilentAboutLeases() {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    builder.RegisterService(static_cast<etcdserverpb::KV::Service*>(this));
    builder.RegisterService(static_cast<etcdserverpb::Watch::Service*>(this));
    builder.RegisterService(static_cast<etcdserverpb::Lease::Service*>(this));
    server_ = builder.BuildAndStart();
    if (!server_ || port_ == 0) throw std::runtime_error("no port for a server");
  }
  ~SilentAboutLeases() override {
    {
      absl::MutexLock lock(&mutex_);
      ends_ = true;
    }
    server_->Shutdown(std::chrono::system_clock::now());
    server_->Wait();
  }
  std::string endpoint() const { return fmt::format("127.0.0.1:{}", port_); }

  // How often it was asked for a lease.
  int asked() {
    absl::MutexLock lock(&mutex_);
    return asked_;
  }
  // Ends the watches that there are.
  void cancelWatches() {
    absl::MutexLock lock(&mutex_);
    ++cancels_;
  }

 private:
  static void head(etcdserverpb::ResponseHeader* header) {
    header->set_cluster_id(1);
    header->set_revision(100);
    header->set_raft_term(1);
  }
  grpc::Status Range(grpc::ServerContext* /*client*/, const etcdserverpb::RangeRequest* /*request*/,
                     etcdserverpb::RangeResponse* response) override {
    head(response->mutable_header());
    for (int member = 100; member < 200; ++member) {
      auto* one = response->add_kvs();
      one->set_key(fmt::format("p/members/{}/processors/1", member));
      one->set_value(R"({"load": 5})");
      one->set_mod_revision(member - 99);
      one->set_lease(member);
    }
    return grpc::Status::OK;
  }
  grpc::Status Watch(
      grpc::ServerContext* /*client*/,
      grpc::ServerReaderWriter<etcdserverpb::WatchResponse, etcdserverpb::WatchRequest>* stream) override {
    etcdserverpb::WatchRequest request;
    stream->Read(&request);
    absl::MutexLock lock(&mutex_);
    etcdserverpb::WatchResponse response;
    head(response.mutable_header());
    response.set_created(true);
    stream->Write(response);
    auto cancelled = [this, before = cancels_] { return ends_ || cancels_ != before; };
    mutex_.Await(absl::Condition(&cancelled));
    response.set_created(false);
    response.set_canceled(true);
    response.set_compact_revision(5);
    stream->Write(response);
    mutex_.Await(absl::Condition(&ends_));
    return grpc::Status::OK;
  }
  grpc::Status LeaseTimeToLive(grpc::ServerContext* /*client*/,
                               const etcdserverpb::LeaseTimeToLiveRequest* /*request*/,
                               etcdserverpb::LeaseTimeToLiveResponse* /*response*/) override {
    absl::MutexLock lock(&mutex_);
    ++asked_;
    mutex_.Await(absl::Condition(&ends_));
    return grpc::Status::OK;
  }

  int port_ = 0;
  absl::Mutex mutex_;
  bool ends_ = false;
  int cancels_ = 0;
  int asked_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

}  // namespace Kelstore::Etcd
