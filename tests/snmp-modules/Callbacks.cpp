#include "tests/snmp-modules/Callbacks.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <string_view>

#include "platform/zavro/Assert.h"
#include "tests/snmp-modules/InProcessAgent.h"

namespace SnmpTest {

netsnmp_handler_registration* registrationAt(const std::string& name) {
  std::vector<oid> at = oidOf(name);
  netsnmp_subtree* subtree = netsnmp_subtree_find(at.data(), at.size(), nullptr, "");
  if (subtree == nullptr || subtree->reginfo == nullptr) return nullptr;
  const netsnmp_handler_registration* found = subtree->reginfo;
  bool registeredThere =
      std::equal(at.begin(), at.end(), found->rootoid, found->rootoid + found->rootoid_len);
  return registeredThere ? subtree->reginfo : nullptr;
}

netsnmp_iterator_info* iteratorInfoOf(const netsnmp_handler_registration* registration) {
  netsnmp_mib_handler* handler = registration->handler;
  while (handler != nullptr && std::strcmp(handler->handler_name, TABLE_ITERATOR_NAME) != 0) {
    handler = handler->next;
  }
  zavroAssert(handler);
  return static_cast<netsnmp_iterator_info*>(handler->myvoid);
}

TableRequest::TableRequest(const std::vector<Component>& components, std::optional<unsigned> count,
                           unsigned column) {
  info_.colnum = column;
  info_.number_indexes = count.value_or(static_cast<unsigned>(components.size()));
  for (const Component& component : components) {
    // Set by hand, since net-snmp would cut it to 32 bits.
    long value = 0;
    netsnmp_variable_list* varbind =
        snmp_varlist_add_variable(&info_.indexes, nullptr, 0, component.type, &value, sizeof value);
    *varbind->val.integer = component.value;
  }
}

TableRequest::~TableRequest() { snmp_free_varbind(info_.indexes); }

DirectWalk::DirectWalk(const std::string& table)
    : info_(iteratorInfoOf(registrationAt(table))),
      index_(snmp_clone_varbind(info_->table_reginfo->indexes)) {}

DirectWalk::~DirectWalk() {
  freeLoop();
  if (data_ != nullptr) freeData(data_);
  snmp_free_varbind(index_);
}

std::string DirectWalk::first(netsnmp_table_request_info* hint) {
  freeLoop();
  void* slot = hint;
  const netsnmp_variable_list* index = info_->get_first_data_point(&slot, &data_, index_, info_);
  loop_ = slot;
  return indexText(index);
}

std::string DirectWalk::next() {
  return indexText(info_->get_next_data_point(&loop_, &data_, index_, info_));
}

void* DirectWalk::makeData(bool passOn) {
  void* context = info_->make_data_context(loop_, info_);
  if (passOn) data_ = context;
  return context;
}

void DirectWalk::freeLoop() {
  if (loop_ != nullptr) info_->free_loop_context_at_end(loop_, info_);
  loop_ = nullptr;
}

std::string DirectWalk::indexText(const netsnmp_variable_list* index) const {
  if (index == nullptr) return "end";
  std::vector<unsigned long> components;
  for (; index != nullptr; index = index->next_variable) {
    components.push_back(static_cast<unsigned long>(*index->val.integer));
  }
  return fmt::format("{}", fmt::join(components, "."));
}

namespace {

// What one request of a handler's call is made of.
class HandlerRequest {
 public:
  HandlerRequest(const ColumnRequest& wanted, netsnmp_agent_request_info& agentInfo)
      : table_({}, {}, wanted.column) {
    varbind_.type = ASN_NULL;
    request_.requestvb = &varbind_;
    request_.agent_req_info = &agentInfo;
    request_.processed = wanted.processed ? 1 : 0;
    netsnmp_request_add_list_data(&request_,
                                  netsnmp_create_data_list(TABLE_HANDLER_NAME, table_.info(), nullptr));
    if (wanted.dataContext != nullptr) netsnmp_insert_iterator_context(&request_, wanted.dataContext);
  }
  ~HandlerRequest() {
    netsnmp_free_request_data_sets(&request_);
    snmp_free_var_internals(&varbind_);
  }
  HandlerRequest(const HandlerRequest&) = delete;
  HandlerRequest& operator=(const HandlerRequest&) = delete;

  netsnmp_request_info* request() { return &request_; }
  std::string outcome() const {
    if (request_.status != SNMP_ERR_NOERROR) return fmt::format("error {}", request_.status);
    if (varbind_.type == ASN_NULL) return "untouched";
    return valueIn(varbind_);
  }

 private:
  TableRequest table_;
  netsnmp_variable_list varbind_{};
  netsnmp_request_info request_{};
};

}  // namespace

std::string handle(Netsnmp_Node_Handler* handler, int mode, const std::vector<ColumnRequest>& requests) {
  netsnmp_agent_request_info agentInfo{};
  agentInfo.mode = mode;
  std::deque<HandlerRequest> made;
  for (const ColumnRequest& wanted : requests) {
    made.emplace_back(wanted, agentInfo);
    if (made.size() > 1) made[made.size() - 2].request()->next = made.back().request();
  }
  std::string text = fmt::format("{}:", handler(nullptr, nullptr, &agentInfo, made.front().request()));
  for (const HandlerRequest& request : made) text += ' ' + request.outcome();
  return text;
}

std::string askDirectly(const std::string& table, int mode, const std::string& name, int repetitions) {
  netsnmp_handler_registration* registration = registrationAt(table);
  netsnmp_mib_handler* handler = registration->handler;
  while (handler != nullptr && std::strcmp(handler->handler_name, "direct_answers") != 0) {
    handler = handler->next;
  }
  zavroAssert(handler);
  netsnmp_pdu pdu{};
  pdu.version = SNMP_VERSION_2c;
  pdu.flags = UCD_MSG_FLAG_ALWAYS_IN_VIEW;
  pdu.msgMaxSize = SNMP_MAX_PACKET_LEN;
  netsnmp_agent_session session{};
  session.pdu = &pdu;
  session.vbcount = 1;
  netsnmp_agent_request_info info{};
  info.mode = mode;
  info.asp = &session;

  std::vector<oid> behindTable(registration->rootoid, registration->rootoid + registration->rootoid_len);
  ++behindTable.back();
  std::deque<netsnmp_variable_list> slots(static_cast<size_t>(repetitions));
  for (size_t i = 0; i < slots.size(); ++i) {
    slots[i].type = ASN_NULL;
    if (i > 0) slots[i - 1].next_variable = &slots[i];
  }
  std::vector<oid> asked = oidOf(name);
  snmp_set_var_objid(&slots[0], asked.data(), asked.size());
  netsnmp_request_info request{};
  request.requestvb = request.requestvb_start = &slots[0];
  request.repeat = request.orig_repeat = repetitions - 1;
  request.range_end = behindTable.data();
  request.range_end_len = behindTable.size();
  request.agent_req_info = &info;

  std::string text = fmt::format("{}:", handler->access_method(handler, registration, &info, &request));
  for (netsnmp_variable_list& slot : slots) {
    bool last = &slot == request.requestvb;
    if (last && request.status != SNMP_ERR_NOERROR) {
      text += fmt::format(" error {}", request.status);
    } else if (last && (slot.type == ASN_NULL || slot.type == ASN_PRIV_RETRY)) {
      text += slot.type == ASN_NULL ? " end" : " again";
    } else {
      text += fmt::format(" {}={}", nameIn(slot), valueIn(slot));
    }
    if (last) break;
  }
  netsnmp_free_request_data_sets(&request);
  for (netsnmp_variable_list& slot : slots) snmp_free_var_internals(&slot);
  return text;
}

std::string golden(TraceLog& log) {
  constexpr std::string_view kPrefix = "0x";
  std::map<std::string, char> letters;
  std::string text;
  for (const std::string& line : log.lines()) {
    size_t done = 0;
    for (size_t at = line.find(kPrefix); at != std::string::npos; at = line.find(kPrefix, done)) {
      size_t end = std::min(line.find_first_not_of("0123456789abcdef", at + kPrefix.size()), line.size());
      std::string address = line.substr(at, end - at);
      text += line.substr(done, at - done);
      if (address == "0x0") {
        text += address;
      } else {
        text += letters.try_emplace(address, static_cast<char>('A' + letters.size())).first->second;
      }
      done = end;
    }
    text += line.substr(done) + '\n';
  }
  log.clear();
  return text;
}

}  // namespace SnmpTest
