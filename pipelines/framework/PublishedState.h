// A pipeline's published progress, as named flags and numbers: InputSmScanState says which input streams have
// been scanned and processed, OutputState which outputs are ready.
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

  // Adds a field, which is an attribute of that name and starts as false or 0. Returns its place.
  size_t addFlag(const std::string& name) { return addField(name, true); }
  size_t addNumber(const std::string& name) { return addField(name, false); }
  // Adds the operation "handle<Field>", which sets the field to derive(). For one field only.
  void deriveField(size_t place, std::function<uint64_t()> derive);
  // The operation does nothing from now on: derive() must not be called any more.
  void ends() { derive_ = {}; }

  uint64_t get(size_t place) const { return fields_[place].value; }
  bool flag(size_t place) const { return get(place) != 0; }
  // Notifies when the value changes; returns whether it does.
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
  size_t addField(const std::string& name, bool isFlag);

  std::vector<Field> fields_;
  std::function<uint64_t()> derive_;
  Kor::Notifier<std::string> changes_;
  Kor::Type type_;
};

using InputSmScanState = PublishedState;
using OutputState = PublishedState;

}  // namespace TrelSnmp::Agent
