// What an object's type information says, for comparison.
#pragma once

#include <string>
#include <vector>

#include "platform/kor/Type.h"

// The names of the attributes, in declaration order.
inline std::vector<std::string> attributeNames(const Kor::Type& type) {
  std::vector<std::string> names;
  for (const Kor::Attribute& attribute : type.attributes()) names.push_back(attribute.name);
  return names;
}

// The names of the attributes that can be set.
inline std::vector<std::string> settableNames(const Kor::Type& type) {
  std::vector<std::string> names;
  for (const Kor::Attribute& attribute : type.attributes()) {
    if (attribute.set) names.push_back(attribute.name);
  }
  return names;
}

inline std::vector<std::string> operationNames(const Kor::Type& type) {
  std::vector<std::string> names;
  for (const Kor::Operation& operation : type.operations()) names.push_back(operation.name);
  return names;
}
