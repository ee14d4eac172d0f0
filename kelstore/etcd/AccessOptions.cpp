#include "kelstore/etcd/AccessOptions.h"

#include <array>

#include "kelstore/etcd/AccessFiles.h"
#include "runtime/CommandLine.h"
#include "runtime/Errors.h"
#include "runtime/Settings.h"

namespace Kelstore::Etcd {
namespace {

struct AccessFile {
  const char* option;
  const char* AccessKeys::*key;
  std::string Access::*path;
  const char* meaning;
};

constexpr std::array kFiles = {
    AccessFile{"--etcd-ca", &AccessKeys::ca, &Access::caFile,
               "CAs that signed the servers' certificates, PEM; makes it TLS (default, with a certificate: "
               "the system's)"},
    AccessFile{"--etcd-cert", &AccessKeys::cert, &Access::certFile,
               "Certificate to show to the servers, PEM; makes it TLS; needs a key"},
    AccessFile{"--etcd-key", &AccessKeys::key, &Access::keyFile,
               "Its key, PEM; refused when anybody but its owner has a right to it; needs a certificate"},
    AccessFile{"--etcd-credentials", &AccessKeys::credentials, &Access::credentialsFile,
               "User and password, {\"user\": ..., \"password\": ...}; refused when anybody but its owner "
               "has a right to it"},
};

}  // namespace

void describeAccess(CLI::App& app, Access& access) {
  for (const AccessFile& file : kFiles) {
    Runtime::addTextOption(app, file.option, access.*file.path, file.meaning, "FILE");
  }
}

void addAccess(Runtime::Settings& settings, const AccessKeys& keys, Access& access) {
  for (const AccessFile& file : kFiles) {
    settings.text({keys.*file.key, "FILE", file.meaning}, access.*file.path, Runtime::isPath);
  }
}

void noteAccess(const Access& access, const AccessKeys& keys, Runtime::Findings& findings) {
  auto note = [&findings](const char* key, const Access& part) {
    absl::Status status = checkAccess(part);
    if (!status.ok()) findings.fault(key, Runtime::textOf(status));
  };
  note(keys.ca, {.caFile = access.caFile});
  note(access.certFile.empty() ? keys.key : keys.cert,
       {.certFile = access.certFile, .keyFile = access.keyFile});
  note(keys.credentials, {.credentialsFile = access.credentialsFile});
  if (!access.credentialsFile.empty() && !access.tls()) {
    findings.warning(keys.credentials,
                     "the password goes to the servers in the clear; it does not with the CA of their "
                     "certificates");
  }
}

}  // namespace Kelstore::Etcd
