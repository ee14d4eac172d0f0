// The declaration of a table: names, index and columns, in the order of the OIDs. TableFrame.h and
// TableModule.h register the table, walk its rows and answer requests.
#pragma once

#include <array>
#include <functional>
#include <tuple>
#include <type_traits>

#include "mib-state/TrelMib.h"
#include "platform/snmp/AsnConversions.h"
#include "snmp-modules/NetSnmp.h"

namespace TrelSnmp {

// Size in bytes of the buffer of a conversion, unless the column states another one.
inline constexpr int kBufferSize = 1024;

// A component of a table's index.
struct IndexColumn {
  const char* name;             // such as "veldaTrelBaIfIndex"
  const char* field;            // the key's field in traces
  u_char type;                  // ASN.1 type of its varbind
  const char* label = nullptr;  // in reports; null: the name without the table's prefix
};

// How a report shows what a conversion writes.
enum class ValueFormat : uint8_t { number, signedNumber, text, date, objectIdentifier };

template <class Conversion>
constexpr ValueFormat formatOf() {
  using Input = typename Conversion::Input;
  if (std::is_same_v<Conversion, Snmp::SecondsToAsnDateAndTimeF>) return ValueFormat::date;
  if (std::is_same_v<Input, Zavro::String>) return ValueFormat::text;
  if (std::is_same_v<Input, Snmp::ObjectIdentifier>) return ValueFormat::objectIdentifier;
  return std::is_integral_v<Input> && std::is_signed_v<Input> ? ValueFormat::signedNumber
                                                              : ValueFormat::number;
}

// The name of a value of an enumeration; its number when it has no name.
using ValueName = std::string (*)(uint32_t value);
template <class Conversion>
constexpr ValueName valueName() {
  if constexpr (requires { &Conversion::nameOf; }) {
    return &Conversion::nameOf;
  } else {
    return nullptr;
  }
}

// A served column of a table whose rows are read as Entry.
template <class Entry>
struct Column {
  using Convert = int (*)(const Entry& entry, unsigned char* buffer, int capacity);
  using LengthFits = bool (*)(int length);

  unsigned number;
  const char* name;       // such as "veldaTrelBaIfLocalMemberId"
  u_char type;            // ASN.1 type of the served value
  const char* field;      // the source in failure traces
  const char* operation;  // the conversion in failure traces
  Convert convert;        // returns the bytes written, or a negative number
  ValueFormat format;
  ValueName nameOf;
  int capacity = kBufferSize;
  LengthFits lengthFits = nullptr;  // whether the length of a value is allowed; null allows every length
  bool writable = false;  // writable in HOST-RESOURCES-MIB; a SET is refused here with its own trace

  // A column whose value is that of Source (a function or member function), converted with Conversion.
  template <class Conversion, auto Source>
  static constexpr Column of(unsigned number, const char* name, u_char type, const char* field) {
    return {number,
            name,
            type,
            field,
            Conversion::kName,
            &through<Conversion, Source>,
            formatOf<Conversion>(),
            valueName<Conversion>()};
  }
  constexpr Column within(int capacityOfBuffer, LengthFits fits) const {
    Column limited = *this;
    limited.capacity = capacityOfBuffer;
    limited.lengthFits = fits;
    return limited;
  }
  constexpr Column refusingSet() const {
    Column refusing = *this;
    refusing.writable = true;
    return refusing;
  }

 private:
  template <class Conversion, auto Source>
  static int through(const Entry& entry, unsigned char* buffer, int capacity) {
    typename Conversion::Input value(std::invoke(Source, entry));
    return Conversion()(value, buffer, capacity);
  }
};

// The index components of a key: a number, or a pair of numbers.
template <class Key>
inline constexpr size_t kKeyParts = requires(const Key& key) {
  key.second();
}
? 2 : 1;
template <class Key>
using KeyParts = std::array<uint32_t, kKeyParts<Key>>;

template <class Key>
KeyParts<Key> partsOf(const Key& key) {
  if constexpr (kKeyParts<Key> == 2) {
    return {key.first(), key.second()};
  } else {
    return {key};
  }
}

template <class Key>
Key keyOf(const KeyParts<Key>& parts) {
  return std::make_from_tuple<Key>(parts);
}

// A table's OID: the enterprise's seven sub-identifiers and the four of TableSpec::arc.
using TableOid = std::array<oid, 11>;

template <class TableType, size_t kColumns>
struct TableSpec {
  using Table = TableType;
  using Entry = typename Table::Entry;
  using Key = typename Table::Key;

  const char* name;
  std::array<oid, 4> arc;  // the table's OID below the enterprise
  const char* keyType;     // in traces
  const Table& (*source)(const TrelMib& mib) = [](const TrelMib& mib) -> const Table& {
    return mib.of<TableType>().table();
  };
  std::array<IndexColumn, kKeyParts<Key>> index;
  std::array<Column<Entry>, kColumns> columns;

  constexpr TableOid rootOid() const {
    auto [a, b, c, d] = arc;
    return {1, 3, 6, 1, 4, 1, TREL_ENTERPRISE_NUMBER, a, b, c, d};
  }
  constexpr const Column<Entry>* column(unsigned number) const {
    for (const Column<Entry>& candidate : columns) {
      if (candidate.number == number) return &candidate;
    }
    return nullptr;
  }
  constexpr bool hasWritableColumn() const {
    for (const Column<Entry>& candidate : columns) {
      if (candidate.writable) return true;
    }
    return false;
  }
};

}  // namespace TrelSnmp
