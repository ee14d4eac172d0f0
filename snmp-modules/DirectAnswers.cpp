#include "snmp-modules/DirectAnswers.h"

#include <algorithm>
#include <utility>

namespace TrelSnmp {
namespace {

constexpr oid kEntry = 1;

// Below this size the agent may stop gathering a GETBULK.
constexpr long kLeastUnboundedSize = 1472;

std::span<const oid> nameOf(const netsnmp_variable_list* varbind) {
  return {varbind->name, varbind->name_length};
}

class Answers {
 public:
  Answers(const AgentCall& call, const TableShape& table, TableRows& rows, uint64_t& answered)
      : info_(*call.info), table_(table), rows_(rows), answered_(answered) {}

  // False: the chain has to answer, and the request is as it was.
  bool answer(netsnmp_request_info* request) {
    if (request->processed != 0 || request->requestvb->type != ASN_NULL) return false;
    return info_.mode == MODE_GET ? get(request) : getNext(request);
  }

 private:
  bool get(netsnmp_request_info* request) {
    netsnmp_variable_list* varbind = request->requestvb;
    if (orderToTable(varbind) != 0) return false;
    std::span<const oid> below = belowTable(varbind);
    if (below.size() < 2 || below[0] != kEntry || below[1] < table_.columns.front() ||
        below[1] > table_.columns.back()) {
      return refuse(request, SNMP_NOSUCHOBJECT);
    }
    if (!toColumn(below[1])) return false;
    std::span<const oid> index = below.subspan(2);
    if (index.size() != table_.indexLength) return refuse(request, SNMP_NOSUCHINSTANCE);
    switch (rows_.find(index)) {
      case TableRows::Found::row:
        break;
      case TableRows::Found::none:
        return refuse(request, SNMP_NOSUCHINSTANCE);
      case TableRows::Found::refused:
        return false;
    }
    if (!rows_.store(column_, varbind)) return false;
    ++answered_;
    return true;
  }

  bool refuse(netsnmp_request_info* request, int exception) {
    netsnmp_request_set_error(request, exception);
    ++answered_;
    return true;
  }

  bool getNext(netsnmp_request_info* request) {
    if (isBehindTable(request->requestvb)) return true;
    if (!findBehind(request->requestvb)) return false;
    if (!fill(request->requestvb)) return false;
    while (request->requestvb->type != ASN_NULL && toNextRepetition(request)) {
      if (fillsAllRepetitions() && fillNext(request->requestvb)) continue;
      // The next call begins with it. When its conversion failed, the chain answers it then.
      request->requestvb->type = ASN_PRIV_RETRY;
      break;
    }
    return true;
  }

  // Whether the name is the table's or below it (0), in front of the table (negative) or behind (positive).
  int orderToTable(const netsnmp_variable_list* varbind) const {
    size_t length = std::min(varbind->name_length, table_.rootOid.size());
    return snmp_oid_compare(varbind->name, length, table_.rootOid.data(), table_.rootOid.size());
  }
  std::span<const oid> belowTable(const netsnmp_variable_list* varbind) const {
    return nameOf(varbind).subspan(table_.rootOid.size());
  }

  // Whether no cell can be behind the name, whatever rows there are. The chain leaves such a name as it is.
  bool isBehindTable(const netsnmp_variable_list* varbind) const {
    if (orderToTable(varbind) != 0) return false;
    std::span<const oid> below = belowTable(varbind);
    if (below.empty() || below[0] < kEntry) return false;
    return below[0] > kEntry || (below.size() > 1 && below[1] > table_.columns.back());
  }

  // To the first cell behind the name, or behind the last one. False when the name is not one to be asked for
  // here.
  bool findBehind(const netsnmp_variable_list* varbind) {
    int order = orderToTable(varbind);
    if (order > 0) return false;
    std::span<const oid> below = order == 0 ? belowTable(varbind) : std::span<const oid>();
    if (below.size() < 2 || below[0] < kEntry || below[1] < table_.columns.front()) {
      column_ = 0;
      return toFirstRow();
    }
    if (!toColumn(below[1])) return false;
    std::span<const oid> index = below.subspan(2);
    if (index.empty()) return toFirstRow();
    TableRows::Found found = rows_.findBehind(index);
    if (found == TableRows::Found::none) nextColumn();
    return found != TableRows::Found::refused;
  }

  bool toColumn(oid number) {
    auto found = std::ranges::find(table_.columns, number);
    column_ = static_cast<size_t>(found - table_.columns.begin());
    return found != table_.columns.end();
  }
  bool toFirstRow() {
    if (!rows_.first()) column_ = table_.columns.size();
    return true;
  }
  void nextColumn() {
    if (++column_ < table_.columns.size()) toFirstRow();
  }
  bool behindLastCell() const { return column_ == table_.columns.size(); }

  // Writes the cell's name and value; behind the last cell, the name that the chain leaves there. False when
  // a conversion fails; the varbind is as it was then.
  bool fill(netsnmp_variable_list* varbind) {
    std::array<oid, std::tuple_size_v<TableOid> + 2 + kMaxIndexLength> name{};
    oid* at = std::ranges::copy(table_.rootOid, name.begin()).out;
    *at++ = kEntry;
    if (behindLastCell()) {
      *at++ = table_.columns.back() + 1;
      varbind->type = ASN_NULL;
    } else {
      *at++ = table_.columns[column_];
      if (!rows_.index({at, table_.indexLength}) || !rows_.store(column_, varbind)) return false;
      at += table_.indexLength;
      ++answered_;
    }
    snmp_set_var_objid(varbind, name.data(), static_cast<size_t>(at - name.data()));
    return true;
  }

  bool fillNext(netsnmp_variable_list* varbind) {
    if (!rows_.next()) nextColumn();
    return fill(varbind);
  }

  // As net-snmp's bulk_to_next does it. False when the answer was the last one, or is not the table's to
  // give.
  static bool toNextRepetition(netsnmp_request_info* request) {
    netsnmp_variable_list* answer = request->requestvb;
    if (request->repeat <= 0 || answer->next_variable == nullptr ||
        snmp_oid_compare(answer->name, answer->name_length, request->range_end, request->range_end_len) >=
            0) {
      return false;
    }
    --request->repeat;
    snmp_set_var_objid(answer->next_variable, answer->name, answer->name_length);
    request->requestvb = answer->next_variable;
    if (request->inclusive == 2) request->inclusive = 0;
    return true;
  }

  bool fillsAllRepetitions() {
    if (!fillsAll_) fillsAll_ = info_.asp->pdu->msgMaxSize >= kLeastUnboundedSize && nothingCanBeHidden();
    return *fillsAll_;
  }
  bool nothingCanBeHidden() const {
    static constexpr std::array<oid, 4> kInternet{1, 3, 6, 1};
    return isInView(table_.rootOid) && (info_.asp->vbcount == 1 || isInView(kInternet));
  }
  // Whether all that is below the name is in the manager's view.
  bool isInView(std::span<const oid> subtree) const {
    TableOid name{};
    std::ranges::copy(subtree, name.begin());
    return netsnmp_acm_check_subtree(info_.asp->pdu, name.data(), subtree.size()) == VACM_SUCCESS;
  }

  const netsnmp_agent_request_info& info_;
  const TableShape& table_;
  TableRows& rows_;
  uint64_t& answered_;
  size_t column_ = 0;  // the cell's; behind the last cell, the number of columns
  std::optional<bool> fillsAll_;
};

bool isAnswered(int mode) { return mode == MODE_GET || mode == MODE_GETNEXT || mode == MODE_GETBULK; }

}  // namespace

int AgentCall::passOn(netsnmp_request_info* request) const {
  netsnmp_request_info* next = std::exchange(request->next, nullptr);
  int result = netsnmp_call_next_handler(handler, registration, info, request);
  request->next = next;
  return result;
}

int answerDirectly(const AgentCall& call, const TableShape& table, TableRows& rows, uint64_t& answered) {
  if (!isAnswered(call.info->mode)) return call.passOn();
  Answers answers(call, table, rows, answered);
  for (netsnmp_request_info* request = call.requests; request != nullptr; request = request->next) {
    if (answers.answer(request)) continue;
    int result = call.passOn(request);
    if (result != SNMP_ERR_NOERROR) return result;
  }
  return SNMP_ERR_NOERROR;
}

}  // namespace TrelSnmp
