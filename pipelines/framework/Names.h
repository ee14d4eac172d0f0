// Parts of the names that are composed from a pipeline's declared names.
#pragma once

#include <string>

namespace TrelSnmp::Agent {

// The name with its first letter in upper case.
inline std::string capitalised(std::string name) {
  if (!name.empty() && name[0] >= 'a' && name[0] <= 'z') name[0] = static_cast<char>(name[0] - 'a' + 'A');
  return name;
}

// The name with its first letter in lower case.
inline std::string uncapitalised(std::string name) {
  if (!name.empty() && name[0] >= 'A' && name[0] <= 'Z') name[0] = static_cast<char>(name[0] - 'A' + 'a');
  return name;
}

// The name of a type without colons.
inline std::string withoutColons(std::string name) {
  std::erase(name, ':');
  return name;
}

}  // namespace TrelSnmp::Agent
