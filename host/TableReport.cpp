#include "host/TableReport.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "snmp-modules/ServedTable.h"

namespace Host {
namespace {

using Json = nlohmann::ordered_json;

// Rows in one line of the answer; making them takes a fraction of a task's slice.
constexpr size_t kRowsPerLine = 64;

uint32_t numberOf(const std::string& octets) {
  uint32_t number = 0;
  if (octets.size() == sizeof number) std::memcpy(&number, octets.data(), sizeof number);
  return number;
}

// As DateAndTime is displayed (RFC 2579).
std::string dateAndTime(const std::string& octets) {
  auto at = [&octets](size_t i) { return static_cast<unsigned char>(octets[i]); };
  std::string text =
      fmt::format("{}-{}-{},{}:{}:{}.{}", at(0) * 256 + at(1), at(2), at(3), at(4), at(5), at(6), at(7));
  if (octets.size() == 11) text += fmt::format(",{:c}{}:{}", at(8), at(9), at(10));
  return text;
}

std::string dotted(const std::string& octets) {
  std::vector<oid> numbers(octets.size() / sizeof(oid));
  std::memcpy(numbers.data(), octets.data(), numbers.size() * sizeof(oid));
  return fmt::format("{}", fmt::join(numbers, "."));
}

// Null where nothing is served.
Json shown(TrelSnmp::ValueFormat as, const TrelSnmp::EncodedValue& octets) {
  if (!octets) return nullptr;
  switch (as) {
    case TrelSnmp::ValueFormat::text:
      return *octets;
    case TrelSnmp::ValueFormat::date:
      return dateAndTime(*octets);
    case TrelSnmp::ValueFormat::objectIdentifier:
      return dotted(*octets);
    case TrelSnmp::ValueFormat::signedNumber:
      return static_cast<int32_t>(numberOf(*octets));
    case TrelSnmp::ValueFormat::number:
      break;
  }
  return numberOf(*octets);
}

Json rowOf(const TrelSnmp::ServedTable& table, const std::vector<TrelSnmp::EncodedValue>& values) {
  Json row = Json::object();
  for (size_t i = 0; i < values.size(); ++i) {
    const TrelSnmp::ServedColumn& column = table.columns[i];
    row[column.label] = shown(column.format, values[i]);
    if (column.nameOf == nullptr) continue;
    row[column.label + "Name"] = values[i] ? Json(column.nameOf(numberOf(*values[i]))) : Json(nullptr);
  }
  return row;
}

// Their sub-identifiers, in the order in which a row has them.
Json columnsOf(const TrelSnmp::ServedTable& table) {
  Json columns = Json::object();
  for (const TrelSnmp::ServedColumn& column : table.columns) columns[column.label] = column.number;
  return columns;
}

class TableReply final : public Reply {
 public:
  explicit TableReply(const TrelSnmp::TrelMib& mib) : mib_(mib) {}

  bool next(std::string& line) override {
    if (done_) return false;
    const auto& tables = TrelSnmp::servedTables();
    done_ = at_ == tables.size();
    Json answer{{"ok", true}};
    if (done_) {
      answer["done"] = true;
    } else {
      const TrelSnmp::ServedTable& table = tables[at_];
      if (walk_ == nullptr) walk_ = table.walk(mib_);
      answer["table"] = table.name;
      answer["oid"] = fmt::format("{}", fmt::join(table.rootOid, "."));
      answer["columns"] = columnsOf(table);
      answer["indexColumns"] =
          std::count_if(table.columns.begin(), table.columns.end(),
                        [](const TrelSnmp::ServedColumn& column) { return column.ofIndex; });
      Json& rows = answer["rows"] = Json::array();
      while (!walk_->atEnd() && rows.size() < kRowsPerLine) rows.push_back(rowOf(table, walk_->next()));
      if (walk_->atEnd()) {
        walk_ = nullptr;
        ++at_;
      }
    }
    line = answer.dump(-1, ' ', false, Json::error_handler_t::replace);
    return true;
  }

 private:
  const TrelSnmp::TrelMib& mib_;
  size_t at_ = 0;
  std::unique_ptr<TrelSnmp::RowWalk> walk_;
  bool done_ = false;
};

}  // namespace

std::unique_ptr<Reply> tableReport(const TrelSnmp::TrelMib& mib) { return std::make_unique<TableReply>(mib); }

}  // namespace Host
