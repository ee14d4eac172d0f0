#include "runtime/JsonText.h"

#include <fmt/format.h>

#include <algorithm>

#include "runtime/Text.h"

namespace Runtime {
namespace {

constexpr size_t kMaxSyntaxMessage = 300;

}  // namespace

std::string lineAndColumn(std::string_view text, size_t offset) {
  std::string_view before = text.substr(0, std::min(offset, text.size()));
  auto line = 1 + std::count(before.begin(), before.end(), '\n');
  size_t lineStart = before.rfind('\n') + 1;  // npos + 1 is 0
  return fmt::format("{}:{}", line, before.size() - lineStart + 1);
}

std::string syntaxMessage(std::string_view what) {
  for (std::string_view intro : {std::string_view("] "), std::string_view("column ")}) {
    size_t at = what.find(intro);
    if (at != std::string_view::npos) what.remove_prefix(at + intro.size());
  }
  size_t colon = what.find(": ");
  bool restOfPosition = colon != std::string_view::npos &&
                        what.substr(0, colon).find_first_not_of("0123456789") == std::string_view::npos;
  if (restOfPosition) what.remove_prefix(colon + 2);
  return shortened(what, kMaxSyntaxMessage);
}

}  // namespace Runtime
