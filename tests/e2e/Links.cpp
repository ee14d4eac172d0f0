#include "tests/e2e/Links.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace E2e {

std::string documentOf(const Links& links) {
  Wiring wiring;
  for (const auto& [ifIndex, members] : links) {
    std::string interface = fmt::format("Backplane{}/{}", members.first, members.second);
    wiring.links[members] = interface;
    wiring.indexes[interface] = ifIndex;
  }
  return documentOf(wiring);
}

std::string documentOf(const Wiring& wiring) {
  nlohmann::ordered_json document = {{"sysname", "e2e"}};
  for (const auto& [interface, ifIndex] : wiring.indexes) {
    document["interfaces"][interface] = {{"ifIndex", ifIndex}};
  }
  for (const auto& [members, interface] : wiring.links) {
    const auto& [member, neighbour] = members;
    document["topology"][std::to_string(member)][std::to_string(neighbour)] = {{"intf", interface}};
  }
  return document.dump(1);
}

std::vector<Varbind> treeOf(const Links& links) {
  std::vector<Varbind> tree;
  for (int column : {2, 3}) {
    for (const auto& [ifIndex, members] : links) {
      int member = column == 2 ? members.first : members.second;
      tree.push_back({fmt::format("baif.{}.{}", column, ifIndex), fmt::format("INTEGER: {}", member)});
    }
  }
  return tree;
}

}  // namespace E2e
