#include "tests/etcd-faults/LossyProxy.h"

#include <fmt/format.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server_builder.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "kelstore/etcd/rpc.grpc.pb.h"

namespace Faults {

namespace Rpc = etcdserverpb;

class LossyProxy::Services final : public Rpc::KV::Service,
                                   public Rpc::Watch::Service,
                                   public Rpc::Lease::Service,
                                   public Rpc::Maintenance::Service {
 public:
  explicit Services(const std::string& endpoint)
      : channel_(grpc::CreateChannel(endpoint, grpc::InsecureChannelCredentials())),
        kv_(Rpc::KV::NewStub(channel_)),
        watch_(Rpc::Watch::NewStub(channel_)),
        lease_(Rpc::Lease::NewStub(channel_)),
        maintenance_(Rpc::Maintenance::NewStub(channel_)) {}

  void loseNextDeletion() {
    std::lock_guard lock(mutex_);
    loses_ = true;
    lost_.clear();
  }
  void killWatches() { liveFrom_ = watches_.load(); }
  std::string lost() const {
    std::lock_guard lock(mutex_);
    return lost_;
  }

 private:
  grpc::Status Range(grpc::ServerContext* client, const Rpc::RangeRequest* request,
                     Rpc::RangeResponse* response) override {
    grpc::ClientContext context;
    prepare(context, *client);
    return kv_->Range(&context, *request, response);
  }
  grpc::Status LeaseTimeToLive(grpc::ServerContext* client, const Rpc::LeaseTimeToLiveRequest* request,
                               Rpc::LeaseTimeToLiveResponse* response) override {
    grpc::ClientContext context;
    prepare(context, *client);
    return lease_->LeaseTimeToLive(&context, *request, response);
  }
  grpc::Status Status(grpc::ServerContext* client, const Rpc::StatusRequest* request,
                      Rpc::StatusResponse* response) override {
    grpc::ClientContext context;
    prepare(context, *client);
    return maintenance_->Status(&context, *request, response);
  }

  grpc::Status Watch(grpc::ServerContext* client,
                     grpc::ServerReaderWriter<Rpc::WatchResponse, Rpc::WatchRequest>* stream) override {
    grpc::ClientContext context;
    prepare(context, *client);
    auto server = watch_->Watch(&context);
    const int number = watches_++;
    std::thread requests([&] {
      Rpc::WatchRequest request;
      while (stream->Read(&request)) server->Write(request);
      context.TryCancel();
    });
    Rpc::WatchResponse response;
    while (server->Read(&response)) {
      bool silent = number < liveFrom_ && response.events_size() > 0;
      if (!silent && !isKeptBack(response) && !stream->Write(response)) break;
    }
    context.TryCancel();
    grpc::Status status = server->Finish();
    client->TryCancel();
    requests.join();
    return status;
  }

  static void prepare(grpc::ClientContext& context, const grpc::ServerContext& client) {
    context.set_deadline(client.deadline());
    for (const auto& [name, value] : client.client_metadata()) {
      if (name == "hasleader" || name == "token") {
        context.AddMetadata({name.begin(), name.end()}, {value.begin(), value.end()});
      }
    }
  }

  // Takes a deletion out of the answer when one is to be lost; whether nothing is left of it.
  bool isKeptBack(Rpc::WatchResponse& response) {
    std::lock_guard lock(mutex_);
    for (int i = 0; loses_ && i < response.events_size(); ++i) {
      if (response.events(i).type() != Rpc::Event::DELETE) continue;
      lost_ = response.events(i).kv().key();
      loses_ = false;
      response.mutable_events()->DeleteSubrange(i, 1);
      return response.events_size() == 0;
    }
    return false;
  }

  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<Rpc::KV::Stub> kv_;
  std::unique_ptr<Rpc::Watch::Stub> watch_;
  std::unique_ptr<Rpc::Lease::Stub> lease_;
  std::unique_ptr<Rpc::Maintenance::Stub> maintenance_;
  std::atomic<int> watches_ = 0;   // that were opened so far
  std::atomic<int> liveFrom_ = 0;  // those before this one are dead
  mutable std::mutex mutex_;
  bool loses_ = false;
  std::string lost_;
};

LossyProxy::LossyProxy(const std::string& endpoint) : services_(std::make_unique<Services>(endpoint)) {
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
  // As etcd, which takes a sign of life every five seconds.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 5000);
  builder.RegisterService(static_cast<Rpc::KV::Service*>(services_.get()));
  builder.RegisterService(static_cast<Rpc::Watch::Service*>(services_.get()));
  builder.RegisterService(static_cast<Rpc::Lease::Service*>(services_.get()));
  builder.RegisterService(static_cast<Rpc::Maintenance::Service*>(services_.get()));
  server_ = builder.BuildAndStart();
  if (!server_ || port_ == 0) throw std::runtime_error("no port for a proxy");
}

LossyProxy::~LossyProxy() {
  // What is open is cancelled.
  server_->Shutdown(std::chrono::system_clock::now());
  server_->Wait();
}

std::string LossyProxy::endpoint() const { return fmt::format("127.0.0.1:{}", port_); }

void LossyProxy::killWatches() { services_->killWatches(); }

void LossyProxy::loseNextDeletion() { services_->loseNextDeletion(); }

std::string LossyProxy::lost() const { return services_->lost(); }

}  // namespace Faults
