// Messages about text that is not JSON.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Runtime {

// "LINE:COLUMN" of the byte at the offset, both counted from 1.
std::string lineAndColumn(std::string_view text, size_t offset);

// The message of nlohmann's exception, without the exception's name and position; shortened.
std::string syntaxMessage(std::string_view what);

}  // namespace Runtime
