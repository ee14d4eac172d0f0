// The options of a command line that say who one is to a store's servers.
#pragma once

#include "kelstore/etcd/Access.h"

namespace CLI {
class App;
}

namespace Kelstore::Etcd {

// Adds --etcd-ca, --etcd-cert, --etcd-key and --etcd-credentials, which set `access`; it outlives the
// parsing.
void describeAccess(CLI::App& app, Access& access);

}  // namespace Kelstore::Etcd
