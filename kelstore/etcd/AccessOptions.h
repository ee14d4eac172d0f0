// How the files for authenticating to etcd are set.
#pragma once

#include "kelstore/etcd/Access.h"

namespace CLI {
class App;
}
namespace Runtime {
class Findings;
class Settings;
}  // namespace Runtime

namespace Kelstore::Etcd {

// Adds --etcd-ca, --etcd-cert, --etcd-key and --etcd-credentials. Parsing sets `access`.
void describeAccess(CLI::App& app, Access& access);
// The same for a daemon, with these four keys, which outlive the settings.
struct AccessKeys {
  const char* ca;
  const char* cert;
  const char* key;
  const char* credentials;
};
void addAccess(Runtime::Settings& settings, const AccessKeys& keys, Access& access);
// Notes what is wrong with the files. Blocks.
void noteAccess(const Access& access, const AccessKeys& keys, Runtime::Findings& findings);

}  // namespace Kelstore::Etcd
