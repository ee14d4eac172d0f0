#include "tests/wire/Model.h"

#include <fmt/format.h>

#include <algorithm>

#include "tests/e2e/Daemon.h"

namespace Wire {
namespace {

// RFC 2578, section 3.5. net-snmp gives no answer to a message that has a longer name, or value, in it.
constexpr size_t kMaxSubIds = 128;
// What net-snmp gathers for the repeaters of one GETBULK at most.
constexpr int64_t kMaxBulkVarbinds = 100;

// The encoding has room for the first two sub-identifiers together only: none, and one, are read as two.
Oid asRead(Oid name) {
  if (name.size() < 2) name.resize(2);
  return name;
}

// The types of RFC 2578, of its forerunners, and what takes a value's place.
bool isReadable(const Value& value) {
  constexpr std::string_view kTags = "\x02\x03\x04\x05\x06\x40\x41\x42\x43\x44\x45\x46\x47\x80\x81\x82";
  return kTags.find(static_cast<char>(value.tag)) != std::string_view::npos;
}

// The name of a varbind for which nothing was found. RFC 3416 wants the one that was asked for; net-snmp
// leaves a GETBULK's non-repeaters named by where its search has come to: behind the last table's last
// column.
Oid whereSearchEnds(const Oid& name) {
  const TableShape& last = tableShapes().back();
  Oid end = last.root;
  end.insert(end.end(), {1, last.lastColumn + 1});
  return std::max(name, end);
}

bool isException(const Value& value) {
  return value.tag == Tag::noSuchObject || value.tag == Tag::noSuchInstance || value.tag == Tag::endOfMibView;
}

struct Error {
  ErrorStatus status;
  size_t index;  // of the varbind, from 1
};

// What the table answers to a SET, which every table refuses.
ErrorStatus refusal(const TableShape& table, const Oid& name) {
  size_t entry = table.root.size();
  bool hasColumn = name.size() > entry + 1 && name[entry] == 1 && name[entry + 1] >= table.firstColumn &&
                   name[entry + 1] <= table.lastColumn;
  // net-snmp refuses to create a row under an index that is none before it asks a table that takes SETs.
  bool hasIndex = name.size() == entry + 2 + table.indexes;
  return table.takesSets && hasColumn && !hasIndex ? ErrorStatus::noCreation : ErrorStatus::notWritable;
}

// Requires: there is a varbind.
std::optional<Error> setError(const Message& request) {
  const std::vector<Varbind>& varbinds = request.pdu.varbinds;
  // Whatever stands before it, and whoever asks.
  for (size_t i = 0; i < varbinds.size(); ++i) {
    if (varbinds[i].value.tag == Tag::null) return Error{ErrorStatus::wrongType, i + 1};
  }
  for (size_t i = 0; i < varbinds.size(); ++i) {
    // SNMPv1 has no Counter64; to net-snmp, nothing that is one is in a view then.
    bool inView = tableOf(varbinds[i].name) != nullptr &&
                  !(request.version == Version::v1 && varbinds[i].value.tag == Tag::counter64);
    if (request.community != kWriter || !inView) return Error{ErrorStatus::noAccess, i + 1};
  }
  if (varbinds.empty()) return std::nullopt;
  return Error{refusal(*tableOf(varbinds[0].name), varbinds[0].name), 1};
}

// RFC 2576, section 4.3.
ErrorStatus forV1(ErrorStatus status) {
  switch (status) {
    case ErrorStatus::wrongType:
      return ErrorStatus::badValue;
    case ErrorStatus::noAccess:
    case ErrorStatus::noCreation:
    case ErrorStatus::notWritable:
      return ErrorStatus::noSuchName;
    default:
      return status;
  }
}

// SNMPv1 has no exceptions: one makes the whole request fail. RFC 1157 wants the first of them named;
// net-snmp names the last.
std::optional<Error> exceptionsForV1(const std::vector<Varbind>& varbinds) {
  for (size_t i = varbinds.size(); i > 0; --i) {
    if (isException(varbinds[i - 1].value)) return Error{ErrorStatus::noSuchName, i};
  }
  return std::nullopt;
}

}  // namespace

std::string modelledAccess() {
  std::string lines;
  for (const TableShape& table : tableShapes())
    lines += fmt::format("view tables included {}\n", text(table.root));
  return lines + fmt::format("rocommunity {} 127.0.0.1 -V tables\n", kReader) +
         E2e::writingAccess(kWriter, "tables");
}

std::string accessWithUsers() {
  return modelledAccess() + fmt::format("createUser {0}\nrouser {0} noauth -V tables\n", kWatcher) +
         fmt::format("createUser {0} SHA-256 \"{1}\" AES \"{2}\"\nrouser {0} auth -V tables\n", kOperator,
                     kAuthPass, kPrivPass);
}

std::optional<Message> Model::answerTo(const Message& message) const {
  if (message.community != kReader && message.community != kWriter) return std::nullopt;
  Message request = message;
  for (Varbind& varbind : request.pdu.varbinds) {
    if (varbind.name.size() > kMaxSubIds || !isReadable(varbind.value)) return std::nullopt;
    varbind.name = asRead(varbind.name);
  }
  Message answer{request.version, request.community, {PduType::response, request.pdu.requestId, 0, 0, {}}};
  std::optional<Error> error;
  switch (request.pdu.type) {
    case PduType::get:
      for (const Varbind& varbind : request.pdu.varbinds) {
        answer.pdu.varbinds.push_back({varbind.name, get(varbind.name)});
      }
      break;
    case PduType::getNext:
      for (const Varbind& varbind : request.pdu.varbinds) answer.pdu.varbinds.push_back(next(varbind.name));
      break;
    case PduType::getBulk:
      getBulk(request.pdu, answer.pdu);
      break;
    case PduType::set:
      error = setError(request);
      answer.pdu.varbinds = request.pdu.varbinds;
      break;
    default:
      return std::nullopt;
  }
  bool v1 = request.version == Version::v1;
  if (v1 && request.pdu.type != PduType::set) error = exceptionsForV1(answer.pdu.varbinds);
  if (error) {
    answer.pdu.first = static_cast<int64_t>(v1 ? forV1(error->status) : error->status);
    answer.pdu.second = static_cast<int64_t>(error->index);
    answer.pdu.varbinds = request.pdu.varbinds;
  }
  return answer;
}

Value Model::get(const Oid& name) const {
  auto found = tree_.find(name);
  if (found != tree_.end()) return found->second;
  const TableShape* table = tableOf(name);
  if (table == nullptr) return {Tag::noSuchObject, {}};
  size_t entry = table->root.size();
  bool isServed = name.size() > entry + 1 && name[entry] == 1 && name[entry + 1] >= table->firstColumn &&
                  name[entry + 1] <= table->lastColumn;
  return {isServed ? Tag::noSuchInstance : Tag::noSuchObject, {}};
}

Varbind Model::next(const Oid& name) const {
  auto found = tree_.upper_bound(name);
  if (found == tree_.end()) return {name, {Tag::endOfMibView, {}}};
  return {found->first, found->second};
}

void Model::getBulk(const Pdu& request, Pdu& answer) const {
  auto count = static_cast<int64_t>(request.varbinds.size());
  int64_t nonRepeaters = std::clamp<int64_t>(request.first, 0, count);
  int64_t repeaters = count - nonRepeaters;
  int64_t repetitions =
      repeaters == 0 ? 0 : std::clamp<int64_t>(request.second, 0, kMaxBulkVarbinds / repeaters);
  std::vector<Oid> asked;
  for (const Varbind& varbind : request.varbinds) asked.push_back(varbind.name);

  for (int64_t i = 0; i < nonRepeaters; ++i) {
    const Oid& name = asked[static_cast<size_t>(i)];
    answer.varbinds.push_back(next(name));
    Varbind& varbind = answer.varbinds.back();
    if (varbind.value.tag == Tag::endOfMibView) varbind.name = whereSearchEnds(name);
  }
  struct Repeater {
    Oid at;
    bool ended = false;
  };
  std::vector<Repeater> chains;
  for (auto i = static_cast<size_t>(nonRepeaters); i < asked.size(); ++i) chains.push_back({asked[i]});
  for (int64_t repetition = 0; repetition < repetitions; ++repetition) {
    // Whether this row is the last, all of it being beyond the end. net-snmp does not look at the last of
    // several repeaters, which then may have more to tell.
    bool last = true;
    for (size_t i = 0; i < chains.size(); ++i) {
      Repeater& chain = chains[i];
      Varbind varbind = chain.ended ? Varbind{chain.at, {Tag::endOfMibView, {}}} : next(chain.at);
      chain.ended = varbind.value.tag == Tag::endOfMibView;
      // RFC 3416 wants the repeater's own name. net-snmp counts from the first varbind on, non-repeaters
      // too.
      if (chain.ended && repetition == 0) varbind.name = asked[i];
      chain.at = varbind.name;
      bool looksAtIt = chains.size() == 1 || i + 1 < chains.size();
      last = last && (chain.ended || !looksAtIt);
      answer.varbinds.push_back(std::move(varbind));
    }
    if (last) break;
  }
}

}  // namespace Wire
