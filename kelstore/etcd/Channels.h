// Connections to etcd servers, for the blocking client and the follower. On any thread.
#pragma once

#include <absl/status/statusor.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelstore/etcd/AccessFiles.h"

namespace Kelstore::Etcd {

// A silent server is pinged after kKeepaliveTime without traffic while a call is open; without an answer, the
// connection ends kKeepaliveTimeout later. etcd closes connections on which pings come more often than every
// 5 s, or while no call is open.
inline constexpr std::chrono::seconds kKeepaliveTime(10);
inline constexpr std::chrono::seconds kKeepaliveTimeout(5);
// The longest message that is accepted. etcd has no value of more than 10 MiB, so one value always fits.
inline constexpr int kMaxMessageBytes = 16 << 20;

// A channel to one endpoint ("host:port"), which shares no connection with another channel. It connects with
// its first call. FailedPrecondition: a certificate or key cannot be read.
absl::StatusOr<std::shared_ptr<grpc::Channel>> makeChannel(const std::string& endpoint, const Access& access);

struct LoggedIn {
  std::shared_ptr<grpc::Channel> channel;
  std::string token;  // for calls on the channel; empty: they need none
};

// Makes a channel to the endpoint, if `channel` is null, and gets a token if there is a credentials file. A
// token that was got before, from any server of the store, is kept: a store takes long to check a password.
// Reads files, calls `filesRead`, and then asks the server, with `context`. FailedPrecondition: a file cannot
// be used. Unauthenticated: the server refuses the name or the password. For threads that may wait.
absl::StatusOr<LoggedIn> logIn(const std::string& endpoint, const Access& access,
                               std::shared_ptr<grpc::Channel> channel,
                               const std::optional<std::string>& token, grpc::ClientContext& context,
                               const std::function<void()>& filesRead = {});

// Adds what every call needs: its token, and the request that a server without a leader fails the call,
// instead of answering from old state or letting a watch wait.
void addMetadata(grpc::ClientContext& context, const std::string& token);

// Whether to log in again and repeat a call, because its token was refused. One object for a call, or for the
// calls of a connection.
class TokenRenewal final {
 public:
  // status: the call's result. Not true a second time before a call succeeded.
  bool dueAfter(const Access& access, const grpc::Status& status);

 private:
  bool renewed_ = false;
};

// Whether the server had no leader; it carried out nothing of the call then.
bool refusedWithoutLeader(const grpc::Status& status);

// The same code, and a message of one line that begins with the endpoint. access: how it was spoken to.
absl::Status asStatus(const std::string& endpoint, const Access& access, const grpc::Status& status);

}  // namespace Kelstore::Etcd
