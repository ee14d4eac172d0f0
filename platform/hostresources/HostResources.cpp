#include "platform/hostresources/HostResources.h"

namespace HostResources {
namespace {

// A settable figure of the system record: number in, number out.
template <class T>
auto figureSetter(T HostResources::System::*figure) {
  return [figure](HostResources& host, std::string_view text) {
    HostResources::System system = host.system();
    if constexpr (std::is_same_v<T, uint32_t>) {
      system.*figure = Kor::u32FromText(text);
    } else {
      system.*figure = Kor::doubleFromText(text);
    }
    host.systemIs(system);
  };
}

template <class T>
auto figure(T HostResources::System::*member) {
  return [member](const HostResources& host) { return host.system().*member; };
}

}  // namespace

std::string StorageInfo::text() const {
  return fmt::format("(allocationUnits={}, size={}, free={})", allocationUnits_, size_, free_);
}

std::string MemInfo::text() const {
  return fmt::format("(total={}, free={}, available={}, nonBuffer={}, nonCache={})",
                     Kor::optText(amounts_.total), Kor::optText(amounts_.free),
                     Kor::optText(amounts_.available), Kor::optText(amounts_.nonBuffer),
                     Kor::optText(amounts_.nonCache));
}

const Kor::Type& Processor::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<Processor>("HostResources::Processor").attribute("load", &Processor::load).build();
  return type;
}

const Kor::Type& StorageInfo::type() {
  static const Kor::Type type = Kor::TypeBuilder<StorageInfo>("HostResources::StorageInfo")
                                    .attribute("allocationUnits", &StorageInfo::allocationUnits)
                                    .attribute("size", &StorageInfo::size)
                                    .attribute("free", &StorageInfo::free)
                                    .build();
  return type;
}

const Kor::Type& MemInfo::type() {
  static const auto amount = [](std::optional<uint32_t> Amounts::*member) {
    return [member](const MemInfo& info) { return Kor::optText(info.amounts().*member); };
  };
  static const Kor::Type type = Kor::TypeBuilder<MemInfo>("HostResources::MemInfo")
                                    .attribute("total", amount(&Amounts::total))
                                    .attribute("free", amount(&Amounts::free))
                                    .attribute("available", amount(&Amounts::available))
                                    .attribute("nonBuffer", amount(&Amounts::nonBuffer))
                                    .attribute("nonCache", amount(&Amounts::nonCache))
                                    .build();
  return type;
}

const Kor::Type& HostResources::type() {
  using System = HostResources::System;
  static const auto settable = [](auto& builder, const char* name, auto member) {
    builder.attribute(name, figure(member), figureSetter(member));
  };
  static const Kor::Type type = [] {
    Kor::TypeBuilder<HostResources> builder("HostResources::HostResources");
    builder.attribute("name", &HostResources::name);
    settable(builder, "systemUptime", &System::systemUptime);
    settable(builder, "currentTimeUtc", &System::currentTimeUtc);
    settable(builder, "systemNumUsers", &System::systemNumUsers);
    settable(builder, "systemProcesses", &System::systemProcesses);
    settable(builder, "memorySize", &System::memorySize);
    builder.attribute("processorTable", [](const HostResources& h) { return h.processorTable().size(); })
        .attribute("storageInfoTable", [](const HostResources& h) { return h.storageInfoTable().size(); })
        .attribute("memInfo", [](const HostResources& h) { return Kor::optText(h.memInfo()); });
    return builder.build();
  }();
  return type;
}

}  // namespace HostResources
