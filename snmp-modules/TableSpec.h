// What a table module states of one of its tables: names, index and columns, in the order of the OIDs. All
// else (registration, walking, answering) is the frame's (TableFrame.h, TableModule.h).
#pragma once

#include <array>
#include <functional>
#include <tuple>
#include <type_traits>

#include "mib-state/TrelMib.h"
#include "platform/snmp/AsnConversions.h"
#include "snmp-modules/NetSnmp.h"

namespace TrelSnmp {

// Conversions get a buffer of this size unless a column says otherwise.
inline constexpr int kBufferSize = 1024;

// A component of a table's index.
struct IndexColumn {
  const char* name;             // of the column, such as "veldaTrelBaIfIndex"
  const char* field;            // of the key, as traces name it
  u_char type;                  // ASN.1 type of its varbind
  const char* label = nullptr;  // in reports; null: the name without the table's
};

// How a report shows what a conversion writes.
enum class Shown : uint8_t { number, signedNumber, text, date, objectIdentifier };

template <class Conversion>
constexpr Shown shownAs() {
  using Input = typename Conversion::Input;
  if (std::is_same_v<Conversion, Snmp::SecondsToAsnDateAndTimeF>) return Shown::date;
  if (std::is_same_v<Input, Zavro::String>) return Shown::text;
  if (std::is_same_v<Input, Snmp::ObjectIdentifier>) return Shown::objectIdentifier;
  return std::is_integral_v<Input> && std::is_signed_v<Input> ? Shown::signedNumber : Shown::number;
}

// The name of an enumeration's value; the number of one that has none.
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
  const char* field;      // what it is read from, as failure traces name it
  const char* operation;  // of the conversion, as failure traces name it
  Convert convert;        // bytes written, or a negative number
  Shown shown;
  ValueName nameOf;
  int capacity = kBufferSize;
  LengthFits lengthFits = nullptr;  // refuses a length that the conversion returned; null takes every length
  bool writable = false;            // where the object comes from; here a SET is refused in its own words

  // The column whose value is Source (a member function or a lambda without captures) put through Conversion.
  template <class Conversion, auto Source>
  static constexpr Column of(unsigned number, const char* name, u_char type, const char* field) {
    return {number,
            name,
            type,
            field,
            Conversion::kName,
            &through<Conversion, Source>,
            shownAs<Conversion>(),
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

// Index components of a key: a number, or a pair of numbers.
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

// As long as the OIDs of all tables: the enterprise's seven sub-identifiers and a table's four.
using TableOid = std::array<oid, 11>;

template <class TableType, size_t kColumns>
struct TableSpec {
  using Table = TableType;
  using Entry = typename Table::Entry;
  using Key = typename Table::Key;

  const char* name;
  std::array<oid, 4> arc;  // below the enterprise's
  const char* keyType;     // as traces name it
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
