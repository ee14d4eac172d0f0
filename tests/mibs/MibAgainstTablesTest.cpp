// The MIB modules against what the table modules state of their tables: the same objects, neither more nor
// less.
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "snmp-modules/ServedTable.h"
#include "tests/mibs/MibModel.h"

namespace Mibs {
namespace {

const char* kModules[] = {"VELDA-TREL-MIB", "VELDA-TREL-HOST-RESOURCES-MIB"};

// As on the wire, where some types are the same (RFC 2578, section 7.1).
std::string syntaxOf(const std::string& syntax) {
  if (syntax == "Integer32") return "INTEGER";
  return syntax == "Unsigned32" ? "Gauge32" : syntax;
}

std::string syntaxOf(u_char type) {
  switch (type) {
    case ASN_INTEGER:
      return "INTEGER";
    case ASN_GAUGE:
      return "Gauge32";
    case ASN_TIMETICKS:
      return "TimeTicks";
    case ASN_OCTET_STR:
      return "OCTET STRING";
    case ASN_OBJECT_ID:
      return "OBJECT IDENTIFIER";
    default:
      return "unknown";
  }
}

std::string dotted(const TrelSnmp::TableOid& oid) { return fmt::format(".{}", fmt::join(oid, ".")); }

// "name OID syntax", for an index "name OID syntax index"; an enumeration's values follow.
std::vector<std::string> columnsOfModules() {
  std::vector<std::string> all;
  for (const char* module : kModules) {
    for (const Object& object : objectsOf(module)) {
      if (object.kind != "column") continue;
      std::string text = fmt::format("{} {} {}", object.name, object.oid, syntaxOf(object.syntax));
      if (object.access == "not-accessible") text += " index";
      for (const auto& [value, name] : object.names) text += fmt::format(" {}({})", name, value);
      all.push_back(text);
    }
  }
  return all;
}

std::string valuesOf(TrelSnmp::ValueName nameOf) {
  std::string text;
  for (uint32_t value = 0; nameOf != nullptr && value < 16; ++value) {
    std::string name = nameOf(value);
    if (name != std::to_string(value)) text += fmt::format(" {}({})", name, value);
  }
  return text;
}

std::vector<std::string> columnsOfTables() {
  std::vector<std::string> all;
  for (const TrelSnmp::ServedTable& table : TrelSnmp::servedTables()) {
    for (const TrelSnmp::ServedColumn& column : table.columns) {
      all.push_back(fmt::format("{} {}.1.{} {}{}{}", column.name, dotted(table.rootOid), column.number,
                                syntaxOf(column.type), column.ofIndex ? " index" : "",
                                valuesOf(column.nameOf)));
    }
  }
  return all;
}

std::vector<std::string> tablesOfModules() {
  std::vector<std::string> all;
  for (const char* module : kModules) {
    for (const Object& object : objectsOf(module)) {
      if (object.kind == "table") all.push_back(object.name + " " + object.oid);
    }
  }
  return all;
}

TEST(MibAgainstTables, EveryTable_StandsWhereItsModuleSays) {
  std::vector<std::string> tables;
  for (const TrelSnmp::ServedTable& table : TrelSnmp::servedTables()) {
    tables.push_back(std::string(table.name) + " " + dotted(table.rootOid));
  }
  EXPECT_EQ(tables, tablesOfModules());
}

TEST(MibAgainstTables, EveryColumn_IsAsItsModuleSays) { EXPECT_EQ(columnsOfTables(), columnsOfModules()); }

}  // namespace
}  // namespace Mibs
