#include "Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace Kelstore {
namespace {

bool isControl(char c) {
  auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

bool isPlain(std::string_view text) { return std::none_of(text.begin(), text.end(), isControl); }

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

}  // namespace Kelstore
