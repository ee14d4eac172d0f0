#include "platform/intfsnmp/IfMib.h"

#include <fmt/format.h>

namespace IntfSnmp {
namespace {

std::string indexesOf(const IfMib& ifMib) {
  std::string lines;
  for (auto at = ifMib.ifIndexByIntfId().begin(); at; at.next())
    lines += fmt::format("{} {}\n", *at.value(), at.key().name());
  return lines;
}

}  // namespace

const Kor::Type& IfMib::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<IfMib>("IntfSnmp::IfMib")
          .attribute("name", &IfMib::name)
          .attribute("ifIndexByIntfId", [](const IfMib& i) { return i.ifIndexByIntfId().size(); })
          .question("ifIndexes", indexesOf)
          .build();
  return type;
}

}  // namespace IntfSnmp
