// Reads the files that it takes to be let in by etcd. For threads that nobody waits for: the files may be on
// a file system that hangs.
#pragma once

#include <absl/status/statusor.h>

#include <string>

#include "kelstore/etcd/Access.h"

namespace Kelstore::Etcd {

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

// For the start of a program: an error when one of the files cannot be used, or a certificate has no key or a
// key no certificate.
absl::Status checkAccess(const Access& access);

}  // namespace Kelstore::Etcd
