// How foreign text is shown in messages: on one line, in bounded length, whatever it holds.
#pragma once

#include <string>
#include <string_view>

namespace Runtime {

// Whether the text holds no control character.
bool isPlain(std::string_view text);
// Whether the text is valid UTF-8, as JSON and SNMP take it.
bool isUtf8(std::string_view text);
// The text cut to about `limit` bytes, with "..." where it was cut; control characters become "\xNN".
std::string shortened(std::string_view text, size_t limit = 60);
// The same in double quotes.
std::string inQuotes(std::string_view text, size_t limit = 60);

}  // namespace Runtime
