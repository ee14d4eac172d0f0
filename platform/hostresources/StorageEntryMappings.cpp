#include "platform/hostresources/StorageEntryMappings.h"

namespace HostResourcesMib {
namespace {

[[maybe_unused]] const bool registered = [] {
  Kor::Entity::singletonTypeIs(StorageEntryMappings::kTypeName,
                               [] { return Zavro::makePtr<StorageEntryMappings>(); });
  return true;
}();

}  // namespace

const Kor::Type& StorageEntryMappings::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<StorageEntryMappings>(kTypeName)
          .attribute("name", &StorageEntryMappings::name)
          .attribute("mountEntries", [](const StorageEntryMappings& m) { return m.mountEntries().size(); })
          .attribute("memEntries", [](const StorageEntryMappings& m) { return m.memEntries().size(); })
          .build();
  return type;
}

}  // namespace HostResourcesMib
