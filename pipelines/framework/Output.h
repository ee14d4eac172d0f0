// An output of a pipeline: one table of the MIB state object, written by rules that all pipelines share.
//
// A row whose value changes is deleted and inserted, never changed in place. Rows that are in the table at
// the start may be stale. The output then reconciles: it remembers the keys of all events, and when the
// inputs have been scanned, a walk in slices deletes the rows whose keys were not seen.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <optional>
#include <string>
#include <vector>

#include "pipelines/framework/Names.h"
#include "pipelines/framework/Pipeline.h"

namespace TrelSnmp::Agent {

class OutputBase {
 public:
  // name: such as "trelMibTrelReachabilityTableOutput"; inputs: the numbers of the streams that feed it.
  OutputBase(Pipeline& root, std::string name, std::vector<size_t> inputs);
  virtual ~OutputBase();
  OutputBase(const OutputBase&) = delete;
  OutputBase& operator=(const OutputBase&) = delete;

  const std::string& name() const { return name_; }
  bool ready() const { return root_.outputState().flag(readyFlag_); }
  bool reconciling() const { return reconciling_; }
  bool useBookmark() const { return useBookmark_; }
  const Zavro::Ptr<Vem::Task>& reconciliationTask() const { return task_; }

  // "handle<Output>InputReady": reconciles once the inputs have been scanned. Called when the pipeline
  // starts, when a stream's scan completes, and by the reconciliation task.
  void handleInputReady();

  // For the pipeline, in this order.
  void start();
  void noteStaleRows();
  // Another pipeline may have written rows: reconciles again, and is not ready until that is done.
  void verifyRows();
  // The pipeline ends: deletes the rows whose keys were not seen, if it is reconciling and owns the rows.
  void stop();

  virtual size_t seenSize() const = 0;
  virtual std::string bookmarkText() const = 0;

 protected:
  virtual bool tableEmpty() const = 0;
  // Deletes stale rows, from where the last run stopped; false when it yielded.
  virtual bool deletionScan() = 0;
  virtual void deleteUnseen() = 0;
  virtual void forgetSeen() = 0;

  Pipeline& root() const { return root_; }
  const Lumalog::Handle& trace() const { return root_.traceHandle(); }
  bool shouldYieldBeforeRow(uint64_t items) const;
  void deletionScanYields(uint64_t items, uint64_t deletions);
  void deletionScanEnds(uint64_t items, uint64_t deletions);

 private:
  bool inputsScanned() const;
  void makeTask();

  Pipeline& root_;
  const std::string name_;
  const std::vector<size_t> inputs_;
  size_t readyFlag_ = 0;
  Zavro::Ptr<Vem::Task> task_;
  bool reconciling_ = false;
  bool useBookmark_ = false;
};

// Rows describes access to the table:
//   using Table = ...;                                     the table of TrelMib
//   using Value = ...;                                     what an event carries beside the key
//   kOutput, kInto                                         the output's name and its statement
//   table(mib), del(mib, key), text(key, value)
//   write(mib, key, value)                                 inserts the row; deletes one with another value
//                                                          first, and keeps one with this value
// TableRows has the parts that depend on the table only; RecordRows has all for rows of one record.
template <class TableType>
struct TableRows {
  using Table = TableType;
  static constexpr const char* kTable = Table::Row::kTable;
  inline static const std::string kOutput = "trelMib" + capitalised(kTable) + "Output";
  inline static const std::string kInto = fmt::format("into( trelMib.{}[ key ] )", kTable);
  static const Table& table(const TrelMib& mib) { return mib.of<Table>().table(); }
  static void del(TrelMib& mib, const typename Table::Key& key) { mib.of<Table>().del(key); }
};

template <class TableType>
struct RecordRows : TableRows<TableType> {
  using Key = typename TableType::Key;
  using Value = typename TableType::Row::Record;
  static void write(TrelMib& mib, const Key& key, const Value& record) {
    mib.of<TableType>().write(key, record);
  }
  static std::string text(const Key& key, const Value& record) {
    return fmt::format("({}, {})", key, record);
  }
};

template <class Rows>
class Output final : public OutputBase {
 public:
  using Table = typename Rows::Table;
  using Key = typename Table::Key;
  using Value = typename Rows::Value;

  Output(Pipeline& root, std::vector<size_t> inputs) : OutputBase(root, Rows::kOutput, std::move(inputs)) {}

  // Writes the row, whatever the table has under the key.
  void write(const Key& key, const Value& value) {
    if (!root().ownsRows()) return;
    noteSeen(key);
    if (trace().enabled(7)) {
      trace().trace(7, "{}: inserting k1={}, value={}", Rows::kInto, key, Rows::text(key, value));
    }
    Rows::write(mib(), key, value);
  }

  // Deletes the row, if there is one.
  void del(const Key& key) {
    if (!root().ownsRows()) return;
    noteSeen(key);
    trace().trace(7, "{}: deleting k1={}", Rows::kInto, key);
    Rows::del(mib(), key);
  }

  size_t seenSize() const override { return seen_.size(); }
  std::string bookmarkText() const override { return Kor::optText(bookmark_); }

 private:
  TrelMib& mib() const { return *root().trelMib(); }
  const Table& table() const { return Rows::table(mib()); }
  bool tableEmpty() const override { return table().empty(); }

  void noteSeen(const Key& key) {
    if (reconciling()) seen_.insert(key);
  }

  bool deletionScan() override {
    uint64_t items = 0;
    uint64_t deletions = 0;
    auto row = useBookmark() && bookmark_ ? table().lowerBoundCursor(*bookmark_) : table().begin();
    for (; row; row.next()) {
      if (shouldYieldBeforeRow(items)) {
        bookmark_ = row.key();
        deletionScanYields(items, deletions);
        return false;
      }
      if (!seen_.contains(row.key())) {
        Rows::del(mib(), row.key());
        ++deletions;
      }
      ++items;
    }
    bookmark_.reset();
    deletionScanEnds(items, deletions);
    return true;
  }

  void deleteUnseen() override {
    for (auto row = table().begin(); row; row.next()) {
      if (!seen_.contains(row.key())) Rows::del(mib(), row.key());
    }
  }

  void forgetSeen() override { seen_ = {}; }

  absl::flat_hash_set<Key> seen_;
  std::optional<Key> bookmark_;
};

}  // namespace TrelSnmp::Agent
