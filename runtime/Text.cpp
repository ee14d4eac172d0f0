#include "runtime/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Runtime {
namespace {

bool isControl(char c) {
  auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

bool isPlain(std::string_view text) { return std::none_of(text.begin(), text.end(), isControl); }

bool isUtf8(std::string_view text) {
  // By the lead byte's leading bits: how many bytes follow, and the first code that needs so many.
  struct Form {
    unsigned mask, lead, follow, first;
  };
  constexpr Form kForms[] = {
      {0x80, 0, 0, 0}, {0xe0, 0xc0, 1, 0x80}, {0xf0, 0xe0, 2, 0x800}, {0xf8, 0xf0, 3, 0x10000}};
  for (size_t at = 0; at < text.size();) {
    auto lead = static_cast<unsigned char>(text[at++]);
    const auto* form = std::find_if(std::begin(kForms), std::end(kForms),
                                    [lead](const Form& f) { return (lead & f.mask) == f.lead; });
    if (form == std::end(kForms) || text.size() - at < form->follow) return false;
    unsigned code = lead & ~form->mask;
    for (unsigned i = 0; i < form->follow; ++i) {
      auto next = static_cast<unsigned char>(text[at++]);
      if ((next & 0xc0) != 0x80) return false;
      code = code << 6 | (next & 0x3fu);
    }
    bool surrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < form->first || code > 0x10ffff || surrogate) return false;
  }
  return true;
}

std::string shortened(std::string_view text, size_t limit) {
  bool cut = text.size() > limit;
  if (cut) {
    text = text.substr(0, limit);
    // Not within a UTF-8 sequence.
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xc0) == 0x80) text.remove_suffix(1);
    if (!text.empty() && (static_cast<unsigned char>(text.back()) & 0x80) != 0) text.remove_suffix(1);
  }
  std::string shown;
  for (char c : text) {
    if (isControl(c)) {
      shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      shown += c;
    }
  }
  return cut ? shown + "..." : shown;
}

std::string inQuotes(std::string_view text, size_t limit) {
  return fmt::format("\"{}\"", shortened(text, limit));
}

}  // namespace Runtime
