#include "kelstore/etcd/Channels.h"

#include <fmt/format.h>
#include <grpc/support/log.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/security/credentials.h>

#include <cstdlib>
#include <utility>

#include "kelstore/etcd/rpc.grpc.pb.h"
#include "runtime/Text.h"

namespace Kelstore::Etcd {
namespace {

constexpr size_t kMaxMessageText = 300;
constexpr int kMinReconnectMs = 200;
constexpr int kMaxReconnectMs = 5000;
constexpr int kMaxConnectMs = 5000;
constexpr size_t kMaxBufferedBytes = 2 * kMaxMessageBytes;

template <class Duration>
int milliseconds(Duration duration) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count());
}

// Turns off the library's log on standard error: calls return the same errors. Its environment variable turns
// it on again.
void beQuiet() {
  static const bool done = [] {
    if (std::getenv("GRPC_VERBOSITY") == nullptr) gpr_set_log_function([](gpr_log_func_args* /*line*/) {});
    return true;
  }();
  static_cast<void>(done);
}

grpc::ChannelArguments arguments() {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, milliseconds(kKeepaliveTime));
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, milliseconds(kKeepaliveTimeout));
  arguments.SetInt(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 0);
  // A quiet watch is pinged for ever.
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, kMinReconnectMs);
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, kMaxConnectMs);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, kMaxReconnectMs);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  // No proxy from the environment; and names are looked up for addresses only.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetMaxReceiveMessageSize(kMaxMessageBytes);
  // A message is received whole before it is found too long.
  grpc::ResourceQuota quota;
  quota.Resize(kMaxBufferedBytes);
  arguments.SetResourceQuota(quota);
  return arguments;
}

absl::StatusOr<std::shared_ptr<grpc::ChannelCredentials>> channelCredentials(const Access& access) {
  if (!access.tls()) return grpc::InsecureChannelCredentials();
  absl::StatusOr<Certificates> certificates = readCertificates(access);
  if (!certificates.ok()) return certificates.status();
  grpc::SslCredentialsOptions options;
  options.pem_root_certs = std::move(certificates->ca);
  options.pem_cert_chain = std::move(certificates->cert);
  options.pem_private_key = std::move(certificates->key);
  return grpc::SslCredentials(options);
}

bool says(const grpc::Status& status, std::string_view text) {
  return status.error_message().find(text) != std::string::npos;
}

constexpr std::string_view kAsksForACertificate =
    "; if the servers ask for certificates (--client-cert-auth), give one, with its key";

// Such a server ends the connection of who shows none, and gRPC does not know why.
bool mayAskForACertificate(const Access& access, const grpc::Status& status) {
  return access.tls() && access.certFile.empty() &&
         (says(status, "Endpoint read failed") || says(status, "Socket closed") ||
          says(status, "Connection reset by peer"));
}

// Whether the server does not, or no longer, accept the token.
bool tokenRefused(const grpc::Status& status) {
  return status.error_code() == grpc::StatusCode::UNAUTHENTICATED ||
         says(status, "revision of auth store is old") || says(status, "user name is empty");
}

}  // namespace

absl::StatusOr<std::shared_ptr<grpc::Channel>> makeChannel(const std::string& endpoint,
                                                           const Access& access) {
  beQuiet();
  auto credentials = channelCredentials(access);
  if (!credentials.ok()) return credentials.status();
  return grpc::CreateCustomChannel(endpoint, *credentials, arguments());
}

absl::StatusOr<LoggedIn> logIn(const std::string& endpoint, const Access& access,
                               std::shared_ptr<grpc::Channel> channel,
                               const std::optional<std::string>& token, grpc::ClientContext& context,
                               const std::function<void()>& filesRead) {
  if (!channel) {
    auto made = makeChannel(endpoint, access);
    if (!made.ok()) return made.status();
    channel = *std::move(made);
  }
  if (token) return LoggedIn{std::move(channel), *token};
  absl::StatusOr<Credentials> credentials = Credentials();
  if (!access.credentialsFile.empty()) credentials = readCredentials(access);
  if (!credentials.ok()) return credentials.status();
  if (filesRead) filesRead();
  if (credentials->user.empty()) return LoggedIn{std::move(channel), ""};

  addMetadata(context, "");
  etcdserverpb::AuthenticateRequest request;
  request.set_name(credentials->user);
  request.set_password(credentials->password);
  etcdserverpb::AuthenticateResponse response;
  grpc::Status status = etcdserverpb::Auth::NewStub(channel)->Authenticate(&context, request, &response);
  if (status.ok()) return LoggedIn{std::move(channel), response.token()};
  // Such a server needs no token.
  if (says(status, "authentication is not enabled")) return LoggedIn{std::move(channel), ""};
  if (!says(status, "authentication failed")) return asStatus(endpoint, access, status);
  return absl::UnauthenticatedError(fmt::format("{}: user {} of {} was refused", endpoint,
                                                Runtime::inQuotes(credentials->user),
                                                access.credentialsFile));
}

void addMetadata(grpc::ClientContext& context, const std::string& token) {
  context.AddMetadata("hasleader", "true");
  if (!token.empty()) context.AddMetadata("token", token);
}

bool TokenRenewal::dueAfter(const Access& access, const grpc::Status& status) {
  if (status.ok()) renewed_ = false;
  bool renewable = !access.credentialsFile.empty() && tokenRefused(status);
  return renewable && !std::exchange(renewed_, true);
}

bool refusedWithoutLeader(const grpc::Status& status) {
  return status.error_code() == grpc::StatusCode::UNAVAILABLE && says(status, "etcdserver: no leader");
}

absl::Status asStatus(const std::string& endpoint, const Access& access, const grpc::Status& status) {
  if (status.ok()) return absl::OkStatus();
  std::string text = status.error_message();
  for (std::string_view intro : {"last error: ", "UNKNOWN: ", "UNAVAILABLE: "}) {
    size_t at = text.find(intro);
    if (at != std::string::npos) text.erase(0, at + intro.size());
  }
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) text = "no answer in time";
  if (text.empty()) text = fmt::format("gRPC error {}", static_cast<int>(status.error_code()));
  return {static_cast<absl::StatusCode>(status.error_code()),
          fmt::format("{}: {}{}", endpoint, Runtime::shortened(text, kMaxMessageText),
                      mayAskForACertificate(access, status) ? kAsksForACertificate : "")};
}

}  // namespace Kelstore::Etcd
