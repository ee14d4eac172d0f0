// An SNMP agent that serves the reachability and the storage table in one of the other ways that net-snmp
// offers, from rows that never change:
//
//   peers-agent container|data|iterator|native MEMBERS UDP-PORT
//
// - container: net-snmp's table_container helper, over its sorted array;
// - data: its table_data helper, a linked list;
// - iterator: its sorted table_iterator with hint and serialising handler, with callbacks as lean as can be;
// - native: one handler that answers GET, GETNEXT and GETBULK itself.
//
// It writes "ready" once it serves, and ends by a signal.
#include <net-snmp/net-snmp-config.h>
// The order matters to net-snmp.
#include <net-snmp/net-snmp-includes.h>
// The agent's part builds on the library's.
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Cluster.h"

// As in the daemon: no files that say who may ask, so that what differs is the way of serving alone.
extern "C" int hosts_ctl(char* /*daemon*/, char* /*name*/, char* /*address*/, char* /*user*/) { return 1; }

namespace {

using Bench::Row;
using Bench::Table;

constexpr oid kEnterprise[] = {1, 3, 6, 1, 4, 1, TREL_ENTERPRISE_NUMBER, 3};
constexpr size_t kEnterpriseLength = std::size(kEnterprise);
constexpr size_t kRootLength = kEnterpriseLength + 3;
constexpr size_t kIndexLength = 2;
constexpr size_t kNameLength = kRootLength + 2 + kIndexLength;  // entry, column, index

struct Served {
  Table table;
  const char* name;
  std::array<oid, 3> arc;
  unsigned firstColumn;
  unsigned lastColumn;
  std::vector<Row> rows;
  std::vector<std::string> mounts;  // of storage, beside rows

  std::array<oid, kRootLength> root() const {
    std::array<oid, kRootLength> root{};
    std::copy(std::begin(kEnterprise), std::end(kEnterprise), root.begin());
    std::copy(arc.begin(), arc.end(), root.begin() + kEnterpriseLength);
    return root;
  }
};

std::array<Served, 2> tables{
    Served{Table::reachability, "reachability", {40, 1, 2}, 3, 5, {}, {}},
    Served{Table::storage, "storage", {41, 1, 3}, 3, 7, {}, {}},
};

void setInteger(netsnmp_variable_list* varbind, u_char type, uint32_t value) {
  snmp_set_var_typed_integer(varbind, type, static_cast<long>(value));
}

void setReachability(netsnmp_variable_list* varbind, const Row& row, unsigned column) {
  constexpr uint32_t kReachable = 3;
  if (column == 3) return setInteger(varbind, ASN_INTEGER, row.second);
  if (column == 4) return setInteger(varbind, ASN_INTEGER, kReachable);
  setInteger(varbind, ASN_TIMETICKS, 0);
}

void setStorage(netsnmp_variable_list* varbind, const Row& row, const std::string& mount, unsigned column) {
  static constexpr oid kFixedDisk[] = {1, 3, 6, 1, 2, 1, 25, 2, 1, 4};
  switch (column) {
    case 3:
      snmp_set_var_typed_value(varbind, ASN_OBJECT_ID, kFixedDisk, sizeof kFixedDisk);
      return;
    case 4:
      snmp_set_var_typed_value(varbind, ASN_OCTET_STR, mount.data(), mount.size());
      return;
    case 5:
      return setInteger(varbind, ASN_INTEGER, Bench::kAllocationUnits);
    case 6:
      return setInteger(varbind, ASN_INTEGER, Bench::storageSizeOf(row));
    default:
      setInteger(varbind, ASN_INTEGER, Bench::storageSizeOf(row) - Bench::kStorageFree);
  }
}

// Into the varbind.
void setValue(netsnmp_variable_list* varbind, const Served& served, const Row& row, unsigned column) {
  if (served.table == Table::reachability) return setReachability(varbind, row, column);
  setStorage(varbind, row, served.mounts[static_cast<size_t>(&row - served.rows.data())], column);
}

// The first row at or behind the index.
const Row* lowerBound(const Served& served, uint64_t member, uint64_t second) {
  auto at = std::lower_bound(served.rows.begin(), served.rows.end(), std::pair(member, second),
                             [](const Row& row, const auto& index) {
                               return std::pair<uint64_t, uint64_t>(row.member, row.second) < index;
                             });
  return at == served.rows.end() ? nullptr : &*at;
}

// The next one, or null.
const Row* behind(const Served& served, const Row* row) {
  return row == &served.rows.back() ? nullptr : row + 1;
}

netsnmp_handler_registration* registrationOf(const Served& served, Netsnmp_Node_Handler* handler, int modes) {
  auto root = served.root();
  auto* registration =
      netsnmp_create_handler_registration(served.name, handler, root.data(), root.size(), modes);
  registration->my_reg_void = const_cast<Served*>(&served);
  return registration;
}

const Served& servedBy(const netsnmp_handler_registration* registration) {
  return *static_cast<const Served*>(registration->my_reg_void);
}

netsnmp_table_registration_info* tableInfo(const Served& served) {
  auto* info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
  netsnmp_table_helper_add_indexes(info, ASN_INTEGER, ASN_INTEGER, 0);
  info->min_column = served.firstColumn;
  info->max_column = served.lastColumn;
  return info;
}

// A handler behind one of net-snmp's helpers, which have found the row.
template <auto RowOf>
int answer(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* registration,
           netsnmp_agent_request_info* /*info*/, netsnmp_request_info* requests) {
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0) continue;
    const Row* row = RowOf(request);
    const netsnmp_table_request_info* table = netsnmp_extract_table_info(request);
    if (row == nullptr || table == nullptr) continue;
    setValue(request->requestvb, servedBy(registration), *row, table->colnum);
  }
  return SNMP_ERR_NOERROR;
}

// -- table_container

struct ContainedRow {
  netsnmp_index index;  // first: what the container knows of a row
  std::array<oid, kIndexLength> oids;
  const Row* row;
};

const Row* containedRow(netsnmp_request_info* request) {
  auto* contained = static_cast<ContainedRow*>(netsnmp_container_table_row_extract(request));
  return contained != nullptr ? contained->row : nullptr;
}

int registerContainer(Served& served) {
  auto* rows = new std::vector<ContainedRow>(served.rows.size());
  netsnmp_container* container = netsnmp_container_find("table_container");
  for (size_t i = 0; i < rows->size(); ++i) {
    ContainedRow& contained = (*rows)[i];
    contained.row = &served.rows[i];
    contained.oids = {contained.row->member, contained.row->second};
    contained.index = {kIndexLength, contained.oids.data()};
    CONTAINER_INSERT(container, &contained);
  }
  return netsnmp_container_table_register(registrationOf(served, answer<containedRow>, HANDLER_CAN_RONLY),
                                          tableInfo(served), container, TABLE_CONTAINER_KEY_NETSNMP_INDEX);
}

// -- table_data

const Row* dataRow(netsnmp_request_info* request) {
  return static_cast<const Row*>(netsnmp_extract_table_row_data(request));
}

int registerData(Served& served) {
  netsnmp_table_data* data = netsnmp_create_table_data(served.name);
  netsnmp_table_data_add_index(data, ASN_INTEGER);
  netsnmp_table_data_add_index(data, ASN_INTEGER);
  for (const Row& row : served.rows) {
    netsnmp_table_row* entry = netsnmp_create_table_data_row();
    for (long index : {row.member, row.second}) {
      netsnmp_table_row_add_index(entry, ASN_INTEGER, &index, sizeof index);
    }
    entry->data = const_cast<Row*>(&row);
    netsnmp_table_data_add_row(data, entry);
  }
  return netsnmp_register_table_data(registrationOf(served, answer<dataRow>, HANDLER_CAN_RONLY), data,
                                     tableInfo(served));
}

// -- table_iterator

netsnmp_variable_list* indexOf(const Row* row, netsnmp_variable_list* index) {
  if (row == nullptr) return nullptr;
  setInteger(index, ASN_INTEGER, row->member);
  setInteger(index->next_variable, ASN_INTEGER, row->second);
  return index;
}

netsnmp_variable_list* firstPoint(void** loopSlot, void** /*dataSlot*/, netsnmp_variable_list* index,
                                  netsnmp_iterator_info* info) {
  const auto& served = *static_cast<const Served*>(info->myvoid);
  const auto* hint = static_cast<const netsnmp_table_request_info*>(*loopSlot);
  const Row* row = served.rows.data();
  if (hint != nullptr && hint->number_indexes == kIndexLength) {
    auto member = static_cast<uint64_t>(*hint->indexes->val.integer);
    auto second = static_cast<uint64_t>(*hint->indexes->next_variable->val.integer);
    const Row* found = lowerBound(served, member, second);
    if (found != nullptr && found->member == member && found->second == second) row = found;
  }
  *loopSlot = const_cast<Row*>(row);
  return indexOf(row, index);
}

netsnmp_variable_list* nextPoint(void** loopSlot, void** /*dataSlot*/, netsnmp_variable_list* index,
                                 netsnmp_iterator_info* info) {
  const auto& served = *static_cast<const Served*>(info->myvoid);
  if (*loopSlot == nullptr) return nullptr;
  const Row* row = behind(served, static_cast<const Row*>(*loopSlot));
  *loopSlot = const_cast<Row*>(row);
  return indexOf(row, index);
}

void* contextOf(void* loopContext, netsnmp_iterator_info* /*info*/) { return loopContext; }

const Row* iteratorRow(netsnmp_request_info* request) {
  return static_cast<const Row*>(netsnmp_extract_iterator_context(request));
}

int registerIterator(Served& served) {
  auto* registration = registrationOf(served, answer<iteratorRow>, HANDLER_CAN_RONLY);
  auto* info = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
  info->get_first_data_point = &firstPoint;
  info->get_next_data_point = &nextPoint;
  info->make_data_context = &contextOf;
  info->myvoid = &served;
  info->flags = NETSNMP_ITERATOR_FLAG_SORTED;
  info->table_reginfo = tableInfo(served);
  int result = netsnmp_register_table_iterator(registration, info);
  if (result != MIB_REGISTERED_OK) return result;
  // In front of the iterator, which takes the hint of all varbinds from the first one.
  return netsnmp_inject_handler(registration, netsnmp_get_serialize_handler());
}

// -- a handler that answers GETBULK itself

struct Cell {
  unsigned column;
  const Row* row;  // null: there is none
};

// Where a name leads to in the table: the cell at it, or behind it.
Cell cellAt(const Served& served, const netsnmp_variable_list* varbind, bool isNext, bool inclusive) {
  const oid* below = varbind->name + kRootLength;
  size_t length = varbind->name_length > kRootLength ? varbind->name_length - kRootLength : 0;
  unsigned column = served.firstColumn;
  if (!isNext) {
    if (length != kNameLength - kRootLength || below[0] != 1) return {};
    const Row* row = lowerBound(served, below[2], below[3]);
    bool isThere = row != nullptr && row->member == below[2] && row->second == below[3];
    bool isColumn = below[1] >= served.firstColumn && below[1] <= served.lastColumn;
    return {static_cast<unsigned>(below[1]), isThere && isColumn ? row : nullptr};
  }
  auto root = served.root();
  // It stands before the root when the agent comes from an earlier table.
  bool isBefore = snmp_oid_compare(varbind->name, varbind->name_length, root.data(), root.size()) < 0;
  if (isBefore || length == 0 || below[0] < 1) return {column, served.rows.data()};
  if (below[0] > 1) return {};
  if (length == 1 || below[1] < column) return {column, served.rows.data()};
  if (below[1] > served.lastColumn) return {};
  column = static_cast<unsigned>(below[1]);
  const Row* row = served.rows.data();
  if (length > 2) {
    row = lowerBound(served, below[2], length > 3 ? below[3] : 0);
    bool isSame = row != nullptr && length > 3 && row->member == below[2] && row->second == below[3];
    if (isSame && (length > 4 || !inclusive)) row = behind(served, row);
  }
  if (row == nullptr && column < served.lastColumn) return {column + 1, served.rows.data()};
  return {column, row};
}

void set(netsnmp_variable_list* varbind, const Served& served, const Cell& cell) {
  std::array<oid, kNameLength> name{};
  auto root = served.root();
  std::copy(root.begin(), root.end(), name.begin());
  const std::array<oid, 4> rest{1, cell.column, cell.row->member, cell.row->second};
  std::copy(rest.begin(), rest.end(), name.begin() + kRootLength);
  snmp_set_var_objid(varbind, name.data(), name.size());
  setValue(varbind, served, *cell.row, cell.column);
}

// One repetition after the other, into the varbinds that net-snmp has made for them. One that is left empty
// makes it go on behind the table.
void answerBulk(const Served& served, netsnmp_request_info* request) {
  Cell cell = cellAt(served, request->requestvb, true, request->inclusive != 0);
  while (cell.row != nullptr) {
    netsnmp_variable_list* varbind = request->requestvb;
    set(varbind, served, cell);
    cell.row = behind(served, cell.row);
    if (cell.row == nullptr && cell.column < served.lastColumn) cell = {cell.column + 1, served.rows.data()};
    bool isPast = snmp_oid_compare(varbind->name, varbind->name_length, request->range_end,
                                   request->range_end_len) >= 0;
    if (request->repeat <= 0 || isPast) return;
    --request->repeat;
    if (request->inclusive == 2) request->inclusive = 0;
    snmp_set_var_objid(varbind->next_variable, varbind->name, varbind->name_length);
    request->requestvb = varbind->next_variable;
  }
}

int answerNatively(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* registration,
                   netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  const Served& served = servedBy(registration);
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0) continue;
    if (info->mode == MODE_GETBULK) {
      answerBulk(served, request);
      continue;
    }
    bool isNext = info->mode == MODE_GETNEXT;
    Cell cell = cellAt(served, request->requestvb, isNext, request->inclusive != 0);
    if (cell.row != nullptr) {
      set(request->requestvb, served, cell);
    } else if (!isNext) {
      netsnmp_request_set_error(request, SNMP_NOSUCHINSTANCE);
    }
  }
  return SNMP_ERR_NOERROR;
}

int registerNative(Served& served) {
  return netsnmp_register_handler(
      registrationOf(served, answerNatively, HANDLER_CAN_RONLY | HANDLER_CAN_GETBULK));
}

// --

int registerWith(const std::string& way, Served& served) {
  if (way == "container") return registerContainer(served);
  if (way == "data") return registerData(served);
  if (way == "iterator") return registerIterator(served);
  if (way == "native") return registerNative(served);
  throw std::runtime_error(way + ": expected container, data, iterator or native");
}

[[noreturn]] void serve(const std::string& way, uint32_t members, const std::string& port) {
  setenv("MIBS", "", 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, ("udp:127.0.0.1:" + port).c_str());
  init_agent("peers-agent");
  for (Served& served : tables) {
    served.rows = Bench::rowsOf(served.table, members);
    for (const Row& row : served.rows) served.mounts.push_back(Bench::mountOf(row));
    if (registerWith(way, served) != MIB_REGISTERED_OK) {
      throw std::runtime_error(std::string(served.name) + " cannot be registered");
    }
  }
  init_snmp("peers-agent");
  netsnmp_config(std::string(Bench::kAccess).data());
  if (init_master_agent() != 0) throw std::runtime_error("UDP port " + port + " cannot be opened");
  std::puts("ready");
  std::fflush(stdout);
  for (;;) agent_check_and_process(1);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 4)
    throw std::runtime_error("usage: peers-agent container|data|iterator|native MEMBERS UDP-PORT");
  serve(argv[1], static_cast<uint32_t>(std::stoul(argv[2])), argv[3]);
} catch (const std::exception& error) {
  std::fprintf(stderr, "peers-agent: %s\n", error.what());
  return 1;
}
