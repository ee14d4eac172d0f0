#include "platform/trel/Topology.h"

namespace Trel {

const Kor::Type& TopoConfig::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<TopoConfig>("Trel::TopoConfig")
          .attribute("name", &TopoConfig::name)
          .attribute("neighbor", [](const TopoConfig& t) { return t.neighbor().size(); })
          .build();
  return type;
}

const Kor::Type& TopologyConfig::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<TopologyConfig>("Trel::TopologyConfig")
          .attribute("name", &TopologyConfig::name)
          .attribute("topoConfig", [](const TopologyConfig& t) { return t.topoConfig().size(); })
          .build();
  return type;
}

}  // namespace Trel
