// The platform's string: bytes, UTF-8 where it is text.
#pragma once

#include <string>

namespace Zavro {

using String = std::string;

}  // namespace Zavro
