// How to authenticate to etcd: certificates, and a user's name and password. All of it is in files, never on
// a command line. They are read again for every connection, so they may be replaced while a program runs.
#pragma once

#include <string>

namespace Kelstore::Etcd {

// Paths of files; empty: not used. TLS is spoken when there is a CA or a certificate.
struct Access {
  // --etcd-ca: PEM; the CAs that may have signed the server's certificate. Without it, those of the system.
  std::string caFile = {};
  // --etcd-cert, --etcd-key: our own certificate and its key, PEM; both or none.
  std::string certFile = {};
  std::string keyFile = {};
  // --etcd-credentials: {"user": "...", "password": "..."}. This file and keyFile are refused unless they
  // belong to us or root, and nobody else has a right to them.
  std::string credentialsFile = {};

  bool operator==(const Access&) const = default;
  bool tls() const { return !caFile.empty() || !certFile.empty(); }
};

}  // namespace Kelstore::Etcd
