#include "kelstore/etcd/AccessOptions.h"

#include "runtime/CommandLine.h"

namespace Kelstore::Etcd {

void describeAccess(CLI::App& app, Access& access) {
  auto file = [&app](const char* name, std::string& path, const char* description) {
    Runtime::addTextOption(app, name, path, description, "FILE");
  };
  file("--etcd-ca", access.caFile,
       "CAs that signed the servers' certificates, PEM; makes it TLS (default, with --etcd-cert: the "
       "system's)");
  file("--etcd-cert", access.certFile,
       "Certificate to show to the servers, PEM; makes it TLS; needs --etcd-key");
  file("--etcd-key", access.keyFile,
       "Its key, PEM; refused when anybody but its owner has a right to it; needs --etcd-cert");
  file(
      "--etcd-credentials", access.credentialsFile,
      "User and password, {\"user\": ..., \"password\": ...}; refused when anybody but its owner has a right "
      "to it");
}

}  // namespace Kelstore::Etcd
