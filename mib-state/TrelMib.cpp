#include "mib-state/TrelMib.h"

namespace TrelSnmp {

const Kor::Type& TrelMib::type() {
  static const auto rows = [](auto table) {
    return [table](const TrelMib& mib) { return (mib.*table).table().size(); };
  };
  static const Kor::Type type =
      Kor::TypeBuilder<TrelMib>("TrelSnmp::TrelMib")
          .attribute("name", &TrelMib::name)
          .attribute("trelIfTable", rows(&TrelMib::ifs_))
          .attribute("trelReachabilityTable", rows(&TrelMib::reachability_))
          .attribute("trelHrSystemTable", rows(&TrelMib::systems_))
          .attribute("trelProcessorTable", rows(&TrelMib::processors_))
          .attribute("trelHrStorageTable", rows(&TrelMib::storage_))
          .operation("trelIfTableDelAll", &TrelMib::trelIfTableDelAll)
          .operation("trelReachabilityTableDelAll", &TrelMib::trelReachabilityTableDelAll)
          .operation("trelHrSystemTableDelAll", &TrelMib::trelHrSystemTableDelAll)
          .operation("trelProcessorTableDelAll", &TrelMib::trelProcessorTableDelAll)
          .operation("trelHrStorageTableDelAll", &TrelMib::trelHrStorageTableDelAll)
          .build();
  return type;
}

Zavro::Ptr<TrelMib> trelMibFactory(const Kor::String& name) { return Zavro::makePtr<TrelMib>(name); }

}  // namespace TrelSnmp
