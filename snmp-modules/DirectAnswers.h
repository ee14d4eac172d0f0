// Answers GET, GETNEXT and GETBULK straight from a table's rows: one search for the position, then the
// cursor. The handler stands in front of the chain with net-snmp's table iterator and passes on to it
// whatever it does not answer; an answer is the same, octet for octet, whoever gives it. TableFrame.h makes
// one for each table.
//
// What it relies on in net-snmp 5.9:
// - Requests and varbinds belong to the agent, which copies names and values. Nothing is attached to a
//   request. The handler's myvoid is the table's Snmp::RegVoid, which is not the handler's to free or to
//   clone: when a registration inside of the table splits it, each part gets the pointer.
// - A GETBULK is one request for each varbind. `repeat` counts the varbinds behind requestvb that it
//   may still fill, 0 for a non-repeater. next_variable does not end with them: the message's next varbind
//   follows.
// - ASN_NULL in a varbind lets the agent go on in the next subtree, with what is left of `repeat`.
//   ASN_PRIV_RETRY lets it ask here again. It replaces an answer at or behind range_end with range_end.
// - `delegated` stays 0: each request is answered on return. requestvb_start, orig_repeat and range_end
//   are the agent's alone.
// - The agent holds answers against the manager's view and asks again from the name of one that is hidden. Of
//   a GETBULK it does so for the first repetition of a call only, and where one is hidden moves others, also
//   into the message's next varbind. So a call fills one repetition, unless nothing can be hidden: the table
//   is wholly in the view, and so is all of 1.3.6.1 when the message has other varbinds.
// - While it gathers a GETBULK the agent stops at msgMaxSize, between two calls. Calls for small
//   messages fill one repetition too.
#pragma once

#include <array>
#include <optional>
#include <span>

#include "snmp-modules/TableSpec.h"

namespace TrelSnmp {

// Of the parts of a row's index, which follow the column in a cell's name.
inline constexpr size_t kMaxIndexLength = 2;

// A walk through the rows of a table.
class TableRows {
 public:
  enum class Found : uint8_t {
    row,
    none,
    refused,  // no key can be made of the index
  };
  virtual ~TableRows() = default;
  // Requires: the index has as many parts as the table's.
  virtual Found find(std::span<const oid> index) = 0;
  // The first row whose index is greater. The index may be shorter or longer than the table's.
  virtual Found findBehind(std::span<const oid> index) = 0;
  // False when there is none.
  virtual bool first() = 0;
  // Requires: at a row.
  virtual bool next() = 0;
  // Writes the index. False when its conversion fails.
  virtual bool index(std::span<oid> parts) const = 0;
  // Converts the row's value in the column of that place in TableSpec::columns. False when that fails; the
  // varbind is as it was then.
  virtual bool store(size_t column, netsnmp_variable_list* varbind) const = 0;
};

// A table as names show it.
struct TableShape {
  TableOid rootOid;
  std::span<const unsigned> columns;  // ascending
  size_t indexLength;                 // at most kMaxIndexLength
};

// The arguments of net-snmp's call of the handler.
struct AgentCall {
  netsnmp_mib_handler* handler;
  netsnmp_handler_registration* registration;
  netsnmp_agent_request_info* info;
  netsnmp_request_info* requests;

  // Lets the chain behind the handler answer all requests, or one of them.
  int passOn() const { return netsnmp_call_next_handler(handler, registration, info, requests); }
  int passOn(netsnmp_request_info* request) const;
};

// Answers the requests, or lets the chain do so, in their order. Adds how many varbinds it filled to
// answered. Returns the handler's result.
int answerDirectly(const AgentCall& call, const TableShape& table, TableRows& rows, uint64_t& answered);

}  // namespace TrelSnmp
