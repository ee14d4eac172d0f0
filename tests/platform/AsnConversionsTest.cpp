#include "platform/snmp/AsnConversions.h"

#include "platform/snmp/AgentUptime.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include "tests/support/Thrown.h"

namespace {

using Zavro::Duration;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// The bytes that a conversion writes with the given capacity; nothing when it fails. Checks that it never
// writes beyond what it says.
template <class Conversion>
std::optional<std::string> bytes(const typename Conversion::Input& value, int capacity = 1024) {
  unsigned char buffer[1100];
  std::memset(buffer, 0xA5, sizeof buffer);
  int length = Conversion()(value, buffer, capacity);
  EXPECT_LE(length, std::max(capacity, 0));
  size_t written = length < 0 ? 0 : static_cast<size_t>(length);
  EXPECT_TRUE(std::all_of(buffer + written, std::end(buffer), [](unsigned char b) { return b == 0xA5; }));
  if (length < 0) return std::nullopt;
  return std::string(reinterpret_cast<char*>(buffer), written);
}

template <class Number, class Conversion>
std::optional<Number> number(const typename Conversion::Input& value, int capacity = 1024) {
  auto written = bytes<Conversion>(value, capacity);
  if (!written) return std::nullopt;
  EXPECT_EQ(written->size(), sizeof(Number));
  Number result;
  std::memcpy(&result, written->data(), sizeof result);
  return result;
}

// No conversion writes anything when the buffer is too small, and each is content with just enough.
template <class Conversion>
void expectNeeds(int needed, const typename Conversion::Input& value) {
  for (int capacity : {std::numeric_limits<int>::min(), -1, 0, needed - 1}) {
    if (capacity >= needed) continue;
    EXPECT_EQ(bytes<Conversion>(value, capacity), std::nullopt) << "capacity " << capacity;
  }
  auto exact = bytes<Conversion>(value, needed);
  ASSERT_TRUE(exact);
  EXPECT_EQ(exact->size(), static_cast<size_t>(needed));
}

TEST(AsnConversionsTest, U32_IsWrittenAs32Bits) {
  for (uint32_t value : {0u, 1u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    EXPECT_EQ((number<uint32_t, Snmp::U32ToAsnUnsignedF>(value)), value);
  }
  expectNeeds<Snmp::U32ToAsnUnsignedF>(4, 5u);
}

TEST(AsnConversionsTest, S32_IsWrittenAs32BitsWithItsSign) {
  for (int32_t value : {0, 1, -1, std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::min()}) {
    EXPECT_EQ((number<int32_t, Snmp::S32ToAsnIntegerF>(value)), value);
  }
  expectNeeds<Snmp::S32ToAsnIntegerF>(4, -1);
}

std::optional<uint32_t> ticks(double seconds) {
  return number<uint32_t, Snmp::SecondsToTimeTicksF>(Duration(seconds));
}

TEST(AsnConversionsTest, Seconds_BecomeWholeHundredths) {
  EXPECT_EQ(ticks(0), 0u);
  EXPECT_EQ(ticks(-0.0), 0u);
  EXPECT_EQ(ticks(0.0099), 0u);
  EXPECT_EQ(ticks(0.01), 1u);
  EXPECT_EQ(ticks(0.29), 29u);  // 0.29 * 100 is 28.999999999999996
  EXPECT_EQ(ticks(1.15), 115u);
  EXPECT_EQ(ticks(86400), 8640000u);
  EXPECT_EQ(ticks(42949672.95), 4294967295u);
}

TEST(AsnConversionsTest, TimeTicks_WrapAt32Bits) {
  EXPECT_EQ(ticks(42949672.96), 0u);
  EXPECT_EQ(ticks(42949672.96 + 5), 500u);
  EXPECT_EQ(ticks(3 * 42949672.96 + 1), 100u);
  EXPECT_EQ(ticks(9007199254740992.0), static_cast<uint32_t>(900719925474099200u));
}

TEST(AsnConversionsTest, LengthsThatAreNone_Fail) {
  for (double seconds : {-1e-9, -1.0, -kInfinity, kInfinity, kNan, std::numeric_limits<double>::max()}) {
    EXPECT_EQ(ticks(seconds), std::nullopt) << seconds;
  }
  EXPECT_TRUE(ticks(1e300));
  expectNeeds<Snmp::SecondsToTimeTicksF>(4, Duration(1));
}

class UptimeTest : public testing::Test {
 protected:
  static constexpr double kStart = 1700000000;
  static constexpr double kUptime = 1e8;
  static std::optional<uint32_t> uptime(double utcSeconds) {
    return number<uint32_t, Snmp::UtcSecondsToUptimeTimeTicksF>(Duration(utcSeconds));
  }

 private:
  Zavro::ManualClock clock_{static_cast<uint64_t>(kStart + kUptime) * 1'000'000'000};
  Snmp::AgentUptime uptime_{clock_, [] { return Duration(kUptime); }};
};

TEST_F(UptimeTest, AgentStart_IsTheOriginOfUptime) {
  EXPECT_EQ(uptime(1700000000), 0u);
  EXPECT_EQ(uptime(1700000000.01), 1u);
  EXPECT_EQ(uptime(1700000012.34), 1234u);
}

TEST_F(UptimeTest, TimeBeforeTheAgentStarted_IsZero) {
  for (double utc : {0.0, -5e9, 1699999999.99, -1e300}) EXPECT_EQ(uptime(utc), 0u) << utc;
}

TEST_F(UptimeTest, Uptime_WrapsAt32Bits) {
  EXPECT_EQ(uptime(1700000000 + 42949672.95), 4294967295u);
  EXPECT_EQ(uptime(1700000000 + 42949672.96), 0u);
  EXPECT_EQ(uptime(1700000000 + 42949673.96), 100u);
}

TEST(AsnConversionsTest, UptimeWithoutAnAgent_IsZero) {
  auto uptime = number<uint32_t, Snmp::UtcSecondsToUptimeTimeTicksF>(Duration(1700000012.34));
  EXPECT_EQ(uptime, 0u);
}

TEST_F(UptimeTest, TimesThatAreNone_Fail) {
  for (double utc : {kInfinity, -kInfinity, kNan}) {
    EXPECT_EQ(uptime(utc), std::nullopt) << utc;
  }
  expectNeeds<Snmp::UtcSecondsToUptimeTimeTicksF>(4, Duration(1700000001));
}

// "<year>-<month>-<day>,<hour>:<minute>:<second>.<tenth>,<direction><hours>:<minutes>", as RFC 2579 displays
// it.
std::string date(double utcSeconds) {
  auto octets = bytes<Snmp::SecondsToAsnDateAndTimeF>(Duration(utcSeconds), 11);
  if (!octets) return "fails";
  EXPECT_EQ(octets->size(), 11u);
  auto at = [&](size_t i) { return static_cast<unsigned char>((*octets)[i]); };
  return fmt::format("{}-{}-{},{}:{}:{}.{},{}{}:{}", at(0) * 256 + at(1), at(2), at(3), at(4), at(5), at(6),
                     at(7), static_cast<char>(at(8)), at(9), at(10));
}

TEST(DateAndTimeTest, DaysOfTheCalendar) {
  EXPECT_EQ(date(0), "1970-1-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(951782400), "2000-2-29,0:0:0.0,+0:0");
  EXPECT_EQ(date(951868800), "2000-3-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(1709164800), "2024-2-29,0:0:0.0,+0:0");
  EXPECT_EQ(date(1677628800), "2023-3-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(1700000000), "2023-11-14,22:13:20.0,+0:0");
  EXPECT_EQ(date(1704067199), "2023-12-31,23:59:59.0,+0:0");
  EXPECT_EQ(date(1704067200), "2024-1-1,0:0:0.0,+0:0");
}

TEST(DateAndTimeTest, CenturiesAreLeapYears_OnlyEveryFourth) {
  EXPECT_EQ(date(4107456000), "2100-2-28,0:0:0.0,+0:0");
  EXPECT_EQ(date(4107542400), "2100-3-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(-2203977600), "1900-2-28,0:0:0.0,+0:0");
  EXPECT_EQ(date(-2203891200), "1900-3-1,0:0:0.0,+0:0");
}

TEST(DateAndTimeTest, SecondsBeyond31And32Bits) {
  EXPECT_EQ(date(2147483647), "2038-1-19,3:14:7.0,+0:0");
  EXPECT_EQ(date(2147483648), "2038-1-19,3:14:8.0,+0:0");
  EXPECT_EQ(date(4294967296), "2106-2-7,6:28:16.0,+0:0");
  EXPECT_EQ(date(253402300799.9), "9999-12-31,23:59:59.9,+0:0");
  EXPECT_EQ(date(253402300800), "10000-1-1,0:0:0.0,+0:0");
}

TEST(DateAndTimeTest, TenthsAreCutOff) {
  EXPECT_EQ(date(0.09), "1970-1-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(0.3), "1970-1-1,0:0:0.3,+0:0");
  EXPECT_EQ(date(59.99), "1970-1-1,0:0:59.9,+0:0");
  EXPECT_EQ(date(1700000000.7), "2023-11-14,22:13:20.7,+0:0");
  EXPECT_EQ(date(86399.95), "1970-1-1,23:59:59.9,+0:0");
}

TEST(DateAndTimeTest, TimesBefore1970) {
  EXPECT_EQ(date(-0.05), "1969-12-31,23:59:59.9,+0:0");
  EXPECT_EQ(date(-1), "1969-12-31,23:59:59.0,+0:0");
  EXPECT_EQ(date(-86400), "1969-12-31,0:0:0.0,+0:0");
  EXPECT_EQ(date(-86400.5), "1969-12-30,23:59:59.5,+0:0");
  EXPECT_EQ(date(-11676096000), "1600-1-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(-11670998400), "1600-2-29,0:0:0.0,+0:0");
}

TEST(DateAndTimeTest, YearsFrom0To65535_AndNoOthers) {
  EXPECT_EQ(date(-62167219200), "0-1-1,0:0:0.0,+0:0");
  EXPECT_EQ(date(-62162121600), "0-2-29,0:0:0.0,+0:0");
  EXPECT_EQ(date(-62167219200.1), "fails");
  EXPECT_EQ(date(-62198755200), "fails");  // the year -1
  EXPECT_EQ(date(2005949145599), "65535-12-31,23:59:59.0,+0:0");
  EXPECT_EQ(date(2005949145600), "fails");
  for (double utc : {3e12, -3e12, 1e300, -1e300, kInfinity, -kInfinity, kNan})
    EXPECT_EQ(date(utc), "fails") << utc;
}

TEST(DateAndTimeTest, NeedsElevenOctets) {
  expectNeeds<Snmp::SecondsToAsnDateAndTimeF>(11, Duration(1700000000));
  EXPECT_EQ(bytes<Snmp::SecondsToAsnDateAndTimeF>(Duration(0), 8), std::nullopt);
}

TEST(DateAndTimeTest, EveryDayOfFourCenturies_FollowsTheOneBefore) {
  int year = 1970, month = 1, day = 1;
  for (int64_t at = 0; at < 146097; ++at) {
    ASSERT_EQ(date(static_cast<double>(at * 86400)), fmt::format("{}-{}-{},0:0:0.0,+0:0", year, month, day));
    bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    int days = month == 2                                                ? (leap ? 29 : 28)
               : (month == 4 || month == 6 || month == 9 || month == 11) ? 30
                                                                         : 31;
    if (++day > days) day = 1, ++month;
    if (month > 12) month = 1, ++year;
  }
}

TEST(OctetStringTest, BytesAreCopied_UpToTheCapacity) {
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>("", 0), "");
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>("", 255), "");
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>("", -1), std::nullopt);
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>("/var/log", 255), "/var/log");
  const std::string withNull("a\0b\xff", 4);
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>(withNull, 255), withNull);
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>(std::string(255, 'x'), 255), std::string(255, 'x'));
  EXPECT_EQ(bytes<Snmp::StringToAsnOctetStringF>(std::string(256, 'x'), 255), std::nullopt);
  expectNeeds<Snmp::StringToAsnOctetStringF>(8, "/var/log");
}

TEST(AsnOidTest, SubIdentifiers_AreWrittenAsNetSnmpHoldsThem) {
  auto written = bytes<Snmp::SnmpObjectIdentifierToAsnOidF>(Snmp::ObjectIdentifier("1.3.6.4294967295"));
  ASSERT_TRUE(written);
  ASSERT_EQ(written->size(), 4 * sizeof(oid));
  oid ids[4];
  std::memcpy(ids, written->data(), sizeof ids);
  EXPECT_THAT(ids, testing::ElementsAre(1, 3, 6, 4294967295u));
  expectNeeds<Snmp::SnmpObjectIdentifierToAsnOidF>(2 * sizeof(oid), Snmp::ObjectIdentifier("0.0"));
}

TEST(AsnOidTest, LongestIdentifier_FillsTheBufferOfTheHandlers) {
  std::string dotted = "1";
  for (int i = 1; i < 128; ++i) dotted += ".3";
  expectNeeds<Snmp::SnmpObjectIdentifierToAsnOidF>(1024, Snmp::ObjectIdentifier(dotted));
  EXPECT_EQ(bytes<Snmp::SnmpObjectIdentifierToAsnOidF>(Snmp::ObjectIdentifier(dotted + ".3")), std::nullopt);
}

TEST(AsnOidTest, TextThatSpellsNone_Fails) {
  for (const char* bad : {"", "1", "sysDescr", "1.3.x", "3.1"}) {
    EXPECT_EQ(bytes<Snmp::SnmpObjectIdentifierToAsnOidF>(Snmp::ObjectIdentifier(bad)), std::nullopt) << bad;
  }
}

TEST(AsnUnsignedToU32Test, Range) {
  auto convert = [](long value) { return Snmp::AsnUnsignedToU32()(&value); };
  for (long value : {0L, 1L, 2147483647L, 2147483648L, 4294967295L}) {
    EXPECT_EQ(convert(value), static_cast<uint32_t>(value));
  }
  auto error = [&](long value) { return thrown<Zavro::RangeException>([&] { convert(value); }); };
  EXPECT_EQ(error(-1), "-1 does not fit an unsigned 32-bit number");
  EXPECT_EQ(error(4294967296), "4294967296 does not fit an unsigned 32-bit number");
  EXPECT_EQ(error(std::numeric_limits<long>::min()),
            "-9223372036854775808 does not fit an unsigned 32-bit number");
  EXPECT_EQ(error(std::numeric_limits<long>::max()),
            "9223372036854775807 does not fit an unsigned 32-bit number");
}

TEST(SubstituteTest, StandsInWhileItLives_NestedOnesToo) {
  using Conversion = Snmp::U32ToAsnUnsignedF;
  unsigned char buffer[8];
  auto result = [&] { return Conversion()(5, buffer, sizeof buffer); };
  {
    Snmp::ConversionOverride<Conversion> failing([](const uint32_t&, unsigned char*, int) { return -1; });
    EXPECT_EQ(result(), -1);
    {
      Snmp::ConversionOverride<Conversion> nine([](const uint32_t&, unsigned char*, int) { return 9; });
      EXPECT_EQ(result(), 9);
    }
    EXPECT_EQ(result(), -1);
    EXPECT_EQ(Snmp::S32ToAsnIntegerF()(5, buffer, sizeof buffer), 4);
  }
  EXPECT_EQ(result(), 4);
}

}  // namespace
