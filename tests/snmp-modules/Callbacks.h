// Calls a registered table's callbacks and handler one by one, as net-snmp would, with requests made by hand.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "snmp-modules/NetSnmp.h"
#include "tests/support/TraceLog.h"

namespace SnmpTest {

// The registration that answers for a table's OID, or null.
netsnmp_handler_registration* registrationAt(const std::string& name);
netsnmp_iterator_info* iteratorInfoOf(const netsnmp_handler_registration* registration);

// One component of an index, as the table helper parses it.
struct Component {
  long value;
  u_char type = ASN_INTEGER;
};

// A parsed table request: the hint that net-snmp gives for a column and index.
class TableRequest {
 public:
  // count: number_indexes, where it is not the number of components.
  explicit TableRequest(const std::vector<Component>& components, std::optional<unsigned> count = {},
                        unsigned column = 2);
  ~TableRequest();
  TableRequest(const TableRequest&) = delete;
  TableRequest& operator=(const TableRequest&) = delete;
  netsnmp_table_request_info* info() { return &info_; }

 private:
  netsnmp_table_request_info info_{};
};

// A walk of one table: its loop slot, data slot and index varbinds. Index texts are the components joined by
// dots, or "end".
class DirectWalk {
 public:
  explicit DirectWalk(const std::string& table);
  ~DirectWalk();
  DirectWalk(const DirectWalk&) = delete;
  DirectWalk& operator=(const DirectWalk&) = delete;

  std::string first(netsnmp_table_request_info* hint = nullptr);
  std::string first(const std::vector<Component>& hint) { return first(TableRequest(hint).info()); }
  std::string next();
  // The context now in the loop slot.
  void* loopContext() const { return loop_; }
  // A data context made of the loop context; the walk keeps it in its data slot when asked to.
  void* makeData(bool passOn = false);
  void freeData(void* context) { info_->free_data_context(context, info_); }
  void freeLoop();

  netsnmp_iterator_info* info() { return info_; }

 private:
  std::string indexText(const netsnmp_variable_list* index) const;

  netsnmp_iterator_info* info_;
  netsnmp_variable_list* index_;
  void* loop_ = nullptr;
  void* data_ = nullptr;
};

// A request for one column, as it reaches the handler.
struct ColumnRequest {
  unsigned column;
  void* dataContext = nullptr;
  bool processed = false;
};

// A data context of the first row of a table.
class RowContext {
 public:
  explicit RowContext(const std::string& table) : walk_(table) {
    walk_.first();
    data_ = walk_.makeData();
  }
  ~RowContext() { walk_.freeData(data_); }
  RowContext(const RowContext&) = delete;
  RowContext& operator=(const RowContext&) = delete;
  void* get() const { return data_; }

 private:
  DirectWalk walk_;
  void* data_;
};

// Calls the handler for the requests and renders what became of it: its result, then for each request the
// value, as InProcessAgent writes it, the error or "untouched".
std::string handle(Netsnmp_Node_Handler* handler, int mode, const std::vector<ColumnRequest>& requests);

// Calls the handler of a table's direct answers for one name, of which the manager may see all: with GET,
// GETNEXT, or GETBULK with that many repetitions. Gives its result, then "<name>=<value>" for each answer,
// and "end" where it leaves the rest to what is behind the table, "again" where it is to be asked again, or
// the error.
std::string askDirectly(const std::string& table, int mode, const std::string& name, int repetitions = 1);

// The log's lines with each address replaced by a letter, in the order of their first appearance (a null
// address stays "0x0"), one line each. Clears the log.
std::string golden(TraceLog& log);

}  // namespace SnmpTest
