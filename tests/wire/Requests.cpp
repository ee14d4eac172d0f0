#include "tests/wire/Requests.h"

#include <algorithm>

namespace Wire {
namespace {

constexpr uint64_t kMaxVarbinds = 30;

}  // namespace

const std::vector<Value>& valuesOfEveryType() {
  static const std::vector<Value> values = {
      integerValue(1),
      integerValue(-2147483648),
      octetsValue(""),
      octetsValue(Bytes("\x07\xe8\x0b\x0c\x0d\x0e\x0f\x05", 8)),
      octetsValue(Bytes(300, 'x')),
      {Tag::null, {}},
      oidValue({1, 3, 6, 1}),
      {Tag::ipAddress, Bytes("\x7f\x00\x00\x01", 4)},
      unsignedValue(Tag::counter32, 4294967295),
      unsignedValue(Tag::gauge32, 2147483648),
      unsignedValue(Tag::timeTicks, 0),
      {Tag::opaque, "\x04\x01x"},
      unsignedValue(Tag::counter64, ~uint64_t{0}),
      // BIT STRING, NsapAddress and UInteger32 of SNMP's past.
      {0x03, Bytes("\0\x80", 2)},
      {0x45, "nsap"},
      unsignedValue(0x47, 7),
      {Tag::noSuchObject, {}},
      {Tag::noSuchInstance, {}},
      {Tag::endOfMibView, {}},
      // BOOLEAN, REAL, ENUMERATED, UTF8String, SEQUENCE, and tags without a meaning.
      {0x01, "\x01"},
      {0x09, ""},
      {0x0a, "\x01"},
      {0x0c, "x"},
      {0x30, ""},
      {0x48, "x"},
      {0x83, ""},
      {0xbe, ""},
  };
  return values;
}

Message Requests::next(const Tree& tree) {
  static const std::vector<PduType> kTypes = {
      PduType::get,     PduType::get,     PduType::get,     PduType::getNext, PduType::getNext,
      PduType::getNext, PduType::getBulk, PduType::getBulk, PduType::getBulk, PduType::set};
  Message message;
  message.version = random_.percent(15) ? Version::v1 : Version::v2c;
  message.community = random_.percent(70) ? kReader : kWriter;
  if (random_.below(500) == 0) message.community = "stranger";
  message.pdu.type = random_.of(kTypes);
  message.pdu.requestId = requestId();
  addBounds(message.pdu);
  uint64_t count = random_.percent(1) ? 0 : random_.percent(40) ? 1 : random_.from(1, kMaxVarbinds);
  // What a manager gives as value where none is needed; now and then there is one.
  bool withValues = message.pdu.type == PduType::set || random_.percent(5);
  for (; count > 0; --count) {
    Value value = withValues ? random_.of(valuesOfEveryType()) : Value{};
    // Most SETs would end with the first value that cannot be one.
    if (withValues && random_.percent(80)) value = integerValue(random_.edge());
    message.pdu.varbinds.push_back({name(tree), value});
  }
  return message;
}

// An odd factor visits all 32-bit numbers before it comes back.
int64_t Requests::requestId() { return static_cast<int32_t>(static_cast<uint32_t>(nextId_++ * 2654435761u)); }

void Requests::addBounds(Pdu& pdu) {
  static const std::vector<int64_t> kNonRepeaters = {
      0, 0, 0, 1, 1, 2, 3, 10, 29, 30, 31, 100, 2147483647, 2147483648, 4294967295, -1, -2147483648};
  static const std::vector<int64_t> kRepetitions = {
      0,  1,  1,   2,   3,    3,          5,  10,          10,         33,        34,
      50, 99, 100, 101, 1000, 2147483647, -1, -2147483648, 2147483648, 4294967295};
  bool bulk = pdu.type == PduType::getBulk;
  // What no other request has to say there, and what nobody has to listen to.
  if (!bulk && random_.percent(95)) return;
  pdu.first = random_.of(kNonRepeaters);
  pdu.second = random_.of(kRepetitions);
}

Oid Requests::name(const Tree& tree) {
  uint32_t kind = random_.below(100);
  Oid name = kind < 80 ? around(tree) : kind < 90 ? prefix() : outside();
  // As long as a name can be, or one more or less.
  if (random_.percent(2)) name = stretched(name, random_.from(127, 128));
  if (random_.below(2000) == 0) name = stretched(name, 129);
  return name;
}

// An instance, or something near one.
Oid Requests::around(const Tree& tree) {
  const TableShape& table = random_.of(tableShapes());
  Oid name = joined(table.root, {1, random_.below(table.lastColumn + 2)});
  for (size_t i = 0; i < table.indexes; ++i) name.push_back(random_.edge());
  if (!tree.empty() && random_.percent(85)) {
    name = random_.of(tree).first;
  }
  if (random_.percent(50)) return name;
  size_t root = tableShapes()[0].root.size();
  size_t at = random_.from(root, name.size() - 1);
  switch (random_.below(4)) {
    case 0:
      name.resize(random_.from(root, name.size() - 1));
      break;
    case 1:
      for (uint64_t count = random_.from(1, 4); count > 0; --count) name.push_back(random_.edge());
      break;
    case 2:
      name.back() = subId(name.back());
      break;
    default:
      name[at] = subId(name[at]);
  }
  return name;
}

// Up to a table, an entry or a column, and a step aside.
Oid Requests::prefix() {
  const TableShape& table = random_.of(tableShapes());
  Oid name = joined(table.root, {1, random_.below(table.lastColumn + 2), 0});
  name.resize(random_.from(1, name.size()));
  // The first two are encoded as one.
  if (name.size() > 2 && random_.percent(50)) name.back() = subId(name.back());
  return name;
}

Oid Requests::outside() {
  static const Oid kEnterprise(tableShapes()[0].root.begin(), tableShapes()[0].root.begin() + 7);
  static const std::vector<Oid> kOutside = {
      {},
      {0},
      {1},
      {2},
      {0, 0},
      {0, 39},
      {1, 39},
      {2, 4294967215},
      {2, 5, 4294967295},
      {1, 3, 6, 1, 2, 1, 1, 1, 0},
      {1, 3, 6, 1, 2, 1, 1, 3, 0},
      {1, 3, 6, 1, 2, 1, 1, 9, 1, 2, 1},
      {1, 3, 6, 1, 2, 1, 25, 1, 1, 0},
      {1, 3, 6, 1, 6, 3, 10, 2, 1, 1, 0},
      {1, 3, 6, 1, 4, 1, kEnterprise.back() - 1, 3, 40, 1, 1, 1, 2, 1},
      {1, 3, 6, 1, 4, 1, kEnterprise.back() + 1},
      joined(kEnterprise, {3}),
      joined(kEnterprise, {3, 39, 4294967295}),
      joined(kEnterprise, {3, 40}),
      joined(kEnterprise, {3, 40, 0}),
      joined(kEnterprise, {3, 40, 1, 3, 1, 2, 1}),
      joined(kEnterprise, {3, 41}),
      joined(kEnterprise, {3, 41, 1, 0}),
      joined(kEnterprise, {3, 41, 1, 4}),
      joined(kEnterprise, {3, 41, 2}),
      joined(kEnterprise, {3, 42}),
      joined(kEnterprise, {4294967295}),
  };
  return random_.of(kOutside);
}

Oid Requests::stretched(Oid name, size_t length) {
  if (name.size() < 2) name = {1, 3};
  while (name.size() < length) name.push_back(random_.edge());
  return name;
}

uint32_t Requests::subId(uint32_t near) {
  switch (random_.below(4)) {
    case 0:
      return near + 1;
    case 1:
      return near - 1;
    default:
      return random_.edge();
  }
}

}  // namespace Wire
