#include "tests/support/EtcdAccess.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <stdexcept>
#include <vector>

#include "tests/support/Process.h"

namespace Support {
namespace {

void openssl(Argv arguments) {
  arguments.insert(arguments.begin(), "openssl");
  Result result = run(arguments);
  if (result.status != 0) throw std::runtime_error("openssl: " + result.err);
}

}  // namespace

void Certificates::authority(const std::string& name) const {
  openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
           "2", "-subj", "/CN=" + name, "-keyout", keyFile(name), "-out", certFile(name)});
}

void Certificates::certificate(const std::string& name, const std::string& authority) const {
  std::string request = directory_.file(name + ".csr");
  openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
           "/CN=" + name, "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", keyFile(name), "-out",
           request});
  openssl({"x509", "-req", "-days", "2", "-in", request, "-copy_extensions", "copy", "-CA",
           certFile(authority), "-CAkey", keyFile(authority), "-CAcreateserial", "-out", certFile(name)});
}

EtcdOptions Certificates::serverOptions(const std::string& name, const std::string& authority) const {
  EtcdOptions options;
  options.caFile = certFile(authority);
  options.certFile = certFile(name);
  options.keyFile = keyFile(name);
  return options;
}

void enableAuthentication(const EtcdCluster& servers) {
  // Some versions have the role root from the beginning, others only when it is added.
  servers.tryCtl({"role", "add", "root"});
  for (const Argv& command :
       std::vector<Argv>{{"user", "add", "root:rootpw"},
                         {"user", "grant-role", "root", "root"},
                         {"role", "add", "writer"},
                         {"role", "grant-permission", "writer", "readwrite", "trel/", "--prefix"},
                         {"user", "add", "trel:secret"},
                         {"user", "grant-role", "trel", "writer"},
                         {"auth", "enable"}}) {
    servers.ctl(command);
  }
}

std::string writeLogin(const TempDir& directory, const std::string& name, const std::string& user,
                       const std::string& password) {
  std::string path =
      directory.write(name, fmt::format(R"({{"user": "{}", "password": "{}"}})", user, password));
  if (chmod(path.c_str(), 0600) != 0) throw std::runtime_error("cannot restrict " + path);
  return path;
}

}  // namespace Support
