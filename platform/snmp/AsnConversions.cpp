#include "platform/snmp/AsnConversions.h"

#include <fmt/format.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "platform/snmp/AgentUptime.h"

namespace Snmp {
namespace {

constexpr int kFailed = -1;
constexpr double kTicksPerSecond = 100;
constexpr double kTicksModulus = 4294967296.0;

int writeBytes(const void* bytes, size_t count, unsigned char* buffer, int capacity) {
  if (capacity < 0 || count > static_cast<size_t>(capacity)) return kFailed;
  if (count != 0) std::memcpy(buffer, bytes, count);
  return static_cast<int>(count);
}

int writeU32(uint32_t value, unsigned char* buffer, int capacity) {
  return writeBytes(&value, sizeof value, buffer, capacity);
}

// Requires: seconds is not negative.
int writeTimeTicks(double seconds, unsigned char* buffer, int capacity) {
  // The addend makes up for decimal fractions whose binary form is slightly too small.
  double ticks = std::floor(seconds * kTicksPerSecond + 1e-3);
  if (!std::isfinite(ticks)) return kFailed;
  return writeU32(static_cast<uint32_t>(std::fmod(ticks, kTicksModulus)), buffer, capacity);
}

struct CivilDate {
  int64_t year;
  int64_t month;  // 1 to 12
  int64_t day;    // 1 to 31
};

// The Gregorian date of a day counted from 1970-01-01. std::chrono's calendar ends with the year 32767,
// DateAndTime with 65535. Years are counted from 1 March, so that the leap day is the last of its year; 400
// of them make an era of 146097 days.
CivilDate civilDate(int64_t day) {
  constexpr int64_t kEraDays = 146097;
  constexpr int64_t kDaysToEpoch = 719468;  // from 0000-03-01
  int64_t shifted = day + kDaysToEpoch;
  int64_t era = (shifted < 0 ? shifted - kEraDays + 1 : shifted) / kEraDays;
  int64_t ofEra = shifted - era * kEraDays;
  int64_t yearOfEra = (ofEra - ofEra / 1460 + ofEra / 36524 - ofEra / 146096) / 365;
  int64_t ofYear = ofEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  int64_t monthFromMarch = (5 * ofYear + 2) / 153;
  int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  return {era * 400 + yearOfEra + (month <= 2 ? 1 : 0), month, ofYear - (153 * monthFromMarch + 2) / 5 + 1};
}

}  // namespace

int U32ToAsnUnsignedF::convert(const uint32_t& value, unsigned char* buffer, int capacity) {
  return writeU32(value, buffer, capacity);
}

int S32ToAsnIntegerF::convert(const int32_t& value, unsigned char* buffer, int capacity) {
  return writeBytes(&value, sizeof value, buffer, capacity);
}

int SecondsToTimeTicksF::convert(const Zavro::Duration& value, unsigned char* buffer, int capacity) {
  if (value.seconds() < 0) return kFailed;
  return writeTimeTicks(value.seconds(), buffer, capacity);
}

int UtcSecondsToUptimeTimeTicksF::convert(const Zavro::Duration& value, unsigned char* buffer, int capacity) {
  if (!std::isfinite(value.seconds())) return kFailed;
  AgentUptime* uptime = AgentUptime::instance();
  return writeTimeTicks(uptime != nullptr ? uptime->at(value).seconds() : 0, buffer, capacity);
}

int SecondsToAsnDateAndTimeF::convert(const Zavro::Duration& value, unsigned char* buffer, int capacity) {
  constexpr int64_t kTenthsPerDay = 864000;
  // Beyond the year 65535, and far from overflowing the calendar arithmetic.
  constexpr double kBound = 3e12;
  if (!(std::fabs(value.seconds()) < kBound)) return kFailed;
  auto tenths = static_cast<int64_t>(std::floor(value.seconds() * 10 + 1e-4));
  int64_t day = (tenths < 0 ? tenths - kTenthsPerDay + 1 : tenths) / kTenthsPerDay;
  int64_t ofDay = tenths - day * kTenthsPerDay;
  CivilDate date = civilDate(day);
  if (date.year < 0 || date.year > std::numeric_limits<uint16_t>::max()) return kFailed;
  auto octet = [](int64_t number) { return static_cast<unsigned char>(number); };
  std::array<unsigned char, 11> octets = {octet(date.year >> 8),
                                          octet(date.year & 0xff),
                                          octet(date.month),
                                          octet(date.day),
                                          octet(ofDay / 36000),
                                          octet(ofDay / 600 % 60),
                                          octet(ofDay / 10 % 60),
                                          octet(ofDay % 10),
                                          '+',
                                          0,
                                          0};
  return writeBytes(octets.data(), octets.size(), buffer, capacity);
}

int StringToAsnOctetStringF::convert(const Zavro::String& value, unsigned char* buffer, int capacity) {
  return writeBytes(value.data(), value.size(), buffer, capacity);
}

int SnmpObjectIdentifierToAsnOidF::convert(const ObjectIdentifier& value, unsigned char* buffer,
                                           int capacity) {
  auto ids = value.subIds();
  if (!ids) return kFailed;
  std::vector<oid> oids(ids->begin(), ids->end());
  return writeBytes(oids.data(), oids.size() * sizeof(oid), buffer, capacity);
}

uint32_t AsnUnsignedToU32::operator()(const long* value) const {
  if (*value < 0 || *value > static_cast<long>(std::numeric_limits<uint32_t>::max())) {
    throw Zavro::RangeException(fmt::format("{} does not fit an unsigned 32-bit number", *value));
  }
  return static_cast<uint32_t>(*value);
}

}  // namespace Snmp
