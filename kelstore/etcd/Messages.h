// What an etcd server says, as far as we care, and what followers make of it. Plain values, so that what is
// decided with them is tested without a server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kelstore::Etcd {

struct Header {
  uint64_t clusterId = 0;
  int64_t revision = 0;
  uint64_t raftTerm = 0;
};

// What stands under a key.
struct Record {
  std::string key;
  std::string value;
  int64_t modRevision = 0;
  int64_t lease = 0;         // 0: none
  size_t oversizeBytes = 0;  // of a value that is too large to be taken, and left out

  // Leaves the value out when it is larger.
  void cutTo(size_t valueBytes) {
    if (value.size() <= valueBytes) return;
    oversizeBytes = value.size();
    value = {};
  }
};

// A part of the keys, in their order.
struct Page {
  Header header;
  std::vector<Record> records;
  bool more = false;  // keys follow that did not fit
};

enum class PageFailure : uint8_t {
  noRevision,  // the revision that was asked for is compacted, or has not come yet
  tooLarge,    // the server has it, but it is more than a message may hold
  late,        // no answer came
  other,
};

struct Event {
  Record record;  // of a deletion, the key and the revision of the deletion
  bool deleted = false;
};

struct WatchResponse {
  Header header;
  bool created = false;
  bool canceled = false;
  bool fragment = false;        // more of the same answer follows
  int64_t compactRevision = 0;  // not 0: what was asked for is compacted
  std::string cancelReason;
  std::vector<Event> events;
};

// What becomes of one key.
struct Change {
  std::string key;
  std::optional<std::string> value;  // nothing: the key is gone
  int64_t lease = 0;
  size_t oversizeBytes = 0;  // as above
};

// The changes of whole revisions, in their order; a key may occur more than once.
struct Batch {
  int64_t revision = 0;  // all that happened up to this one has been told
  std::vector<Change> changes;
  bool whole = false;  // these are all keys that there are; nothing is known of what was told before
};

}  // namespace Kelstore::Etcd
