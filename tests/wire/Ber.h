// BER as SNMP uses it (RFC 3417, section 8): written and read without net-snmp, so that what is sent can be
// wrong in any way, and what is answered is judged by somebody else.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Wire {

// Octets.
using Bytes = std::string;
using Oid = std::vector<uint32_t>;
// A name, and what follows below it.
Oid joined(Oid name, const Oid& more);

namespace Tag {
inline constexpr uint8_t integer = 0x02;
inline constexpr uint8_t octetString = 0x04;
inline constexpr uint8_t null = 0x05;
inline constexpr uint8_t oid = 0x06;
inline constexpr uint8_t sequence = 0x30;
inline constexpr uint8_t ipAddress = 0x40;
inline constexpr uint8_t counter32 = 0x41;
inline constexpr uint8_t gauge32 = 0x42;
inline constexpr uint8_t timeTicks = 0x43;
inline constexpr uint8_t opaque = 0x44;
inline constexpr uint8_t counter64 = 0x46;
inline constexpr uint8_t noSuchObject = 0x80;
inline constexpr uint8_t noSuchInstance = 0x81;
inline constexpr uint8_t endOfMibView = 0x82;
}  // namespace Tag

// What is read is not what it should be.
class Malformed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The shortest form of a length.
Bytes lengthBytes(size_t length);
Bytes tlv(uint8_t tag, std::string_view content);
// Contents, in the shortest form.
Bytes integerContent(int64_t value);
Bytes unsignedContent(uint64_t value);
// None and one sub-identifier have no encoding of their own: they become no octet, and one octet.
Bytes oidContent(const Oid& oid);

// Requires: the content was read, or made by the above; throws Malformed otherwise.
int64_t integerOf(std::string_view content);
Oid oidOf(std::string_view content);

// Reads one element after the other; throws Malformed.
class Reader {
 public:
  struct Element {
    uint8_t tag;
    std::string_view content;
  };
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  bool done() const { return rest_.empty(); }
  Element next();
  std::string_view next(uint8_t tag);

 private:
  std::string_view rest_;
};

// ".1.3.6.1"
std::string text(const Oid& oid);
std::string hex(std::string_view bytes);

}  // namespace Wire
