// What etcd servers of a test ask of their clients: certificates of a CA of the test's own, or users with
// passwords. Everything throws std::runtime_error when it cannot be made.
#pragma once

#include <string>

#include "tests/support/Etcd.h"
#include "tests/support/TempDir.h"

namespace Support {

// Certificates, each with its key, valid for today; their files go with the object.
class Certificates final {
 public:
  // Of a CA.
  void authority(const std::string& name) const;
  // Signed by that CA, for servers at 127.0.0.1 and their clients.
  void certificate(const std::string& name, const std::string& authority) const;

  std::string certFile(const std::string& name) const { return directory_.file(name + ".pem"); }
  std::string keyFile(const std::string& name) const { return directory_.file(name + ".key"); }
  // For servers that show such a certificate and want one of the same CA to be shown.
  EtcdOptions serverOptions(const std::string& name, const std::string& authority) const;

 private:
  TempDir directory_;
};

// From now on the servers ask who it is. The user root, with password "rootpw", may do everything; the user
// trel, with password "secret" and the role writer, may read and write what begins with "trel/".
void enableAuthentication(const EtcdCluster& servers);

// Writes such a login, for its owner's eyes only, and returns its path.
std::string writeLogin(const TempDir& directory, const std::string& name, const std::string& user,
                       const std::string& password);

}  // namespace Support
