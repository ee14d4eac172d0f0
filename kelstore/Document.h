// The state as one JSON document, nested by path segment.
//
// On any thread. Any text gives a Document within the limits and uses bounded stack; when memory is short
// (runtime/Memory.h), std::bad_alloc is thrown.
#pragma once

#include <deque>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/Limits.h"
#include "kelstore/Snapshot.h"

namespace Kelstore {

struct Document {
  // Something wrong at one position. It affects every path at or below it; at a packed form, every path that
  // this may give.
  struct Fault {
    std::vector<std::string> segments;
    std::string text;  // "members/1/processors/1/load: found 70000, expected ..."
  };

  // Values that were left out, since there are too many beside them or in all.
  struct Surplus {
    std::string text;  // "members/1/processors: 12 left out, as there are more than 4096"
    size_t values = 0;
  };

  // Set if the text is no JSON object, is nested too deeply, or has more faults than are remembered; all else
  // is empty then. It follows the document's name in a message: ":<line>:<column>: ...", or ": ...".
  std::optional<std::string> unusable;
  std::deque<Snapshot::Entry> values;  // none that a fault affects
  std::vector<Fault> faults;
  std::vector<Surplus> surplus;
  std::vector<std::string> warnings;  // at most Limits::remembered
};

// Where a value is given both by itself and within a packed form, the packed form counts, with a warning.
Document parseDocument(std::string_view text, const Limits& limits = {});

// Parses the text of one value, or of a packed form, at `path`. The text may be any JSON, and places in
// `unusable` count within it. Requires: the path is no container's.
Document parseValue(const Path& path, std::string_view text, const Limits& limits = {});

// Places that have faults.
class FaultyPlaces {
 public:
  FaultyPlaces() = default;
  explicit FaultyPlaces(const Document& document);
  void add(std::vector<std::string> segments) { places_.insert(std::move(segments)); }
  // Whether one of them affects the path.
  bool affect(const Path& path) const;
  bool empty() const { return places_.empty(); }

 private:
  std::set<std::vector<std::string>> places_;
};

using Values = std::map<Path, Value>;

// The values as one document.
nlohmann::json documentOf(const Values& values);

// The document's values, but at paths that a fault affects those of `before`.
Snapshot withLastGood(Document&& document, const Snapshot& before);

}  // namespace Kelstore
