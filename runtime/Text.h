// How foreign text is shown to people: on one line, in bounded length, whatever it holds.
#pragma once

#include <string>
#include <string_view>

namespace Runtime {

// Control characters here are those that a terminal obeys instead of showing them: U+0000 to U+001F, U+007F
// to U+009F, and those that turn the direction of what follows (U+202A to U+202E, U+2066 to U+2069).

// Whether the text holds no control character.
bool isPlain(std::string_view text);
// Whether the text is valid UTF-8, as JSON and SNMP take it.
bool isUtf8(std::string_view text);
// The text with "\xNN" or "\uNNNN" for each control character, and "\xNN" for each byte that is no UTF-8.
std::string escaped(std::string_view text);
// The text cut to about `limit` bytes, with "..." where it was cut, then escaped.
std::string shortened(std::string_view text, size_t limit = 60);
// The same in double quotes.
std::string inQuotes(std::string_view text, size_t limit = 60);

}  // namespace Runtime
