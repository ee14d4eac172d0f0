// A directory of entities, keyed by name and iterated in the order of the names.
#pragma once

#include <string_view>
#include <vector>

#include "platform/kor/Collection.h"
#include "platform/kor/Entity.h"

namespace Kor {

class Dir final : public Entity {
 public:
  using Entities = Collection<String, Zavro::Ptr<Entity>>;
  using ConstIterator = Entities::Cursor;

  explicit Dir(String name) : Entity(std::move(name)) {}

  // The entity of that name, or null.
  Zavro::Ptr<Entity> entityPtr(std::string_view name) const {
    const auto* found = entities_.find(name);
    return found ? *found : nullptr;
  }
  ConstIterator entityPtrIteratorConst() const { return entities_.begin(); }
  // From the first entity whose name is not less than name.
  ConstIterator entityPtrIteratorConst(const String& name) const { return entities_.from(name); }
  const Entities& entities() const { return entities_; }

  // Inserts or replaces the entity under a name (its own when none is given). Requires: not null.
  void entityPtrIs(Zavro::Ptr<Entity> entity);
  void entityPtrIs(const String& name, Zavro::Ptr<Entity> entity);
  // Removes the entity of that name and returns it, or null when there is none.
  Zavro::Ptr<Entity> entityPtrDel(const String& name);

  // Creates an entity with the type's generic constructor and inserts it under the name. Throws
  // NewEntityArgumentsException when the type has no such constructor, or it refuses the arguments.
  Zavro::Ptr<Entity> newEntity(const Type& type, const String& name,
                               const std::vector<std::string>& arguments = {});

  static const Type& type();
  const Type& korType() const override { return type(); }

 private:
  Entities entities_;
};

// The entity at a path of names separated by "/"; null when a name is missing, or is not a directory on the
// way.
Zavro::Ptr<Entity> entityAt(const Dir& root, std::string_view path);

}  // namespace Kor
