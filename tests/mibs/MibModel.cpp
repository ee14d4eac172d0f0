#include "tests/mibs/MibModel.h"

#include <regex>
#include <sstream>
#include <stdexcept>

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace Mibs {
namespace {

std::string outputOf(const Support::Argv& argv) {
  Support::TempDir settings;
  Support::Result result =
      Support::run(argv, {"SMIPATH=" TREL_MIBS, "SNMPCONFPATH=" + settings.path().string(),
                          "SNMP_PERSISTENT_DIR=" + settings.path().string()});
  if (result.status != 0) throw std::runtime_error(argv[0] + ": " + result.err);
  return result.out;
}

std::string firstMatch(const std::string& text, const std::string& pattern) {
  std::smatch match;
  return std::regex_search(text, match, std::regex(pattern)) ? match[1].str() : "";
}

std::vector<std::string> words(const std::string& list) {
  static const std::regex separator("[, ]+");
  std::vector<std::string> all;
  for (std::sregex_token_iterator at(list.begin(), list.end(), separator, -1), end; at != end; ++at) {
    if (at->length() != 0) all.push_back(*at);
  }
  return all;
}

void describe(Object& object) {
  std::string text = outputOf({"snmptranslate", "-M", TREL_MIBS, "-m", object.module, "-Td", object.oid});
  std::string syntax = firstMatch(text, "SYNTAX\\s+(.*)");
  object.syntax = firstMatch(syntax, "^(OCTET STRING|OBJECT IDENTIFIER|[A-Za-z0-9]+)");
  object.access = firstMatch(text, "MAX-ACCESS\\s+(\\S+)");
  object.index = words(firstMatch(text, "INDEX\\s+\\{ (.*) \\}"));
  std::smatch range;
  if (std::regex_search(syntax, range, std::regex("\\((-?\\d+)\\.\\.(\\d+)\\)"))) {
    object.lowest = std::stol(range[1]);
    object.highest = std::stol(range[2]);
  }
  std::string names = firstMatch(syntax, "\\{(.*)\\}");
  static const std::regex name("([a-z][A-Za-z0-9]*)\\((\\d+)\\)");
  for (std::sregex_iterator at(names.begin(), names.end(), name), end; at != end; ++at) {
    object.names[std::stoi((*at)[2])] = (*at)[1];
  }
}

}  // namespace

std::vector<Object> objectsOf(const std::string& module) {
  std::istringstream lines(outputOf({"smidump", "-f", "identifiers", module}));
  std::vector<Object> objects;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    Object object;
    if (!(fields >> object.module >> object.name >> object.kind >> object.oid)) continue;
    if (object.module != module) continue;
    object.oid.insert(0, ".");
    if (object.kind == "table" || object.kind == "row" || object.kind == "column") describe(object);
    objects.push_back(std::move(object));
  }
  return objects;
}

}  // namespace Mibs
