// Messages of SNMPv1 and v2c (RFC 1157, RFC 3416), as a manager writes and reads them.
#pragma once

#include "tests/wire/Ber.h"

namespace Wire {

enum class PduType : uint8_t {
  get = 0xa0,
  getNext = 0xa1,
  response = 0xa2,
  set = 0xa3,
  getBulk = 0xa5,
  inform = 0xa6,
  trap = 0xa7,
  report = 0xa8,
};

enum class ErrorStatus : int64_t {
  noError = 0,
  tooBig = 1,
  noSuchName = 2,
  badValue = 3,
  genErr = 5,
  noAccess = 6,
  wrongType = 7,
  noCreation = 11,
  notWritable = 17,
};

struct Value {
  uint8_t tag = Tag::null;
  Bytes content;
  bool operator==(const Value&) const = default;
};
Value integerValue(int64_t value);
Value unsignedValue(uint8_t tag, uint64_t value);
Value octetsValue(std::string_view octets);
Value oidValue(const Oid& oid);

struct Varbind {
  Oid name;
  Value value;
  bool operator==(const Varbind&) const = default;
};

struct Pdu {
  PduType type = PduType::get;
  int64_t requestId = 0;
  int64_t first = 0;   // the error status; non-repeaters of a GETBULK
  int64_t second = 0;  // the error index; max-repetitions of a GETBULK
  std::vector<Varbind> varbinds;
  bool operator==(const Pdu&) const = default;
};

enum class Version : int64_t { v1 = 0, v2c = 1, v3 = 3 };

struct Message {
  Version version = Version::v2c;
  Bytes community;
  Pdu pdu;
  bool operator==(const Message&) const = default;
};

Bytes encode(const Pdu& pdu);
Bytes encode(const Message& message);
// Throw Malformed, also for what is left over.
Pdu decodePdu(std::string_view bytes);
Message decode(std::string_view bytes);

// The integer of a message's PDU that ties an answer to its request; throws Malformed.
int64_t requestIdOf(std::string_view bytes);

// As somebody who looks for a fault wants to see it: a line for the header, and one for each varbind.
std::string text(const Pdu& pdu);
std::string text(const Message& message);

}  // namespace Wire
