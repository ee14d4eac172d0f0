#include "host/TableReport.h"

#include <array>
#include <functional>
#include <nlohmann/json.hpp>

#include "platform/snmp/AsnConversions.h"
#include "snmp-modules/ReachabilityStateToAsnUnsigned.h"

namespace Host {
namespace {

using Json = nlohmann::ordered_json;

// Rows in one line of the answer: few enough to be made within a fraction of a slice.
constexpr size_t kRowsPerLine = 64;

// What the conversion puts on the wire, as a number; null when it puts nothing there.
template <class Convert, class Input>
Json served(Convert convert, const Input& input) {
  uint32_t value = 0;
  std::array<unsigned char, sizeof value> buffer{};
  if (convert(input, buffer.data(), static_cast<int>(buffer.size())) != sizeof value) return nullptr;
  std::memcpy(&value, buffer.data(), sizeof value);
  return value;
}

// As DateAndTime is displayed (RFC 2579).
Json dateAndTime(double utcSeconds) {
  std::array<unsigned char, 11> octets{};
  int length = Snmp::SecondsToAsnDateAndTimeF()(Zavro::Duration(utcSeconds), octets.data(),
                                                static_cast<int>(octets.size()));
  if (length != 8 && length != 11) return nullptr;
  std::string text = fmt::format("{}-{}-{},{}:{}:{}.{}", octets[0] * 256 + octets[1], octets[2], octets[3],
                                 octets[4], octets[5], octets[6], octets[7]);
  if (length == 11) text += fmt::format(",{:c}{}:{}", octets[8], octets[9], octets[10]);
  return text;
}

Json rowOf(const TrelSnmp::TrelIfEntry& row) {
  return {{"ifIndex", row.ifIndex()},
          {"localMemberId", row.localMemberId()},
          {"remoteMemberId", row.remoteMemberId()}};
}

Json rowOf(const TrelSnmp::TrelReachabilityEntry& row) {
  auto state = row.reachabilityState() ? row.reachabilityState()->state() : Trel::ReachabilityState::unknown;
  return {{"srcId", row.key().firstId()},
          {"destId", row.key().secondId()},
          {"baIfIndex", row.baIfIndex()},
          {"state", served(ReachabilityStateToAsnUnsigned, state)},
          {"stateName", Trel::stateName(state)},
          {"lastUpdate", served(Snmp::UtcSecondsToUptimeTimeTicksF(), Zavro::Duration(row.lastUpdated()))}};
}

Json rowOf(const TrelSnmp::TrelHrSystemEntry& row) {
  auto figures = row.hostResources() ? row.hostResources()->system() : HostResources::HostResources::System();
  return {{"memberId", row.trelMemberId()},
          {"upTime", served(Snmp::SecondsToTimeTicksF(), Zavro::Duration(figures.systemUptime))},
          {"date", dateAndTime(figures.currentTimeUtc)},
          {"numUsers", figures.systemNumUsers},
          {"processes", figures.systemProcesses},
          {"memorySize", figures.memorySize}};
}

Json rowOf(const TrelSnmp::TrelProcessorEntry& row) {
  return {{"memberId", row.key().trelMemberId()},
          {"index", row.key().processorIndex()},
          {"load", row.processor() ? row.processor()->load() : 0}};
}

Json rowOf(const TrelSnmp::TrelHrStorageEntry& row) {
  return {{"memberId", row.key().trelMemberId()},
          {"index", row.key().hrStorageIndex()},
          {"type", row.type().text()},
          {"descr", row.descr()},
          {"allocUnits", row.allocationUnits()},
          {"size", row.size()},
          {"used", row.used()}};
}

// Appends rows to the array until it is full; false when the table has no more.
using MoreRows = std::function<bool(Json& rows)>;

template <class Table>
MoreRows walk(const Table& table) {
  return [cursor = table.begin()](Json& rows) mutable {
    for (; cursor && rows.size() < kRowsPerLine; cursor.next()) rows.push_back(rowOf(*cursor.entry()));
    return static_cast<bool>(cursor);
  };
}

// Calls with(name, table) for each.
template <class With>
void forEachTable(const TrelSnmp::TrelMib& mib, With with) {
  with("veldaTrelBaIfTable", mib.trelIfTable());
  with("veldaTrelReachabilityTable", mib.trelReachabilityTable());
  with("veldaTrelHrSystemTable", mib.trelHrSystemTable());
  with("veldaTrelProcessorTable", mib.trelProcessorTable());
  with("veldaTrelStorageTable", mib.trelHrStorageTable());
}

class TableReply final : public Reply {
 public:
  explicit TableReply(const TrelSnmp::TrelMib& mib) {
    forEachTable(mib, [this](const char* name, const auto& table) {
      tables_.emplace_back(name, [&table] { return walk(table); });
    });
  }

  bool next(std::string& line) override {
    if (done_) return false;
    done_ = at_ == tables_.size();
    Json answer{{"ok", true}};
    if (done_) {
      answer["done"] = true;
    } else {
      const auto& [name, start] = tables_[at_];
      if (!more_) more_ = start();
      answer["table"] = name;
      answer["rows"] = Json::array();
      if (!more_(answer["rows"])) {
        more_ = {};
        ++at_;
      }
    }
    line = answer.dump(-1, ' ', false, Json::error_handler_t::replace);
    return true;
  }

 private:
  std::vector<std::pair<const char*, std::function<MoreRows()>>> tables_;
  size_t at_ = 0;
  MoreRows more_;
  bool done_ = false;
};

}  // namespace

std::unique_ptr<Reply> tableReport(const TrelSnmp::TrelMib& mib) { return std::make_unique<TableReply>(mib); }

std::vector<TableFigures> tableFigures(const TrelSnmp::TrelMib& mib) {
  std::vector<TableFigures> figures;
  forEachTable(mib, [&figures](const char* name, const auto& table) {
    figures.push_back({name, table.size(), table.version()});
  });
  return figures;
}

}  // namespace Host
