// A cluster's state that is large.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <utility>

namespace Support {

// The document of a hundred members, from that one on, with a thousand processors each.
inline nlohmann::json hundredThousandProcessors(int firstMember) {
  auto members = nlohmann::json::object();
  for (int member = firstMember; member < firstMember + 100; ++member) {
    auto processors = nlohmann::json::object();
    for (int index = 1; index <= 1000; ++index) processors[std::to_string(index)] = {{"load", index % 100}};
    members[std::to_string(member)] = {{"processors", std::move(processors)}};
  }
  return {{"members", std::move(members)}};
}

}  // namespace Support
