// The parts of etcd's messages that are used, and the changes that follow from them. Plain values, so that
// decisions on them are tested without a server.
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

// A key and its value.
struct Record {
  std::string key;
  std::string value;
  int64_t modRevision = 0;
  int64_t lease = 0;         // 0: none
  size_t oversizeBytes = 0;  // size of a value that was left out, since it is too large; 0: it was not
  bool keyOnly = false;      // the value was not asked for

  // Leaves the value out if it is larger than this.
  void cutTo(size_t valueBytes) {
    if (value.size() <= valueBytes) return;
    oversizeBytes = value.size();
    value = {};
  }
};

// A part of the keys, in order.
struct Page {
  Header header;
  std::vector<Record> records;
  bool more = false;  // further keys follow
};

enum class PageFailure : uint8_t {
  noRevision,  // the revision is compacted, or does not exist yet
  tooLarge,    // the page is more than a message may hold
  late,        // no answer in time
  other,
};

struct Event {
  Record record;  // of a deletion, only the key and the revision
  bool deleted = false;
};

struct WatchResponse {
  Header header;
  bool created = false;
  bool canceled = false;
  bool fragment = false;        // more of the same answer follows
  int64_t compactRevision = 0;  // not 0: the revision that was asked for is compacted
  std::string cancelReason;
  std::vector<Event> events;
};

// The change of one key.
struct Change {
  std::string key;
  std::optional<std::string> value;  // nothing: the key is gone
  int64_t lease = 0;                 // of a key that is gone: the one that may have ended; 0: none did
  size_t oversizeBytes = 0;          // as above
};

// The changes of whole revisions, in order. A key may occur more than once.
struct Batch {
  int64_t revision = 0;  // the last one
  std::vector<Change> changes;
  bool whole = false;  // the changes are all keys of the store; any other key is gone
};

}  // namespace Kelstore::Etcd
