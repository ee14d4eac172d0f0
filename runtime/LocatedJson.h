// A JSON document of which each value's line is known, for messages about files that people write.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/JsonFields.h"

namespace Runtime {

struct LocatedJson {
  std::shared_ptr<nlohmann::json> json;              // never null; an empty object if the text is unusable
  std::map<std::string, size_t, std::less<>> lines;  // counted from 1; by place, as JsonNote::where has it
  std::vector<JsonNote> faults;                      // members that occur twice; the last one counts
  std::string unusable;                              // the text is no JSON, or too deep: "LINE[:COLUMN]: ..."

  // The line of the place, or of what it is in.
  size_t lineOf(std::string_view where) const;
};

LocatedJson parseLocated(std::string_view text);

}  // namespace Runtime
