// What servers answer a follower, in one line of a test each.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kelstore/etcd/Follower.h"

namespace Kelstore::Etcd {

inline Record record(const std::string& key, const std::string& value, int64_t revision, int64_t lease = 0) {
  return {key, value, revision, lease};
}
inline Event put(const std::string& key, const std::string& value, int64_t revision) {
  return {record(key, value, revision), false};
}
inline Event del(const std::string& key, int64_t revision) { return {record(key, "", revision), true}; }

inline WatchResponse watchCreated(const Header& header) {
  WatchResponse response;
  response.header = header;
  response.created = true;
  return response;
}
// Without events: how far the store is.
inline WatchResponse watchEvents(const Header& header, std::vector<Event> events = {},
                                 bool fragment = false) {
  WatchResponse response;
  response.header = header;
  response.events = std::move(events);
  response.fragment = fragment;
  return response;
}
inline WatchResponse watchCanceled(const Header& header, int64_t compactRevision,
                                   const std::string& reason = "") {
  WatchResponse response;
  response.header = header;
  response.canceled = true;
  response.compactRevision = compactRevision;
  response.cancelReason = reason;
  return response;
}

}  // namespace Kelstore::Etcd
