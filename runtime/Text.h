// Shows foreign text to people safely: on one line, without what a terminal obeys, in bounded length.
#pragma once

#include <string>
#include <string_view>

namespace Runtime {

// Control characters are U+0000 to U+001F, U+007F to U+009F, and those that change the direction of text
// (U+202A to U+202E, U+2066 to U+2069).

// Whether the text holds no control character.
bool isPlain(std::string_view text);
// Whether the text is valid UTF-8, as JSON and SNMP take it.
bool isUtf8(std::string_view text);
// The text with "\xNN" or "\uNNNN" for each control character, and "\xNN" for each byte that is not UTF-8.
std::string escaped(std::string_view text);
// The text cut to at most `limit` bytes, then escaped; with "..." at its end where it was cut.
std::string shortened(std::string_view text, size_t limit = 60);
// The same in double quotes.
std::string inQuotes(std::string_view text, size_t limit = 60);

}  // namespace Runtime
