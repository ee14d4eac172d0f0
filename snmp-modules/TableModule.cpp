#include "snmp-modules/TableModule.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/snmp/AsnConversions.h"
#include "platform/snmp/KelstoreUtil.h"
#include "platform/snmp/RegVoidCollByContext.h"
#include "platform/toggles/Toggles.h"
#include "platform/zavro/Assert.h"

namespace TrelSnmp {
namespace {

constexpr size_t kOidTextSize = 200;

// Zeroed memory for net-snmp's registration data, which net-snmp frees with free().
template <class T>
T* allocate() {
  auto* memory = static_cast<T*>(std::calloc(1, sizeof(T)));
  zavroAssert(memory);
  return memory;
}

Zavro::String quoted(const Zavro::String& context) { return '"' + context + '"'; }

// Reports a failed check under the name of the table's initialize function.
[[noreturn]] void initializeFailed(const char* expression, const char* table, int line) {
  Zavro::String function =
      fmt::format("void initialize_table_{}(Snmp::Config::PtrConst, Kor::String)", table);
  Zavro::assertFailed(expression, function, static_cast<const char*>(__FILE__), line);
}

// The MIB state object.
Zavro::Ptr<TrelMib> servedObject(const char* table) {
  Zavro::Ptr<Kor::Entity> e = Snmp::KelstoreUtil::getEntityRelative(TrelMib::kPath);
  if (!e) {
    fmt::print(stderr, "Can not getEntityRelative( {} ) for table {}. Is this path correct?\n",
               TrelMib::kPath, table);
    std::fflush(stderr);
    initializeFailed("e", table, __LINE__);
  }
  auto ptr = boost::dynamic_pointer_cast<TrelMib>(e);
  if (!ptr) {
    fmt::print(stderr, "{} does not appear to be of type TrelSnmp::TrelMib.\n", TrelMib::kPath);
    initializeFailed("ptr", table, __LINE__);
  }
  return ptr;
}

Zavro::String oidText(const TableOid& rootOid) {
  std::array<char, kOidTextSize> text{};
  snprint_objid(text.data(), text.size(), rootOid.data(), rootOid.size());
  return text.data();
}

netsnmp_handler_registration* handlerRegistration(const TableRegistration& table,
                                                  const Zavro::String& context) {
  return netsnmp_create_handler_registration(fmt::format("{}_{}", table.name, context).c_str(), table.handler,
                                             table.rootOid.data(), table.rootOid.size(), table.modes);
}

netsnmp_column_info* columnInfo(const TableRegistration& table) {
  auto* info = allocate<netsnmp_column_info>();
  info->isRange = 0;
  info->list_count = static_cast<char>(table.columns.size());
  info->details.list = table.columns.data();
  return info;
}

// Between an AgentX master and its subagent, net-snmp sign-extends a sub-identifier of 2^31 or more. The
// table iterator would then search behind all rows.
int makeNamesUnsigned(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                      netsnmp_agent_request_info* /*info*/, netsnmp_request_info* requests) {
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    for (oid& subId : std::span(request->requestvb->name, request->requestvb->name_length)) {
      subId &= std::numeric_limits<uint32_t>::max();
    }
  }
  return SNMP_ERR_NOERROR;
}

netsnmp_mib_handler* unsignedNamesHandler() {
  netsnmp_mib_handler* handler = netsnmp_create_handler("unsigned_names", &makeNamesUnsigned);
  zavroAssert(handler != nullptr);
  handler->flags |= MIB_HANDLER_AUTO_NEXT;
  return handler;
}

netsnmp_mib_handler* directAnswersHandler(const TableRegistration& table, Snmp::RegVoid* record) {
  netsnmp_mib_handler* handler = netsnmp_create_handler("direct_answers", table.direct);
  zavroAssert(handler != nullptr);
  handler->myvoid = record;
  return handler;
}

void injectInFront(netsnmp_handler_registration* registration, netsnmp_mib_handler* handler,
                   const char* table) {
  int injected = netsnmp_inject_handler(registration, handler);
  if (injected != SNMPERR_SUCCESS) initializeFailed("injected == SNMPERR_SUCCESS", table, __LINE__);
}

netsnmp_iterator_info* iteratorInfo(const TableRegistration& table, Snmp::RegVoid* record,
                                    netsnmp_table_registration_info* tableInfo) {
  auto* info = allocate<netsnmp_iterator_info>();
  *info = table.callbacks;
  info->myvoid = record;
  info->flags = NETSNMP_ITERATOR_FLAG_SORTED | NETSNMP_HANDLER_OWNS_IINFO;
  info->table_reginfo = tableInfo;
  return info;
}

}  // namespace

void TableModule::initializeTable(const TableRegistration& table, const Zavro::String& context) {
  if (trace_.enabled(1)) {
    trace_.trace(1, "initialize_table_{} initializing oid {} in context {}", table.name,
                 oidText(table.rootOid), quoted(context));
  }
  netsnmp_handler_registration* registration = handlerRegistration(table, context);
  if (!context.empty()) {
    netsnmp_handler_registration_free(registration);
    trace_.trace(2, "initialize_table_{} in context {} kelstorePathWithContext not specified ", table.name,
                 quoted(context));
    return;
  }
  registrations_[context].push_back(registration);
  Zavro::Ptr<TrelMib> object = servedObject(table.name);
  Snmp::RegVoid* record =
      Snmp::RegVoidCollByContext::singleton()->addRegVoid(context, table.name, std::move(object));
  registration->my_reg_void = record;

  netsnmp_column_info* columns = columnInfo(table);
  netsnmp_iterator_info* iterator = iteratorInfo(table, record, tableInfo(table, context, columns));
  columnInfos_[context].push_back(columns);
  int result = netsnmp_register_table_iterator(registration, iterator);
  if (result != MIB_REGISTERED_OK) initializeFailed("result == MIB_REGISTERED_OK", table.name, __LINE__);
  // Only now: a handler that is injected before the registration ends up behind the iterator. The serialising
  // handler has to stand in front of it, since the iterator takes the hint of all varbinds from the first
  // one.
  injectInFront(registration, netsnmp_get_serialize_handler(), table.name);
  if (Toggles::getToggleState("TrelSnmpDirect", "TrelCore.json", true)) {
    injectInFront(registration, directAnswersHandler(table, record), table.name);
  }
  injectInFront(registration, unsignedNamesHandler(), table.name);
  trace_.trace(8, "Initialized table {} in context {}", table.name, quoted(context));
}

netsnmp_table_registration_info* TableModule::tableInfo(const TableRegistration& table,
                                                        const Zavro::String& context,
                                                        netsnmp_column_info* columns) const {
  auto* info = allocate<netsnmp_table_registration_info>();
  for (const IndexColumn& column : table.index) {
    if (snmp_varlist_add_variable(&info->indexes, nullptr, 0, column.type, nullptr, 0) == nullptr) {
      trace_.trace(0, "Failed to set up {} in netsnmp table_info in context {}", column.name,
                   quoted(context));
    }
  }
  info->min_column = table.columns.front();
  info->max_column = table.columns.back();
  info->valid_columns = columns;
  return info;
}

void TableModule::unregister(const Zavro::String& context) {
  trace_.trace(2, "Unregistering {} in context {}", name(), quoted(context));
  std::vector<netsnmp_handler_registration*> registrations = registrations_[context];
  Zavro::Ptr<Snmp::RegVoidCollByContext> records = Snmp::RegVoidCollByContext::singleton();
  for (netsnmp_handler_registration* registration : registrations) {
    Zavro::String handlerName = registration->handlerName;
    records->delRegVoid(context, handlerName.substr(0, handlerName.find('_')));
    netsnmp_unregister_handler(registration);
  }
  registrations_.erase(context);
  // net-snmp frees all registration data but these, which it has read until now.
  for (netsnmp_column_info* columns : columnInfos_[context]) std::free(columns);
  columnInfos_.erase(context);
  Snmp::unregisterMibContext(context, name());
}

size_t TableModule::readHint(const char* table, std::span<const IndexColumn> index,
                             const netsnmp_variable_list* varbinds, std::span<uint32_t> parts) const {
  size_t found = 0;
  const netsnmp_variable_list* varbind = varbinds;
  for (size_t i = 0; i < index.size() && varbind != nullptr; ++i, varbind = varbind->next_variable) {
    const IndexColumn& column = index[i];
    if (varbind->type != column.type) {
      trace_.trace(0, "hint for {} has incorrect type! Expecting {} but got {}", column.name, column.type,
                   varbind->type);
      continue;
    }
    try {
      parts[i] = Snmp::AsnUnsignedToU32()(varbind->val.integer);
    } catch (const Zavro::RangeException& e) {
      trace_.trace(0, "hint for index {} of {} is out of range!{}", column.name, table, e.what());
      break;
    }
    trace_.trace(2, "hint component {} is '{}'", column.name, parts[i]);
    ++found;
  }
  return found;
}

bool TableModule::subIdsOf(std::span<const uint32_t> parts, std::span<oid> subIds) {
  for (size_t i = 0; i < parts.size(); ++i) {
    unsigned char buffer[kBufferSize];
    uint32_t value = 0;
    if (Snmp::U32ToAsnUnsignedF()(parts[i], buffer, sizeof buffer) != sizeof value) return false;
    std::memcpy(&value, buffer, sizeof value);
    subIds[i] = value;
  }
  return true;
}

void TableModule::writeIndex(const char* table, std::span<const IndexColumn> index,
                             std::span<const uint32_t> parts, netsnmp_variable_list* varbinds) const {
  netsnmp_variable_list* varbind = varbinds;
  for (size_t i = 0; i < index.size() && varbind != nullptr; ++i, varbind = varbind->next_variable) {
    trace_.trace(2, "{}IterationHelper - iterator has another value: {}={}", table, index[i].field, parts[i]);
    oid subId = 0;
    if (!subIdsOf(parts.subspan(i, 1), {&subId, 1})) continue;
    // Written as a long: net-snmp sign-extends a four-byte INTEGER, and compares indexes as unsigned longs,
    // so it would never find a row with an index of 2^31 or more.
    long widened = static_cast<long>(subId);
    snmp_set_var_typed_value(varbind, index[i].type, &widened, sizeof widened);
  }
}

}  // namespace TrelSnmp
