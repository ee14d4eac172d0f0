// What is said of a text that is no JSON.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Runtime {

// "LINE:COLUMN" of the byte at the offset, both from 1.
std::string lineAndColumn(std::string_view text, size_t offset);

// The parser's own words, from what its exception says, without its name and position.
std::string syntaxMessage(std::string_view what);

}  // namespace Runtime
