// What it takes to be let in by etcd: certificates, and a user's name and password. All of it stands in
// files, never on a command line, and is read again for every new connection, so that files may be replaced
// while a program runs.
#pragma once

#include <absl/status/statusor.h>

#include <string>

namespace Kelstore::Etcd {

// Paths of files; empty: not used. TLS is spoken when there is a CA or a certificate.
struct Access {
  // --etcd-ca: who signed the server's certificate, PEM. Without it the system's CAs count.
  std::string caFile = {};
  // --etcd-cert, --etcd-key: our own certificate and its key, PEM; both or none.
  std::string certFile = {};
  std::string keyFile = {};
  // --etcd-credentials: {"user": "...", "password": "..."}. It and the key are refused when others have a
  // right to them.
  std::string credentialsFile = {};

  bool tls() const { return !caFile.empty() || !certFile.empty(); }
};

struct Credentials {
  std::string user;
  std::string password;
};

// Contents of the PEM files, empty where there is none.
struct Certificates {
  std::string ca, cert, key;
};

// Errors are one line that begins with the file's name; no content of a file is part of it.
absl::StatusOr<Credentials> readCredentials(const Access& access);
absl::StatusOr<Certificates> readCertificates(const Access& access);

// For the start of a program: throws std::invalid_argument when one of the files cannot be used, or a
// certificate has no key or a key no certificate.
void checkAccess(const Access& access);

}  // namespace Kelstore::Etcd
