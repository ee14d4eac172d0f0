// Feature toggles: booleans by name in a JSON file.
#pragma once

#include <string>

namespace Toggles {

// Sets the path of the toggle file of that name. Without a path the file counts as missing.
void fileIs(const std::string& file, const std::string& path);

// Reads the toggle's value from the file; defaultState when there is no such file, or it does not name the
// toggle. A file that cannot be used, or a value that is not true or false, yields defaultState too, and one
// trace line for each fault (handle "Toggles", level 0).
bool getToggleState(const std::string& name, const std::string& file, bool defaultState);

}  // namespace Toggles
