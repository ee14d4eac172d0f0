// The five tables under one face, so that what holds for all of them is tested once for each: row number n
// has a key that grows with n, and a record of its own.
#pragma once

#include <string>

#include "mib-state/TrelMib.h"

// "<n>" or "(<first>=<n>, <second>=<n>)".
inline std::string keyText(const TrelSnmp::TrelMib::RowKey& key) {
  return std::visit([](const auto& k) { return fmt::format("{}", k); }, key);
}

struct IfTableTraits {
  using Table = TrelSnmp::TrelIfTable;
  static constexpr const char* kName = "trelIfTable";
  static uint32_t key(uint32_t n) { return n; }
  static const Table& table(const TrelSnmp::TrelMib& mib) { return mib.trelIfTable(); }
  static auto row(const TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelIfTable(key(n)); }
  using Record = uint32_t;  // the local member
  static Record record(uint32_t n) { return n; }
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n, Record record) {
    return mib.trelIfTableIs(key(n), record, 0);
  }
  template <class Where>
  static auto del(TrelSnmp::TrelMib& mib, const Where& where) {
    return mib.trelIfTableDel(where);
  }
  static void delAll(TrelSnmp::TrelMib& mib) { mib.trelIfTableDelAll(); }
};

struct ReachabilityTableTraits {
  using Table = TrelSnmp::TrelReachabilityTable;
  static constexpr const char* kName = "trelReachabilityTable";
  static TrelSnmp::MemberIdPair key(uint32_t n) { return {n / 4, n % 4}; }
  static const Table& table(const TrelSnmp::TrelMib& mib) { return mib.trelReachabilityTable(); }
  static auto row(const TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelReachabilityTable(key(n)); }
  using Record = Zavro::Ptr<const Trel::ReachabilityState>;
  static Record record(uint32_t n) {
    return Zavro::makePtr<Trel::ReachabilityState>(Trel::ReachabilityState::reachable, std::nullopt, n);
  }
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n, const Record& record) {
    return mib.trelReachabilityTableIs(key(n), record, nullptr);
  }
  template <class Where>
  static auto del(TrelSnmp::TrelMib& mib, const Where& where) {
    return mib.trelReachabilityTableDel(where);
  }
  static void delAll(TrelSnmp::TrelMib& mib) { mib.trelReachabilityTableDelAll(); }
};

struct HrSystemTableTraits {
  using Table = TrelSnmp::TrelHrSystemTable;
  static constexpr const char* kName = "trelHrSystemTable";
  static uint32_t key(uint32_t n) { return n; }
  static const Table& table(const TrelSnmp::TrelMib& mib) { return mib.trelHrSystemTable(); }
  static auto row(const TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelHrSystemTable(key(n)); }
  using Record = Zavro::Ptr<const HostResources::HostResources>;
  static Record record(uint32_t n) { return Zavro::makePtr<HostResources::HostResources>(std::to_string(n)); }
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n, const Record& record) {
    return mib.trelHrSystemTableIs(key(n), record);
  }
  template <class Where>
  static auto del(TrelSnmp::TrelMib& mib, const Where& where) {
    return mib.trelHrSystemTableDel(where);
  }
  static void delAll(TrelSnmp::TrelMib& mib) { mib.trelHrSystemTableDelAll(); }
};

struct ProcessorTableTraits {
  using Table = TrelSnmp::TrelProcessorTable;
  static constexpr const char* kName = "trelProcessorTable";
  static TrelSnmp::ProcessorKey key(uint32_t n) { return {n / 4, n % 4}; }
  static const Table& table(const TrelSnmp::TrelMib& mib) { return mib.trelProcessorTable(); }
  static auto row(const TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelProcessorTable(key(n)); }
  using Record = Zavro::Ptr<const HostResources::Processor>;
  static Record record(uint32_t n) {
    return Zavro::makePtr<HostResources::Processor>(static_cast<int16_t>(n));
  }
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n, const Record& record) {
    return mib.trelProcessorTableIs(key(n), record);
  }
  template <class Where>
  static auto del(TrelSnmp::TrelMib& mib, const Where& where) {
    return mib.trelProcessorTableDel(where);
  }
  static void delAll(TrelSnmp::TrelMib& mib) { mib.trelProcessorTableDelAll(); }
};

struct HrStorageTableTraits {
  using Table = TrelSnmp::TrelHrStorageTable;
  static constexpr const char* kName = "trelHrStorageTable";
  static TrelSnmp::TrelHrStorageKey key(uint32_t n) { return {n / 4, n % 4}; }
  static const Table& table(const TrelSnmp::TrelMib& mib) { return mib.trelHrStorageTable(); }
  static auto row(const TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelHrStorageTable(key(n)); }
  using Record = Zavro::Ptr<const TrelSnmp::TrelHrStorageEntry>;
  static Record record(uint32_t n) {
    if (n % 2 == 0)
      return TrelSnmp::TrelHrStorageEntryMountIs(key(n), Snmp::ObjectIdentifier("1.3"), "/", nullptr);
    return TrelSnmp::TrelHrStorageEntryMemIs(key(n), Snmp::ObjectIdentifier("1.3"), "RAM", nullptr);
  }
  static auto is(TrelSnmp::TrelMib& mib, uint32_t, const Record& record) {
    return mib.trelHrStorageTableIs(record);
  }
  template <class Where>
  static auto del(TrelSnmp::TrelMib& mib, const Where& where) {
    return mib.trelHrStorageTableDel(where);
  }
  static void delAll(TrelSnmp::TrelMib& mib) { mib.trelHrStorageTableDelAll(); }
};
