#include "platform/kor/Entity.h"

#include <map>

#include "platform/zavro/Assert.h"

namespace Kor {
namespace {

struct SingletonType {
  std::function<Zavro::Ptr<Entity>()> make;
  Zavro::Ptr<Entity> instance;
};

std::map<std::string, SingletonType, std::less<>>& singletons() {
  static auto* types = new std::map<std::string, SingletonType, std::less<>>;
  return *types;
}

}  // namespace

Zavro::Ptr<Entity> Entity::singletonExists(std::string_view typeName) {
  auto found = singletons().find(typeName);
  return found == singletons().end() ? nullptr : found->second.instance;
}

Zavro::Ptr<Entity> Entity::singletonIs(std::string_view typeName) {
  auto found = singletons().find(typeName);
  zavroAssertWith(found != singletons().end(), "typeName={}", typeName);
  SingletonType& type = found->second;
  if (!type.instance) type.instance = type.make();
  return type.instance;
}

void Entity::singletonTypeIs(std::string_view typeName, std::function<Zavro::Ptr<Entity>()> make) {
  singletons()[std::string(typeName)].make = std::move(make);
}

void Entity::singletonDel(std::string_view typeName) {
  auto found = singletons().find(typeName);
  if (found != singletons().end()) found->second.instance.reset();
}

}  // namespace Kor
