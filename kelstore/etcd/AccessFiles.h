// Reads the files that are needed to authenticate to etcd. On threads that nobody waits for: the files may be
// on a file system that hangs.
#pragma once

#include <absl/status/statusor.h>

#include <string>

#include "kelstore/etcd/Access.h"

namespace Kelstore::Etcd {

struct Credentials {
  std::string user;
  std::string password;
};

// Contents of the PEM files; empty where `Access` names none.
struct Certificates {
  std::string ca, cert, key;
};

// Errors are one line that begins with the file's name, and hold no content of the file.
absl::StatusOr<Credentials> readCredentials(const Access& access);
absl::StatusOr<Certificates> readCertificates(const Access& access);

// For the start of a program: an error if a file cannot be used, or only one of certificate and key is given.
// None if a file system has not answered after two seconds: whoever reads the files then will wait, and say
// so.
absl::Status checkAccess(const Access& access);

}  // namespace Kelstore::Etcd
