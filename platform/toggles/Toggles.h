// Feature toggles: booleans by name in a JSON file.
#pragma once

#include <string>

namespace Toggles {

// Says where the toggle file of that name really is; until then there is no such file.
void fileIs(const std::string& file, const std::string& path);

// The toggle's value in the file, or defaultState when there is no such file or it does not name the toggle.
// A file that cannot be used, or a value that is not true or false, costs one trace line (handle "Toggles",
// level 0), once, and yields the default.
bool getToggleState(const std::string& name, const std::string& file, bool defaultState);

}  // namespace Toggles
