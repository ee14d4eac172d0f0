// The callbacks of a table for net-snmp's sorted table iterator: they walk a table of the MIB state object in
// key order and answer requests for its columns, as its TableSpec states. In front of them stands the handler
// of the direct answers (DirectAnswers.h). Table modules instantiate them; net-snmp calls them, on the
// agent's thread.
//
// The index in a request is the hint from which a walk starts, so a request costs one lookup. Loop and data
// contexts are cursors that hold their row: it can be read after its removal, as long as net-snmp needs it.
#pragma once

#include <algorithm>
#include <optional>

#include "platform/snmp/KelstoreUtil.h"
#include "platform/snmp/RegVoidCollByContext.h"
#include "snmp-modules/DirectAnswers.h"
#include "snmp-modules/TableModule.h"

namespace TrelSnmp {

template <const auto& kTable, TableModule& kModule>
class TableFrame {
  using Spec = std::remove_cvref_t<decltype(kTable)>;
  using Key = typename Spec::Key;
  using Parts = KeyParts<Key>;
  using Table = typename Spec::Table;
  using Context = typename Table::Cursor;
  using Counter = Snmp::OrderedTableIteratorCounterTypes;

 public:
  static constexpr const auto& kSpec = kTable;

  // Registers the table. handler: handle(), or a function that calls it.
  static void initialize(const Zavro::String& context, Netsnmp_Node_Handler* handler = &handle) {
    kModule.initializeTable({.name = kTable.name,
                             .rootOid = kTable.rootOid(),
                             .modes = kTable.hasWritableColumn() ? HANDLER_CAN_RWRITE : HANDLER_CAN_RONLY,
                             .index = kTable.index,
                             .columns = columnNumbers(),
                             .handler = handler,
                             .direct = &handleDirectly,
                             .callbacks = callbacks()},
                            context);
  }

  static int handle(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                    netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
    trace(2, "{}_handler", kTable.name);
    trace(2, "{}_handler: request mode {}", kTable.name, info->mode);
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
      if (request->processed != 0) {
        trace(2, "{}_handler: request {} already processed", kTable.name, fmt::ptr(request));
        continue;
      }
      std::optional<int> result = info->mode == MODE_GET ? get(request) : refuseSet(request);
      if (result) return *result;
    }
    return SNMP_ERR_NOERROR;
  }

  // Leaves everything to the chain while its traces are on.
  static int handleDirectly(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                            netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
    static const TableShape kShape{kTable.rootOid(), columnNumbers(), std::tuple_size_v<Parts>};
    AgentCall call{handler, registration, info, requests};
    if (kModule.trace().enabled(2)) return call.passOn();
    auto* served = static_cast<Snmp::RegVoid*>(handler->myvoid);
    Rows rows(table(served));
    uint64_t answered = 0;
    int result = answerDirectly(call, kShape, rows, answered);
    served->counters().directAnswersInc(answered);
    return result;
  }

 private:
  class Rows final : public TableRows {
   public:
    explicit Rows(const Table& table) : table_(table) {}

    Found find(std::span<const oid> index) override {
      return to(index, [this](const Key& key) { return table_.cursorAt(key); });
    }
    Found findBehind(std::span<const oid> index) override {
      bool isPartial = index.size() < std::tuple_size_v<Parts>;
      return to(index, [this, isPartial](const Key& key) {
        return isPartial ? table_.lowerBoundCursor(key) : table_.upperBoundCursor(key);
      });
    }
    bool first() override {
      at_ = table_.begin();
      return static_cast<bool>(at_);
    }
    bool next() override {
      at_.next();
      return static_cast<bool>(at_);
    }
    bool index(std::span<oid> parts) const override {
      return TableModule::subIdsOf(partsOf(at_.key()), parts);
    }
    bool store(size_t column, netsnmp_variable_list* varbind) const override {
      return TableFrame::store(kTable.columns[column], *at_.entry(), varbind);
    }

   private:
    // The parts that the index does not have are 0.
    template <class Position>
    Found to(std::span<const oid> index, Position position) {
      Parts parts{};
      size_t given = std::min(index.size(), parts.size());
      std::transform(index.begin(), index.begin() + static_cast<std::ptrdiff_t>(given), parts.begin(),
                     [](oid subId) { return static_cast<uint32_t>(subId); });
      try {
        at_ = position(keyOf<Key>(parts));
      } catch (const Zavro::RangeException&) {
        return Found::refused;
      }
      return at_ ? Found::row : Found::none;
    }

    const Table& table_;
    Context at_;
  };

  static netsnmp_variable_list* get_first_data_point(void** loopSlot, void** /*dataSlot*/,
                                                     netsnmp_variable_list* index,
                                                     netsnmp_iterator_info* info) {
    auto* hint = static_cast<netsnmp_table_request_info*>(*loopSlot);
    trace(2, "{}_get_first_data_point - *hint = {}, number_indexes = {}", kTable.name, fmt::ptr(hint),
          hint != nullptr ? hint->number_indexes : 0);
    std::optional<Parts> parts = hintedParts(hint);
    Context* context = parts ? contextAt(*parts, info) : nullptr;
    bool hintMatched = context != nullptr;
    if (!hintMatched) {
      context = new Context(table(info).begin());
      count(info, Counter::startedAtFirst);
    }
    trace(2, "{}_get_first_data_point - allocated new loop context {}, hintMatched={}", kTable.name,
          fmt::ptr(context), hintMatched);
    *loopSlot = context;
    return iterationHelper(*context, index);
  }

  static netsnmp_variable_list* get_next_data_point(void** loopSlot, void** dataSlot,
                                                    netsnmp_variable_list* index,
                                                    netsnmp_iterator_info* info) {
    auto* context = static_cast<Context*>(*loopSlot);
    if (context == nullptr || !*context) {
      trace(2, "{}_get_next_data_point - at end of loop context {}", kTable.name, fmt::ptr(context));
      count(info, Counter::nextAfterEnd);
      return nullptr;
    }
    trace(2, "{}_get_next_data_point - advancing loop context {} ; data context {}", kTable.name,
          fmt::ptr(context), fmt::ptr(*dataSlot));
    context->next();
    count(info, *context ? Counter::advanced : Counter::reachedEnd);
    if (*dataSlot != nullptr) *static_cast<Context*>(*dataSlot) = *context;
    return iterationHelper(*context, index);
  }

  static void* make_data_context(void* loopContext, netsnmp_iterator_info* /*info*/) {
    auto* context = new Context(*static_cast<Context*>(loopContext));
    trace(2, "{}_make_data_context - allocated data context {}", kTable.name, fmt::ptr(context));
    return context;
  }

  static void free_data_context(void* context, netsnmp_iterator_info* /*info*/) {
    trace(2, "{}_free_data_context {}", kTable.name, fmt::ptr(context));
    delete static_cast<Context*>(context);
  }

  static void free_loop_context_at_end(void* context, netsnmp_iterator_info* /*info*/) {
    trace(2, "{}_free_loop_context_at_end {}", kTable.name, fmt::ptr(context));
    delete static_cast<Context*>(context);
  }

  static netsnmp_variable_list* iterationHelper(const Context& context, netsnmp_variable_list* index) {
    if (!context) {
      trace(2, "{}IterationHelper - iterator is at end", kTable.name);
      return nullptr;
    }
    kModule.writeIndex(kTable.name, kTable.index, partsOf(context.key()), index);
    return index;
  }

  // The key parts in the hint; nothing when the hint is not a complete index of this table.
  static std::optional<Parts> hintedParts(const netsnmp_table_request_info* hint) {
    if (hint == nullptr || hint->number_indexes != std::tuple_size_v<Parts>) return std::nullopt;
    Parts parts{};
    size_t found = kModule.readHint(kTable.name, kTable.index, hint->indexes, parts);
    if (found == parts.size()) return parts;
    trace(2, "{}_get_first_data_point - needed {} components, found only {}", kTable.name, parts.size(),
          found);
    return std::nullopt;
  }

  // A new context at the row with this index, or null.
  static Context* contextAt(const Parts& parts, netsnmp_iterator_info* info) {
    Context* context = nullptr;
    try {
      Key key = keyOf<Key>(parts);
      if (Context at = table(info).cursorAt(key)) {
        context = new Context(std::move(at));
        count(info, Counter::hintMatched);
      } else {
        trace(2, "{}_get_first_data_point - key '{}' not found in table", kTable.name, key);
        count(info, Counter::hintKeyNotFound);
      }
    } catch (const Zavro::RangeException& e) {
      trace(0, "Bad hint for {}: {} ctor threw exception: {}", kTable.name, kTable.keyType, e.what());
    }
    return context;
  }

  // Answers one request for a column. A result other than nothing is returned by the handler at once.
  static std::optional<int> get(netsnmp_request_info* request) {
    auto* context = static_cast<Context*>(netsnmp_extract_iterator_context(request));
    if (context == nullptr || !*context) {
      trace(2, "{}_handler: null data context in request", kTable.name);
      return SNMP_ERR_NOERROR;
    }
    unsigned number = columnNumber(request);
    const auto* column = kTable.column(number);
    if (column == nullptr) {
      trace(0, "{} invalid column {}", kTable.name, number);
      netsnmp_request_set_error(request, SNMP_NOSUCHOBJECT);
      return SNMP_ERR_NOERROR;
    }
    trace(2, "{}_handler: request GET for column {}, key {}", kTable.name, column->name, context->key());
    if (store(*column, *context->entry(), request->requestvb)) return std::nullopt;
    netsnmp_request_set_error(request, SNMP_ERR_GENERR);
    return SNMP_ERR_GENERR;
  }

  // Converts the column's value into the varbind. False when that fails, which is traced.
  template <class Column>
  static bool store(const Column& column, const typename Spec::Entry& entry, netsnmp_variable_list* varbind) {
    unsigned char buffer[kBufferSize];
    int length = column.convert(entry, buffer, column.capacity);
    if (length < 0) {
      trace(2, "handle_{} - {} failed for: {}", kTable.name, column.operation, column.field);
      return false;
    }
    if (column.lengthFits != nullptr && !column.lengthFits(length)) {
      trace(2, "handle_{} - entity {} length out of range: {} ({})", kTable.name,
            Snmp::KelstoreUtil::absolutePath(TrelMib::kPath), column.field, length);
      return false;
    }
    snmp_set_var_typed_value(varbind, column.type, buffer, static_cast<size_t>(length));
    return true;
  }

  static std::optional<int> refuseSet(netsnmp_request_info* request) {
    unsigned number = columnNumber(request);
    const auto* column = kTable.column(number);
    if (column != nullptr && column->writable) {
      trace(2, "{}_handler: SET is not configured for column {}", kTable.name, column->name);
    } else {
      trace(0, "{} invalid column {}", kTable.name, number);
    }
    netsnmp_request_set_error(request, SNMP_ERR_NOTWRITABLE);
    return SNMP_ERR_NOERROR;
  }

  static unsigned columnNumber(netsnmp_request_info* request) {
    const netsnmp_table_request_info* info = netsnmp_extract_table_info(request);
    return info != nullptr ? info->colnum : 0;
  }

  static const Table& table(const netsnmp_iterator_info* info) { return table(record(info)); }
  static const Table& table(const Snmp::RegVoid* served) {
    return kTable.source(static_cast<const TrelMib&>(*served->object()));
  }
  static void count(const netsnmp_iterator_info* info, Counter kind) {
    record(info)->counters().orderedIterCntrsInc(kind, 1);
  }
  static Snmp::RegVoid* record(const netsnmp_iterator_info* info) {
    return static_cast<Snmp::RegVoid*>(info->myvoid);
  }

  template <class... Args>
  static void trace(int level, fmt::format_string<Args...> format, Args&&... args) {
    kModule.trace().trace(level, format, std::forward<Args>(args)...);
  }

  // net-snmp takes a mutable list, and reads it as long as the table is registered.
  static std::span<unsigned> columnNumbers() {
    static auto numbers = [] {
      std::array<unsigned, std::tuple_size_v<decltype(Spec::columns)>> list{};
      for (size_t i = 0; i < list.size(); ++i) list[i] = kTable.columns[i].number;
      return list;
    }();
    return numbers;
  }

  static netsnmp_iterator_info callbacks() {
    netsnmp_iterator_info info{};
    info.get_first_data_point = &get_first_data_point;
    info.get_next_data_point = &get_next_data_point;
    info.make_data_context = &make_data_context;
    info.free_data_context = &free_data_context;
    info.free_loop_context_at_end = &free_loop_context_at_end;
    return info;
  }
};

}  // namespace TrelSnmp
