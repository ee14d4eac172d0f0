// What it takes to be let in by etcd: certificates, and a user's name and password. All of it stands in
// files, never on a command line, and is read again for every new connection, so that files may be replaced
// while a program runs.
#pragma once

#include <string>

namespace Kelstore::Etcd {

// Paths of files; empty: not used. TLS is spoken when there is a CA or a certificate.
struct Access {
  // --etcd-ca: who signed the server's certificate, PEM. Without it the system's CAs count.
  std::string caFile = {};
  // --etcd-cert, --etcd-key: our own certificate and its key, PEM; both or none.
  std::string certFile = {};
  std::string keyFile = {};
  // --etcd-credentials: {"user": "...", "password": "..."}. It and the key are refused when anybody
  // but their owner has a right to them.
  std::string credentialsFile = {};

  bool operator==(const Access&) const = default;
  bool tls() const { return !caFile.empty() || !certFile.empty(); }
};

}  // namespace Kelstore::Etcd
