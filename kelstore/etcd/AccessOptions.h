// The command line options for authenticating to etcd.
#pragma once

#include "kelstore/etcd/Access.h"

namespace CLI {
class App;
}

namespace Kelstore::Etcd {

// Adds --etcd-ca, --etcd-cert, --etcd-key and --etcd-credentials. Parsing sets `access`.
void describeAccess(CLI::App& app, Access& access);

}  // namespace Kelstore::Etcd
