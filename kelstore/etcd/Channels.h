// Connections to etcd servers, for the blocking client and the follower. Any thread.
#pragma once

#include <absl/status/statusor.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "kelstore/etcd/AccessFiles.h"

namespace Kelstore::Etcd {

// How long a server that went silent is believed in: it is asked for a sign of life after kKeepaliveTime
// without traffic while a call is open, and the connection ends kKeepaliveTimeout later. etcd closes the
// connections of those who ask more often than every 5 s, or while no call is open.
inline constexpr std::chrono::seconds kKeepaliveTime(10);
inline constexpr std::chrono::seconds kKeepaliveTimeout(5);
// The longest message that is taken: one value at least, as etcd has none of more than 10 MiB. Whoever reads
// many asks for fewer at a time when they are more.
inline constexpr int kMaxMessageBytes = 16 << 20;

// A channel to one endpoint ("host:port"), which shares no connection with another channel; it connects with
// the first call on it. FailedPrecondition when a certificate or key cannot be read.
absl::StatusOr<std::shared_ptr<grpc::Channel>> makeChannel(const std::string& endpoint, const Access& access);

struct LoggedIn {
  std::shared_ptr<grpc::Channel> channel;
  std::string token;  // for calls on it; empty: they need none
};

// A channel to the endpoint, unless there is one already, and a token for the user of the credentials file,
// when there is such a file. Reads files, calls `filesRead`, and then asks the server, within the context.
// FailedPrecondition when a file cannot be used, Unauthenticated when the server refuses the name or the
// password. For threads that may wait.
absl::StatusOr<LoggedIn> logIn(const std::string& endpoint, const Access& access,
                               std::shared_ptr<grpc::Channel> channel, grpc::ClientContext& context,
                               const std::function<void()>& filesRead = {});

// What every call says of itself: its token, and that a server which knows no leader must not answer it from
// what it remembers, nor let a watch wait for one.
void addMetadata(grpc::ClientContext& context, const std::string& token);

// Whether a call whose token was refused is to be made once more, after another logIn(). One object for a
// call, or for the calls of a connection.
class TokenRenewal final {
 public:
  // `status` is what the call came to. Never true twice without a call in between that came to success.
  bool dueAfter(const Access& access, const grpc::Status& status);

 private:
  bool renewed_ = false;
};

// Whether the server knew no leader, and so carried out nothing of the call.
bool refusedWithoutLeader(const grpc::Status& status);

// The same code, with a message of one line that begins with the endpoint.
absl::Status asStatus(const std::string& endpoint, const grpc::Status& status);

}  // namespace Kelstore::Etcd
