// Many publishers in one process, each with its own connections, as in a daemon each. Their figures are those
// of this machine; each has two neighbours in a ring, which answer at once.
#pragma once

#include <memory>

#include "bench/fullsize/Board.h"
#include "kelstore/etcd/Address.h"

namespace FullSize {

// Publishes the members from 1 on until the process is ended. ring: the number of members. While
// it is measured, one member after the other loses a link, one in a second.
void publish(const std::string& store, size_t members, size_t ring, const std::shared_ptr<Board>& board);

}  // namespace FullSize
