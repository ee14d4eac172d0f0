#include "platform/kor/TextForm.h"

#include <charconv>
#include <cmath>

namespace Kor {
namespace {

[[noreturn]] void malformed(std::string_view found, std::string_view expected) {
  throw ParseException(fmt::format("found \"{}\", expected {}", found, expected));
}

void skipBlanks(std::string_view& rest) {
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
}

bool consume(std::string_view& rest, std::string_view token) {
  if (!rest.starts_with(token)) return false;
  rest.remove_prefix(token.size());
  return true;
}

}  // namespace

uint32_t u32FromText(std::string_view text) {
  std::string_view rest = text;
  uint32_t value = readU32(rest);
  if (!rest.empty()) malformed(text, "an unsigned 32-bit number");
  return value;
}

double doubleFromText(std::string_view text) {
  double value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    malformed(text, "a decimal number");
  }
  return value;
}

void desAttrPre(std::string_view& rest, std::string_view name, AttrPlace place) {
  skipBlanks(rest);
  if (place == AttrPlace::first && !consume(rest, "(")) malformed(rest, "\"(\"");
  skipBlanks(rest);
  std::string_view found = rest;
  if (!consume(rest, name) || !consume(rest, "=")) malformed(found, fmt::format("\"{}=\"", name));
}

uint32_t readU32(std::string_view& rest) {
  uint32_t value = 0;
  auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
  if (error != std::errc()) malformed(rest, "an unsigned 32-bit number");
  rest.remove_prefix(static_cast<size_t>(end - rest.data()));
  return value;
}

void desAttrPost(std::string_view& rest, AttrPlace place) {
  skipBlanks(rest);
  bool last = place == AttrPlace::last;
  if (!consume(rest, last ? ")" : ",")) malformed(rest, last ? "\")\"" : "\",\"");
  skipBlanks(rest);
  if (last && !rest.empty()) malformed(rest, "nothing behind \")\"");
}

}  // namespace Kor
