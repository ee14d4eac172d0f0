// The keys of the MIB state object's tables. Their order, unsigned and lexicographic, is the order of an SNMP
// walk.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/kor/TextForm.h"

namespace TrelSnmp {

// Base of the keys of two parts, which Key names with kFirst and kSecond. Every 32-bit value is valid.
template <class Key>
class PairKey {
 public:
  constexpr PairKey() = default;
  constexpr PairKey(uint32_t first, uint32_t second) : first_(first), second_(second) {}

  constexpr auto operator<=>(const PairKey&) const = default;

  // "(<first name>=<n>, <second name>=<n>)"
  std::string text() const {
    return fmt::format("({}={}, {}={})", Key::kFirst, first_, Key::kSecond, second_);
  }
  // The key of that text form; throws Kor::ParseException.
  static Key fromText(std::string_view text) {
    std::string_view rest = text;
    Kor::desAttrPre(rest, Key::kFirst, Kor::AttrPlace::first);
    uint32_t first = Kor::readU32(rest);
    Kor::desAttrPost(rest, Kor::AttrPlace::first);
    Kor::desAttrPre(rest, Key::kSecond, Kor::AttrPlace::last);
    uint32_t second = Kor::readU32(rest);
    Kor::desAttrPost(rest, Kor::AttrPlace::last);
    return {first, second};
  }

  template <class Hash>
  friend Hash AbslHashValue(Hash hash, const PairKey& key) {
    return Hash::combine(std::move(hash), key.first_, key.second_);
  }

  constexpr uint32_t first() const { return first_; }
  constexpr uint32_t second() const { return second_; }

 private:
  uint32_t first_ = 0;
  uint32_t second_ = 0;
};

// Reachability table: the member that reports, and the neighbour that it reports on.
class MemberIdPair final : public PairKey<MemberIdPair> {
 public:
  static constexpr std::string_view kFirst = "firstId";
  static constexpr std::string_view kSecond = "secondId";
  using PairKey::PairKey;
  constexpr uint32_t firstId() const { return first(); }
  constexpr uint32_t secondId() const { return second(); }
};

// Processor table: the member, and the processor's index on it.
class ProcessorKey final : public PairKey<ProcessorKey> {
 public:
  static constexpr std::string_view kFirst = "trelMemberId";
  static constexpr std::string_view kSecond = "processorIndex";
  using PairKey::PairKey;
  constexpr uint32_t trelMemberId() const { return first(); }
  constexpr uint32_t processorIndex() const { return second(); }
};

// Storage table: the member, and the index of the storage area, the same on every member for the same mount
// point.
class TrelHrStorageKey final : public PairKey<TrelHrStorageKey> {
 public:
  static constexpr std::string_view kFirst = "trelMemberId";
  static constexpr std::string_view kSecond = "hrStorageIndex";
  using PairKey::PairKey;
  constexpr uint32_t trelMemberId() const { return first(); }
  constexpr uint32_t hrStorageIndex() const { return second(); }
};

// For the standard library's hashed containers.
struct PairKeyHash {
  template <class Key>
  size_t operator()(const Key& key) const noexcept {
    return std::hash<uint64_t>()(uint64_t{key.first()} << 32U | key.second());
  }
};

}  // namespace TrelSnmp

template <>
struct std::hash<TrelSnmp::MemberIdPair> : TrelSnmp::PairKeyHash {};
template <>
struct std::hash<TrelSnmp::ProcessorKey> : TrelSnmp::PairKeyHash {};
template <>
struct std::hash<TrelSnmp::TrelHrStorageKey> : TrelSnmp::PairKeyHash {};
