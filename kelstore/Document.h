// The state as one JSON document, nested by path segment.
//
// Parsing keeps no shared state: it may run on any thread. Whatever the text holds, it ends with a Document
// and in bounded memory and stack.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/Snapshot.h"

namespace Kelstore {

struct Document {
  // What is wrong at one position; every path at or below it is affected.
  struct Fault {
    std::vector<std::string> segments;
    std::string text;  // "members/1/processors/1/load: found 70000, expected ..."
  };

  // The text is no JSON object. What a message says after the document's name: ":<line>:<column>: ...", or
  // ": ..." where there is no such place. The rest is empty then.
  std::optional<std::string> unusable;
  std::vector<Snapshot::Entry> values;
  std::vector<Fault> faults;
  std::vector<std::string> warnings;
};

Document parseDocument(std::string_view text);

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
