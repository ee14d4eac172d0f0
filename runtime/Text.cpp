#include "runtime/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Runtime {
namespace {

// A character at the front of a text.
struct Character {
  size_t length;  // in bytes; 0: the text does not begin with a UTF-8 sequence
  unsigned code;
};

Character firstOf(std::string_view text) {
  // Bits of the lead byte, bytes that follow it, and the smallest code that needs so many.
  struct Form {
    unsigned mask, lead, follow, first;
  };
  constexpr Form kForms[] = {
      {0x80, 0, 0, 0}, {0xe0, 0xc0, 1, 0x80}, {0xf0, 0xe0, 2, 0x800}, {0xf8, 0xf0, 3, 0x10000}};
  auto lead = static_cast<unsigned char>(text[0]);
  const auto* form = std::find_if(std::begin(kForms), std::end(kForms),
                                  [lead](const Form& f) { return (lead & f.mask) == f.lead; });
  if (form == std::end(kForms) || text.size() <= form->follow) return {0, 0};
  unsigned code = lead & ~form->mask;
  for (char c : text.substr(1, form->follow)) {
    auto next = static_cast<unsigned char>(c);
    if ((next & 0xc0) != 0x80) return {0, 0};
    code = code << 6 | (next & 0x3fu);
  }
  bool surrogate = code >= 0xd800 && code <= 0xdfff;
  if (code < form->first || code > 0x10ffff || surrogate) return {0, 0};
  return {form->follow + 1, code};
}

bool isControl(const Character& character) {
  auto within = [&](unsigned first, unsigned last) {
    return character.code >= first && character.code <= last;
  };
  return character.length != 0 &&
         (within(0, 0x1f) || within(0x7f, 0x9f) || within(0x202a, 0x202e) || within(0x2066, 0x2069));
}

// Calls `found` with each character and its bytes until it returns false; returns whether it never did. A
// byte that is not UTF-8 is passed by itself.
template <class Found>
bool all(std::string_view text, Found found) {
  while (!text.empty()) {
    Character character = firstOf(text);
    size_t length = std::max<size_t>(character.length, 1);
    if (!found(character, text.substr(0, length))) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

bool isPlain(std::string_view text) {
  return all(text, [](const Character& character, std::string_view) { return !isControl(character); });
}

bool isUtf8(std::string_view text) {
  return all(text, [](const Character& character, std::string_view) { return character.length != 0; });
}

std::string escaped(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  all(text, [&shown](const Character& character, std::string_view bytes) {
    bool bad = character.length == 0;
    if (!bad && !isControl(character)) {
      shown += bytes;
    } else if (bad || character.code < 0x80) {
      shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes[0]));
    } else {
      shown += fmt::format("\\u{:04x}", character.code);
    }
    return true;
  });
  return shown;
}

std::string shortened(std::string_view text, size_t limit) {
  if (text.size() <= limit) return escaped(text);
  text = text.substr(0, limit);
  // Does not cut within a UTF-8 sequence.
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xc0) == 0x80) text.remove_suffix(1);
  if (!text.empty() && (static_cast<unsigned char>(text.back()) & 0x80) != 0) text.remove_suffix(1);
  return escaped(text) + "...";
}

std::string inQuotes(std::string_view text, size_t limit) {
  return fmt::format("\"{}\"", shortened(text, limit));
}

}  // namespace Runtime
