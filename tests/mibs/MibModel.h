// What a MIB module says of its objects, as smidump and snmptranslate read it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace Mibs {

struct Object {
  std::string module;
  std::string name;
  std::string kind;                  // "table", "row", "column", ...
  std::string oid;                   // ".1.3.6..."
  std::string syntax;                // base type, such as "INTEGER", "OCTET STRING", "TimeTicks"
  std::string access;                // "read-only", "not-accessible"; empty where there is none
  std::map<int, std::string> names;  // of an enumeration
  long lowest = 0;                   // of the range, or of the length of octets; both 0 without one
  long highest = 0;
  std::vector<std::string> index;  // of a row
};

// Every object of the module, in the order of their OIDs.
std::vector<Object> objectsOf(const std::string& module);

}  // namespace Mibs
