// What a pipeline publishes of how far it is, as named flags and numbers: InputSmScanState says which input
// streams have been scanned and worked off, OutputState which outputs are ready.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/kor/Notifier.h"
#include "platform/kor/Type.h"

namespace TrelSnmp::Agent {

class PublishedState final : public Kor::Object {
 public:
  explicit PublishedState(std::string type) : type_(std::move(type)) {}

  // A new field, which is false or 0 at first and an attribute of that name. Returns its place.
  size_t flagIs(const std::string& name) { return fieldIs(name, true); }
  size_t numberIs(const std::string& name) { return fieldIs(name, false); }
  // "handle<Field>" by name: derives the field anew.
  void derivedIs(size_t place, std::function<uint64_t()> derive);
  // Nothing is derived any more: what it was derived from is gone.
  void ends() { derive_ = {}; }

  uint64_t get(size_t place) const { return fields_[place].value; }
  bool flag(size_t place) const { return get(place) != 0; }
  // Publishes when the value differs from the one before, and returns whether it does.
  bool set(size_t place, uint64_t value);

  // The callback gets the name of the field that changed.
  [[nodiscard]] Kor::Subscription subscribe(std::function<void(const std::string&)> callback) const {
    return changes_.subscribe(std::move(callback));
  }
  const Kor::Type& korType() const override { return type_; }

 private:
  struct Field {
    std::string name;
    uint64_t value = 0;
  };
  size_t fieldIs(const std::string& name, bool isFlag);

  std::vector<Field> fields_;
  std::function<uint64_t()> derive_;
  Kor::Notifier<std::string> changes_;
  Kor::Type type_;
};

using InputSmScanState = PublishedState;
using OutputState = PublishedState;

}  // namespace TrelSnmp::Agent
