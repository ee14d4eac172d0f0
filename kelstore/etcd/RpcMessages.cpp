#include "kelstore/etcd/RpcMessages.h"

#include <utility>

namespace Kelstore::Etcd {
namespace {

Record recordOf(etcdserverpb::KeyValue& keyValue, size_t valueBytes) {
  Record record{std::move(*keyValue.mutable_key()), std::move(*keyValue.mutable_value()),
                keyValue.mod_revision(), keyValue.lease()};
  record.cutTo(valueBytes);
  return record;
}

}  // namespace

etcdserverpb::RangeRequest rangeRequest(const std::string& from, const std::string& end, int64_t revision,
                                        int64_t limit, bool keysOnly) {
  etcdserverpb::RangeRequest request;
  request.set_key(from);
  request.set_range_end(end);
  request.set_revision(revision);
  request.set_limit(limit);
  request.set_keys_only(keysOnly);
  return request;
}

Header headerOf(const etcdserverpb::ResponseHeader& header) {
  return {header.cluster_id(), header.revision(), header.raft_term()};
}

Page pageOf(etcdserverpb::RangeResponse& response, size_t valueBytes, bool keysOnly) {
  Page page{headerOf(response.header()), {}, response.more()};
  page.records.reserve(static_cast<size_t>(response.kvs_size()));
  for (etcdserverpb::KeyValue& keyValue : *response.mutable_kvs()) {
    page.records.push_back(recordOf(keyValue, valueBytes));
    page.records.back().keyOnly = keysOnly;
  }
  return page;
}

WatchResponse watchResponseOf(etcdserverpb::WatchResponse& response, size_t valueBytes) {
  WatchResponse result;
  result.header = headerOf(response.header());
  result.created = response.created();
  result.canceled = response.canceled();
  result.fragment = response.fragment();
  result.compactRevision = response.compact_revision();
  result.cancelReason = response.cancel_reason();
  for (etcdserverpb::Event& event : *response.mutable_events()) {
    bool deleted = event.type() == etcdserverpb::Event::DELETE;
    result.events.push_back({recordOf(*event.mutable_kv(), valueBytes), deleted});
  }
  return result;
}

PageFailure failureOf(const grpc::Status& status) {
  if (status.error_code() == grpc::StatusCode::OUT_OF_RANGE) return PageFailure::noRevision;
  // An overloaded server returns the same code.
  std::string message = status.error_message();
  bool tooLarge = status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED &&
                  (message.find("larger than max") != std::string::npos ||
                   message.find("Buffers full") != std::string::npos);
  return tooLarge ? PageFailure::tooLarge : PageFailure::other;
}

}  // namespace Kelstore::Etcd
