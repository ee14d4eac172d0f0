#include "platform/kor/Dir.h"

#include "platform/zavro/Assert.h"

namespace Kor {

void Dir::entityPtrIs(Zavro::Ptr<Entity> entity) {
  zavroAssert(entity != nullptr);
  String name = entity->name();
  entityPtrIs(name, std::move(entity));
}

void Dir::entityPtrIs(const String& name, Zavro::Ptr<Entity> entity) {
  zavroAssert(entity != nullptr);
  entities_.set(name, std::move(entity));
}

Zavro::Ptr<Entity> Dir::entityPtrDel(const String& name) {
  Zavro::Ptr<Entity> removed = entityPtr(name);
  entities_.del(name);
  return removed;
}

Zavro::Ptr<Entity> Dir::newEntity(const Type& type, const String& name,
                                  const std::vector<std::string>& arguments) {
  if (!type.newEntityForDir) {
    throw NewEntityArgumentsException(fmt::format("{} is not made by directories", type.name()));
  }
  Zavro::Ptr<Entity> entity = type.newEntityForDir(name, arguments);
  entityPtrIs(name, entity);
  return entity;
}

const Type& Dir::type() {
  static const Type type = TypeBuilder<Dir>("Kor::Dir")
                               .attribute("name", &Dir::name)
                               .attribute("entityPtr", [](const Dir& dir) { return dir.entities().size(); })
                               .build();
  return type;
}

Zavro::Ptr<Entity> entityAt(const Dir& root, std::string_view path) {
  const Dir* dir = &root;
  while (true) {
    size_t slash = path.find('/');
    Zavro::Ptr<Entity> entity = dir->entityPtr(path.substr(0, slash));
    if (slash == std::string_view::npos || !entity) return entity;
    dir = dynamic_cast<const Dir*>(entity.get());
    if (dir == nullptr) return nullptr;
    path.remove_prefix(slash + 1);
  }
}

}  // namespace Kor
