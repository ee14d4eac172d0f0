// The records of registered tables: for each SNMP context and table, the served object and counters.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/kor/Entity.h"

namespace Snmp {

enum class OrderedTableIteratorCounterTypes : uint8_t {
  hintKeyNotFound = 0,
  hintMatched = 1,
  startedAtFirst = 2,
  nextAfterEnd = 3,
  reachedEnd = 4,
  advanced = 5,
};

// Counts the steps of one table's walks, by kind, and its varbinds that were answered without such a walk.
class TableCounters {
 public:
  static constexpr size_t kKinds = 6;
  void orderedIterCntrsInc(OrderedTableIteratorCounterTypes kind, uint64_t by) {
    counters_[static_cast<size_t>(kind)] += by;
  }
  uint64_t orderedIterCntr(OrderedTableIteratorCounterTypes kind) const {
    return counters_[static_cast<size_t>(kind)];
  }
  void directAnswersInc(uint64_t by) { directAnswers_ += by; }
  uint64_t directAnswers() const { return directAnswers_; }

 private:
  std::array<uint64_t, kKinds> counters_{};
  uint64_t directAnswers_ = 0;
};

// One registered table.
class RegVoid {
 public:
  explicit RegVoid(Zavro::Ptr<Kor::Entity> object) : object_(std::move(object)) {}
  const Zavro::Ptr<Kor::Entity>& object() const { return object_; }
  TableCounters& counters() { return counters_; }
  const TableCounters& counters() const { return counters_; }

 private:
  Zavro::Ptr<Kor::Entity> object_;
  TableCounters counters_;
};

// A singleton (Kor::Entity::singletonIs(kTypeName)).
class RegVoidCollByContext final : public Kor::Entity {
 public:
  static constexpr const char* kTypeName = "Snmp::RegVoidCollByContext";
  static Zavro::Ptr<RegVoidCollByContext> singleton();

  RegVoidCollByContext() : Entity("regVoidCollByContext") {}

  // Stores a record that refers to object, replacing one of the same context and table. The collection owns
  // the returned record; it lives until it is replaced or deleted.
  RegVoid* addRegVoid(const std::string& context, const std::string& table, Zavro::Ptr<Kor::Entity> object);
  // Null when there is none.
  RegVoid* regVoid(const std::string& context, const std::string& table);
  void delRegVoid(const std::string& context, const std::string& table);
  size_t size() const { return records_.size(); }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  std::map<std::pair<std::string, std::string>, std::unique_ptr<RegVoid>> records_;
};

}  // namespace Snmp
