#include "tests/simulation/Rows.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <initializer_list>
#include <stdexcept>

#include "tests/support/Random.h"

namespace Simulation {
namespace {

constexpr std::array<const char*, kTables> kNames = {
    "trelIfTable", "trelReachabilityTable", "trelHrSystemTable", "trelProcessorTable", "trelHrStorageTable"};
constexpr std::array<const char*, 3> kMappingTypes = {"1.3.6.1.2.1.25.2.1.2", "1.3.6.1.2.1.25.2.1.4",
                                                      "1.3.6.1.2.1.25.2.1.4294967295"};

// The number after the last '#', or kNoRecord.
uint64_t numberAtEnd(std::string_view text) {
  size_t mark = text.rfind('#');
  uint64_t number = kNoRecord;
  if (mark != std::string_view::npos)
    std::from_chars(text.data() + mark + 1, text.data() + text.size(), number);
  return number;
}

uint64_t mixedAll(std::initializer_list<uint64_t> parts) {
  uint64_t number = 0;
  for (uint64_t part : parts) number = Support::mixed(number + part);
  return number;
}

}  // namespace

const char* nameOf(TableId table) { return kNames[static_cast<size_t>(table)]; }

TableId tableNamed(std::string_view attribute) {
  for (size_t i = 0; i < kTables; ++i) {
    if (attribute == kNames[i]) return static_cast<TableId>(i);
  }
  throw std::out_of_range(fmt::format("no table {}", attribute));
}

std::string Key::text() const { return fmt::format("({},{})", first, second); }
std::string Row::text() const { return fmt::format("{}/{}/{}", record, x, y); }

uint64_t serial(const Trel::ReachabilityState* record) {
  return record != nullptr ? record->lastChangeNs() : kNoRecord;
}

uint64_t serial(const HostResources::Processor* record) {
  return record != nullptr ? static_cast<uint16_t>(record->load()) : kNoRecord;
}

uint64_t serial(const HostResources::StorageInfo* record) {
  return record != nullptr ? record->size() : kNoRecord;
}

uint64_t serial(const HostResources::MemInfo* record) {
  if (record == nullptr) return kNoRecord;
  const auto& amounts = record->amounts();
  auto part = [](const std::optional<uint32_t>& amount) { return amount ? *amount : kNoRecord; };
  return mixedAll({part(amounts.total), part(amounts.free), part(amounts.available), part(amounts.nonBuffer),
                   part(amounts.nonCache)});
}

uint64_t serial(const Kor::Entity* entity) {
  return entity != nullptr ? numberAtEnd(entity->name()) : kNoRecord;
}

uint32_t serial(const HostResourcesMib::StorageTableEntry& mapping) {
  return mappingSerial(mapping.type.text(), mapping.description);
}

std::string mappingType(uint32_t serial) { return kMappingTypes[serial % kMappingTypes.size()]; }

// Some are as long as a column can be, and some are longer than that.
std::string mappingDescription(uint32_t serial) {
  std::string end = fmt::format("#{}", serial);
  size_t length = serial % 16 == 0 ? 255 : serial % 16 == 1 ? 256 : end.size() + serial % 7;
  return std::string(length - end.size(), 'd') + end;
}

uint32_t mappingSerial(const std::string& type, const std::string& description) {
  auto number = static_cast<uint32_t>(numberAtEnd(description));
  return type == kMappingTypes[number % kMappingTypes.size()] ? number : ~number;
}

Row rowOf(const TrelSnmp::TrelIfEntry& entry) {
  return {.x = entry.localMemberId(), .y = entry.remoteMemberId()};
}

Row rowOf(const TrelSnmp::TrelReachabilityEntry& entry) {
  return {.record = serial(entry.reachabilityState().get()),
          .x = static_cast<uint32_t>(serial(entry.ifMib().get()))};
}

Row rowOf(const TrelSnmp::TrelHrSystemEntry& entry) {
  return {.record = serial(entry.hostResources().get())};
}
Row rowOf(const TrelSnmp::TrelProcessorEntry& entry) { return {.record = serial(entry.processor().get())}; }

Row rowOf(const TrelSnmp::TrelHrStorageEntry& entry) {
  Row row{.x = mappingSerial(entry.type().text(), entry.descr())};
  if (&entry.korType() == &TrelSnmp::TrelHrStorageEntryMount::korTypeInfo()) {
    row.record = serial(static_cast<const TrelSnmp::TrelHrStorageEntryMount&>(entry).storageInfo().get());
    row.y = kMountRow;
  } else {
    row.record = serial(static_cast<const TrelSnmp::TrelHrStorageEntryMem&>(entry).memInfo().get());
    row.y = kMemoryRow;
  }
  return row;
}

Key keyOf(const TrelSnmp::TrelMib::RowKey& key) {
  return std::visit([](const auto& part) { return keyOf(part); }, key);
}

}  // namespace Simulation
