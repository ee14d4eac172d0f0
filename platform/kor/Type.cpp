#include "platform/kor/Type.h"

#include <algorithm>

#include "platform/kor/Publication.h"

namespace Kor {
namespace {

template <class Member>
const Member& memberNamed(const Type& type, const std::vector<Member>& members, std::string_view name,
                          std::string_view kind) {
  auto found = std::find_if(members.begin(), members.end(), [&](const Member& m) { return m.name == name; });
  if (found == members.end()) {
    throw NoSuchMemberException(fmt::format("{} has no {} \"{}\"", type.name(), kind, name));
  }
  return *found;
}

}  // namespace

std::string attribute(const Object& object, std::string_view name) {
  const Type& type = object.korType();
  return memberNamed(type, type.attributes(), name, "attribute").read(object);
}

void attributeIs(Object& object, std::string_view name, std::string_view text) {
  Publication::expectNone();
  const Type& type = object.korType();
  const Attribute& found = memberNamed(type, type.attributes(), name, "attribute");
  if (!found.set) {
    throw NoSuchMemberException(fmt::format("{}'s attribute \"{}\" cannot be set", type.name(), name));
  }
  found.set(object, text);
}

void invoke(Object& object, std::string_view operation) {
  Publication::expectNone();
  const Type& type = object.korType();
  memberNamed(type, type.operations(), operation, "operation").invoke(object);
}

std::string ask(const Object& object, std::string_view operation) {
  const Type& type = object.korType();
  const Operation& found = memberNamed(type, type.operations(), operation, "operation");
  if (!found.ask) {
    throw NoSuchMemberException(
        fmt::format("{}'s operation \"{}\" may change the object", type.name(), operation));
  }
  return found.ask(object);
}

}  // namespace Kor
