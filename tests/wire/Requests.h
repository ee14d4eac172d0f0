// Random messages of a manager that means no harm but knows no bounds: well-formed, and about anything in and
// around the tables.
#pragma once

#include "tests/support/Random.h"
#include "tests/wire/Model.h"

namespace Wire {

// Values of every type, also of some that SNMP does not have.
const std::vector<Value>& valuesOfEveryType();

class Requests {
 public:
  explicit Requests(uint64_t seed) : random_(seed), nextId_(random_.any()) {}

  // About the tables as they are now. Never the same request id twice in 2^32 messages.
  Message next(const Tree& tree);

 private:
  int64_t requestId();
  void addBounds(Pdu& pdu);
  Oid name(const Tree& tree);
  Oid around(const Tree& tree);
  Oid outside();
  Oid prefix();
  Oid stretched(Oid name, size_t length);
  uint32_t subId(uint32_t near);

  Support::Random random_;
  uint64_t nextId_;
};

}  // namespace Wire
