#include "tests/wire/Ber.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace Wire {
namespace {

constexpr uint8_t kLongForm = 0x80;
constexpr uint8_t kMore = 0x80;

char octet(uint64_t value) { return static_cast<char>(value & 0xff); }

void appendBase128(Bytes& bytes, uint64_t value) {
  Bytes reversed(1, octet(value & 0x7f));
  while ((value >>= 7) != 0) reversed += octet((value & 0x7f) | kMore);
  bytes.append(reversed.rbegin(), reversed.rend());
}

size_t lengthOf(std::string_view& rest) {
  if (rest.empty()) throw Malformed("no length");
  auto first = static_cast<uint8_t>(rest.front());
  rest.remove_prefix(1);
  if (first < kLongForm) return first;
  size_t count = first & ~kLongForm;
  if (count == 0 || count > sizeof(size_t) || count > rest.size()) throw Malformed("unusable length");
  size_t length = 0;
  for (char c : rest.substr(0, count)) length = length << 8 | static_cast<uint8_t>(c);
  rest.remove_prefix(count);
  return length;
}

}  // namespace

Oid joined(Oid name, const Oid& more) {
  name.insert(name.end(), more.begin(), more.end());
  return name;
}

Bytes lengthBytes(size_t length) {
  if (length < kLongForm) return Bytes(1, octet(length));
  Bytes reversed;
  for (size_t rest = length; rest != 0; rest >>= 8) reversed += octet(rest);
  Bytes bytes(1, octet(kLongForm | reversed.size()));
  return bytes.append(reversed.rbegin(), reversed.rend());
}

Bytes tlv(uint8_t tag, std::string_view content) {
  Bytes bytes(1, octet(tag));
  bytes += lengthBytes(content.size());
  return bytes.append(content);
}

Bytes integerContent(int64_t value) {
  Bytes reversed;
  do {
    reversed += octet(static_cast<uint64_t>(value));
    value >>= 8;
  } while (value != (static_cast<signed char>(reversed.back()) < 0 ? -1 : 0));
  return {reversed.rbegin(), reversed.rend()};
}

Bytes unsignedContent(uint64_t value) {
  Bytes reversed;
  do {
    reversed += octet(value);
    value >>= 8;
  } while (value != 0);
  if (static_cast<signed char>(reversed.back()) < 0) reversed += '\0';
  return {reversed.rbegin(), reversed.rend()};
}

Bytes oidContent(const Oid& oid) {
  Bytes bytes;
  if (oid.empty()) return bytes;
  appendBase128(bytes, uint64_t{oid[0]} * 40 + (oid.size() > 1 ? oid[1] : 0));
  for (size_t i = 2; i < oid.size(); ++i) appendBase128(bytes, oid[i]);
  return bytes;
}

int64_t integerOf(std::string_view content) {
  if (content.empty() || content.size() > sizeof(int64_t)) throw Malformed("integer of a wrong length");
  uint64_t value = static_cast<signed char>(content.front()) < 0 ? ~uint64_t{0} : 0;
  for (char c : content) value = value << 8 | static_cast<uint8_t>(c);
  return static_cast<int64_t>(value);
}

Oid oidOf(std::string_view content) {
  Oid oid;
  uint64_t id = 0;
  bool inside = false;
  for (char c : content) {
    auto byte = static_cast<uint8_t>(c);
    id = id << 7 | (byte & 0x7f);
    inside = (byte & kMore) != 0;
    if (id > UINT32_MAX) throw Malformed("sub-identifier beyond 32 bits");
    if (inside) continue;
    if (oid.empty()) {
      uint64_t root = std::min<uint64_t>(id / 40, 2);
      oid.push_back(static_cast<uint32_t>(root));
      id -= root * 40;
    }
    oid.push_back(static_cast<uint32_t>(id));
    id = 0;
  }
  if (inside) throw Malformed("unfinished sub-identifier");
  return oid;
}

Reader::Element Reader::next() {
  if (rest_.empty()) throw Malformed("an element is missing");
  auto tag = static_cast<uint8_t>(rest_.front());
  rest_.remove_prefix(1);
  size_t length = lengthOf(rest_);
  if (length > rest_.size())
    throw Malformed(fmt::format("{} octets where {} should be", rest_.size(), length));
  Element element{tag, rest_.substr(0, length)};
  rest_.remove_prefix(length);
  return element;
}

std::string_view Reader::next(uint8_t tag) {
  Element element = next();
  if (element.tag == tag) return element.content;
  throw Malformed(fmt::format("tag {:02x} where {:02x} should be", element.tag, tag));
}

std::string text(const Oid& oid) { return fmt::format(".{}", fmt::join(oid, ".")); }

std::string hex(std::string_view bytes) {
  std::string digits;
  for (char c : bytes) digits += fmt::format("{:02x}", static_cast<uint8_t>(c));
  return digits;
}

}  // namespace Wire
