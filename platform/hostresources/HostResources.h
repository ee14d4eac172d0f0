// What a member publishes about its own host: system figures, processors, file systems, memory. The
// quantities are those of HOST-RESOURCES-MIB (RFC 2790).
#pragma once

#include <cstdint>
#include <optional>

#include "platform/kor/Collection.h"
#include "platform/kor/Entity.h"

namespace HostResources {

// One processor. Immutable: a change is a new record.
class Processor final : public Kor::ValueEntity {
 public:
  explicit Processor(int16_t load) : load_(load) {}
  int16_t load() const { return load_; }  // percent in the last interval; -1 when unknown
  std::string text() const { return fmt::format("(load={})", load_); }
  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  int16_t load_;
};

// One mounted file system. Immutable: a change is a new record.
class StorageInfo final : public Kor::ValueEntity {
 public:
  StorageInfo(uint32_t allocationUnits, uint64_t size, uint64_t free)
      : size_(size), free_(free), allocationUnits_(allocationUnits) {}
  uint32_t allocationUnits() const { return allocationUnits_; }  // bytes
  uint64_t size() const { return size_; }                        // in units
  uint64_t free() const { return free_; }                        // in units
  std::string text() const;
  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  uint64_t size_;
  uint64_t free_;
  uint32_t allocationUnits_;
};

// A member's memory, in KiB; an amount that the member does not know is absent. Immutable: a change is a new
// record.
class MemInfo final : public Kor::ValueEntity {
 public:
  struct Amounts {
    std::optional<uint32_t> total;
    std::optional<uint32_t> free;
    std::optional<uint32_t> available;
    std::optional<uint32_t> nonBuffer;
    std::optional<uint32_t> nonCache;
    bool operator==(const Amounts&) const = default;
  };
  explicit MemInfo(const Amounts& amounts) : amounts_(amounts) {}
  const Amounts& amounts() const { return amounts_; }
  std::string text() const;
  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Amounts amounts_;
};

// One member's host resources; named by the member's id. The system figures change in place, in the entity
// that table rows already hold; everything else changes by replacing records.
class HostResources final : public Kor::Entity {
 public:
  using Processors = Kor::Collection<uint32_t, Zavro::Ptr<const Processor>>;
  using Storage = Kor::Collection<Kor::String, Zavro::Ptr<const StorageInfo>>;

  struct System {
    double systemUptime = 0;    // seconds
    double currentTimeUtc = 0;  // seconds since 1970-01-01 UTC
    uint32_t systemNumUsers = 0;
    uint32_t systemProcesses = 0;
    uint32_t memorySize = 0;  // KiB
    bool operator==(const System&) const = default;
  };

  // The only key of Memory.
  struct MemInfoKey {
    auto operator<=>(const MemInfoKey&) const = default;
    std::string text() const { return "memInfo"; }
  };
  using Memory = Kor::Collection<MemInfoKey, Zavro::Ptr<const MemInfo>>;

  explicit HostResources(Kor::String name) : Entity(std::move(name)) { memInfo_.set({}, nullptr); }

  const System& system() const { return system_; }
  void systemIs(const System& system) {
    Kor::Publication::expectNone();
    system_ = system;
  }

  const Processors& processorTable() const { return processorTable_; }
  Processors& processorTable() { return processorTable_; }
  const Storage& storageInfoTable() const { return storageInfoTable_; }
  Storage& storageInfoTable() { return storageInfoTable_; }

  // The member's memory; null when it publishes none. Setting it notifies, also when it is the same record.
  const Zavro::Ptr<const MemInfo>& memInfo() const { return *memInfo_.find(MemInfoKey()); }
  void memInfoIs(Zavro::Ptr<const MemInfo> memInfo) { memInfo_.set({}, std::move(memInfo)); }
  // The same as a collection, for subscribers. It always has one element.
  const Memory& memInfoElement() const { return memInfo_; }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  System system_;
  Processors processorTable_;
  Storage storageInfoTable_;
  Memory memInfo_;
};

}  // namespace HostResources
