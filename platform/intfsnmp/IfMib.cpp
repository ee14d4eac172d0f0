#include "platform/intfsnmp/IfMib.h"

namespace IntfSnmp {

const Kor::Type& IfMib::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<IfMib>("IntfSnmp::IfMib")
          .attribute("name", &IfMib::name)
          .attribute("ifIndexByIntfId", [](const IfMib& i) { return i.ifIndexByIntfId().size(); })
          .build();
  return type;
}

}  // namespace IntfSnmp
