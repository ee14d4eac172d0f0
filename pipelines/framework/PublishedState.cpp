#include "pipelines/framework/PublishedState.h"

#include "pipelines/framework/Names.h"

namespace TrelSnmp::Agent {

size_t PublishedState::addField(const std::string& name, bool isFlag) {
  size_t place = fields_.size();
  fields_.push_back({name});
  auto read = [place, isFlag](const Kor::Object& object) {
    uint64_t value = static_cast<const PublishedState&>(object).get(place);
    return isFlag ? Kor::toText(value != 0) : Kor::toText(value);
  };
  type_.attributeIs({name, read, {}});
  return place;
}

void PublishedState::deriveField(size_t place, std::function<uint64_t()> derive) {
  derive_ = std::move(derive);
  type_.operationIs({"handle" + capitalised(fields_[place].name), [place](Kor::Object& object) {
                       auto& state = static_cast<PublishedState&>(object);
                       if (state.derive_) state.set(place, state.derive_());
                     }});
}

bool PublishedState::set(size_t place, uint64_t value) {
  Field& field = fields_[place];
  if (field.value == value) return false;
  field.value = value;
  changes_.notify(field.name);
  return true;
}

}  // namespace TrelSnmp::Agent
