// The five tables under one face, so that what holds for all of them is tested once for each: row number n
// has a key that grows with n, and records of its own.
#pragma once

#include <string>

#include "TrelMib.h"

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
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelIfTableIs(key(n), n, n + 1); }
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
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n) {
    auto state =
        Zavro::makePtr<const Trel::ReachabilityState>(Trel::ReachabilityState::reachable, std::nullopt, n);
    return mib.trelReachabilityTableIs(key(n), state, nullptr);
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
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n) {
    return mib.trelHrSystemTableIs(key(n), Zavro::makePtr<HostResources::HostResources>(std::to_string(n)));
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
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n) {
    return mib.trelProcessorTableIs(key(n),
                                    Zavro::makePtr<HostResources::Processor>(static_cast<int16_t>(n)));
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
  static Zavro::Ptr<const TrelSnmp::TrelHrStorageEntry> entry(uint32_t n) {
    if (n % 2 == 0)
      return TrelSnmp::TrelHrStorageEntryMountIs(key(n), Snmp::ObjectIdentifier("1.3"), "/", nullptr);
    return TrelSnmp::TrelHrStorageEntryMemIs(key(n), Snmp::ObjectIdentifier("1.3"), "RAM", nullptr);
  }
  static auto is(TrelSnmp::TrelMib& mib, uint32_t n) { return mib.trelHrStorageTableIs(entry(n)); }
  template <class Where>
  static auto del(TrelSnmp::TrelMib& mib, const Where& where) {
    return mib.trelHrStorageTableDel(where);
  }
  static void delAll(TrelSnmp::TrelMib& mib) { mib.trelHrStorageTableDelAll(); }
};
