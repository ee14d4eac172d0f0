// Many followers of one store in one process, each with its own connections and thread, as in a daemon each;
// only the tables are not there. They tell the board what they see.
#pragma once

#include <memory>

#include "bench/fullsize/Board.h"
#include "kelstore/etcd/FollowSettings.h"

namespace FullSize {

// Follows until the process is ended. members: how many have rows when all is well.
void follow(const Kelstore::Etcd::Address& store, size_t followers, size_t members,
            const std::shared_ptr<Board>& board);

}  // namespace FullSize
