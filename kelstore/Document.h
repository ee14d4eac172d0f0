// The state as one JSON document, nested by path segment.
//
// Parsing keeps no shared state: it may run on any thread. Whatever the text holds, it ends with a Document
// within the limits, and in bounded stack; or, before the memory is used up, with std::bad_alloc.
#pragma once

#include <deque>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/Limits.h"
#include "kelstore/Snapshot.h"

namespace Kelstore {

struct Document {
  // What is wrong at one position; every path at or below it is affected.
  struct Fault {
    std::vector<std::string> segments;
    std::string text;  // "members/1/processors/1/load: found 70000, expected ..."
  };

  // Values that are left out, since there are too many beside them, or in all.
  struct Surplus {
    std::string text;  // "members/1/processors: 12 left out, as there are more than 4096"
    size_t values = 0;
  };

  // The text is no JSON object, or so much of it is wrong that it cannot be meant. What a message says after
  // the document's name: ":<line>:<column>: ...", or
  // ": ..." where there is no such place. The rest is empty then.
  std::optional<std::string> unusable;
  std::deque<Snapshot::Entry> values;
  std::vector<Fault> faults;
  std::vector<Surplus> surplus;
  std::vector<std::string> warnings;  // as many as are remembered
};

Document parseDocument(std::string_view text, const Limits& limits = {});

// The same for the value at one path, where a source holds each value on its own. Places in `unusable` count
// within the text. The value counts only when there is no fault. Requires: the path is no container's.
Document parseValue(const Path& path, std::string_view text);

using Values = std::map<Path, Value>;

// The values as one document.
nlohmann::json documentOf(const Values& values);

// What a source that read the document says: the document's values, but at affected paths what it said
// before.
Snapshot withLastGood(Document&& document, const Snapshot& before);

}  // namespace Kelstore
