// Conversions from the platform's values to net-snmp's varbinds, and back.
//
// Each conversion writes one value into the caller's buffer of `capacity` bytes and returns the number of
// bytes written, or a negative number when the value or the capacity does not allow it; nothing is written
// then. Numbers are written as 32-bit integers in the machine's byte order, as net-snmp's varbinds hold them.
#pragma once

#include <cstdint>

#include "platform/kor/EnumNames.h"
#include "platform/snmp/ObjectIdentifier.h"
#include "platform/zavro/Duration.h"
#include "platform/zavro/Exception.h"
#include "platform/zavro/String.h"

namespace Snmp {

// Base of the conversions. While a ConversionOverride exists it replaces the implementation: tests make
// conversions fail with it. Self::kName is the conversion's name in traces.
template <class Self, class InputType>
class AsnConversion {
 public:
  using Input = InputType;
  using Function = int (*)(const Input& value, unsigned char* buffer, int capacity);
  int operator()(const Input& value, unsigned char* buffer, int capacity) const {
    Function function = substitute() != nullptr ? substitute() : &Self::convert;
    return function(value, buffer, capacity);
  }
  static Function& substitute() {
    static Function function = nullptr;
    return function;
  }
};

template <class Conversion>
class ConversionOverride {
 public:
  explicit ConversionOverride(typename Conversion::Function function) : before_(Conversion::substitute()) {
    Conversion::substitute() = function;
  }
  ~ConversionOverride() { Conversion::substitute() = before_; }
  ConversionOverride(const ConversionOverride&) = delete;
  ConversionOverride& operator=(const ConversionOverride&) = delete;

 private:
  typename Conversion::Function before_;
};

// INTEGER, Gauge32, Unsigned32 (RFC 2578, section 7.1): the value's 32 bits.
struct U32ToAsnUnsignedF : AsnConversion<U32ToAsnUnsignedF, uint32_t> {
  static constexpr const char* kName = "U32ToAsnUnsigned";
  static int convert(const uint32_t& value, unsigned char* buffer, int capacity);
};

// INTEGER.
struct S32ToAsnIntegerF : AsnConversion<S32ToAsnIntegerF, int32_t> {
  static constexpr const char* kName = "S32ToAsnInteger";
  static int convert(const int32_t& value, unsigned char* buffer, int capacity);
};

// INTEGER of an enumeration whose values have names: 1 for the first one, since SNMP enumerations begin with
// 1; 0 for a value without a name.
template <Kor::Named Enum>
struct EnumToAsnUnsignedF {
  using Input = Enum;
  static constexpr const char* kName = "EnumToAsnUnsigned";
  int operator()(const Enum& value, unsigned char* buffer, int capacity) const {
    auto ordinal = static_cast<uint32_t>(value);
    return U32ToAsnUnsignedF()(ordinal < Kor::kNames<Enum>.size() ? ordinal + 1 : 0, buffer, capacity);
  }
  // The name of the served number; the number itself when it has none.
  static std::string nameOf(uint32_t number) {
    if (number == 0) return std::string(Kor::kUnrecognized);
    return number > Kor::kNames<Enum>.size() ? std::to_string(number)
                                             : Kor::nameOf(static_cast<Enum>(number - 1));
  }
};

// TimeTicks (RFC 2578, section 7.1.8): hundredths of a second, modulo 2^32. A negative or non-finite length
// fails.
struct SecondsToTimeTicksF : AsnConversion<SecondsToTimeTicksF, Zavro::Duration> {
  static constexpr const char* kName = "SecondsToTimeTicks";
  static int convert(const Zavro::Duration& value, unsigned char* buffer, int capacity);
};

// TimeStamp (RFC 2579): the agent's uptime at a point in UTC time, in hundredths of a second, modulo 2^32; 0
// when there is no AgentUptime. A non-finite time fails.
struct UtcSecondsToUptimeTimeTicksF : AsnConversion<UtcSecondsToUptimeTimeTicksF, Zavro::Duration> {
  static constexpr const char* kName = "UtcSecondsToUptimeTimeTicks";
  static int convert(const Zavro::Duration& value, unsigned char* buffer, int capacity);
};

// DateAndTime (RFC 2579): 11 octets, in UTC with the offset +00:00. A time before the year 0 or after the
// year 65535 fails, as does a capacity below 11.
struct SecondsToAsnDateAndTimeF : AsnConversion<SecondsToAsnDateAndTimeF, Zavro::Duration> {
  static constexpr const char* kName = "SecondsToAsnDateAndTime";
  static int convert(const Zavro::Duration& value, unsigned char* buffer, int capacity);
};

// OCTET STRING: the bytes; fails when they are more than the capacity.
struct StringToAsnOctetStringF : AsnConversion<StringToAsnOctetStringF, Zavro::String> {
  static constexpr const char* kName = "StringToAsnOctetString";
  static int convert(const Zavro::String& value, unsigned char* buffer, int capacity);
};

// OBJECT IDENTIFIER: the sub-identifiers as net-snmp `oid` values, the result being their length in bytes.
// Text that is no object identifier fails.
struct SnmpObjectIdentifierToAsnOidF : AsnConversion<SnmpObjectIdentifierToAsnOidF, ObjectIdentifier> {
  static constexpr const char* kName = "SnmpObjectIdentifierToAsnOid";
  static int convert(const ObjectIdentifier& value, unsigned char* buffer, int capacity);
};

// An index varbind's integer value as U32; throws Zavro::RangeException when it is below 0 or above 2^32 - 1.
struct AsnUnsignedToU32 {
  uint32_t operator()(const long* value) const;
};

}  // namespace Snmp
