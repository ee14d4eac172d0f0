// Entities of the state database: named, counted objects with type information, kept in directories.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/kor/Type.h"
#include "platform/zavro/String.h"

namespace Kor {

using String = Zavro::String;

// Base of value-like records (table rows, a member's published figures). Immutable once made.
class ValueEntity : public Object {};

class Entity : public Object {
 public:
  explicit Entity(String name) : name_(std::move(name)) {}
  const String& name() const { return name_; }
  virtual std::string text() const { return name_; }

  // Singletons: at most one entity of a type in the process, by the type's name.

  // The singleton, or null when there is none.
  static Zavro::Ptr<Entity> singletonExists(std::string_view typeName);
  // The singleton, created on first use. Requires: singletonTypeIs() was called for the type.
  static Zavro::Ptr<Entity> singletonIs(std::string_view typeName);
  // Registers the function that creates the type's singleton.
  static void singletonTypeIs(std::string_view typeName, std::function<Zavro::Ptr<Entity>()> make);
  // Releases the singleton; the next singletonIs() creates a new one.
  static void singletonDel(std::string_view typeName);

 private:
  String name_;
};

// An insertion found an element with other values under its key. The message names the type and the attribute
// that differs.
class MutatorReinstantiationException final : public Zavro::Exception {
 public:
  MutatorReinstantiationException(std::string_view type, std::string_view attribute)
      : Exception(fmt::format("{} exists with another {}", type, attribute)) {}
};

// A null was given for an attribute that must not be null.
class NullArgumentException final : public Zavro::Exception {
 public:
  explicit NullArgumentException(std::string_view attribute)
      : Exception(fmt::format("null argument for {}", attribute)) {}
};

}  // namespace Kor
