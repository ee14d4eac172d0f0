// From gRPC's messages to the plain values of Messages.h, and back. For the blocking client and the
// follower's thread.
#pragma once

#include <grpcpp/support/status.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "kelstore/etcd/Messages.h"
#include "kelstore/etcd/rpc.pb.h"

namespace Kelstore::Etcd {

// Asks for at most `limit` keys from `from` up to, not including, `end`. Empty end: the key `from` alone.
// Revision 0: the latest. keysOnly: without the values.
etcdserverpb::RangeRequest rangeRequest(const std::string& from, const std::string& end, int64_t revision,
                                        int64_t limit, bool keysOnly = false);

Header headerOf(const etcdserverpb::ResponseHeader& header);

// Move the texts out of the response. Values of more than `valueBytes` are left out.
Page pageOf(etcdserverpb::RangeResponse& response, size_t valueBytes, bool keysOnly = false);
WatchResponse watchResponseOf(etcdserverpb::WatchResponse& response, size_t valueBytes);

// Why a page failed. Requires: the status is not OK.
PageFailure failureOf(const grpc::Status& status);

}  // namespace Kelstore::Etcd
