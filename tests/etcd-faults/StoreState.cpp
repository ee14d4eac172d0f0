#include "tests/etcd-faults/StoreState.h"

#include <fmt/format.h>

#include <cctype>

namespace Faults {

using nlohmann::json;

json documentOf(const Kelstore::Etcd::Listing& listing) {
  json document = json::object();
  for (const auto& record : listing.records) {
    json* place = &document;
    std::string segment;
    std::string path = record.key.substr(std::string(kPrefix).size() + 1);
    for (size_t at = 0; at <= path.size(); ++at) {
      if (at == path.size() || path[at] == '/') {
        place = &(*place)[segment];
        segment.clear();
      } else if (path[at] == '%') {
        segment += static_cast<char>(std::stoi(path.substr(at + 1, 2), nullptr, 16));
        at += 2;
      } else {
        segment += path[at];
      }
    }
    *place = json::parse(record.value);
  }
  return document;
}

std::string spelt(const std::string& segment) {
  std::string text;
  for (char c : segment) {
    bool bare = std::isalnum(static_cast<unsigned char>(c)) != 0;
    text += bare ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return text;
}

}  // namespace Faults
