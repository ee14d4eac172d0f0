// Type information: the names of an object's attributes and operations, by which a host or a test inspects
// and drives it.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kor/TextForm.h"
#include "platform/zavro/Assert.h"
#include "platform/zavro/Exception.h"
#include "platform/zavro/Ptr.h"

namespace Kor {

class Type;
class Entity;

// Base of everything that carries type information.
class Object : public Zavro::Counted {
 public:
  virtual const Type& korType() const = 0;
};

// The named attribute or operation does not exist, or the attribute cannot be set.
class NoSuchMemberException final : public Zavro::Exception {
 public:
  using Zavro::Exception::Exception;
};

// A type's generic constructor refuses its arguments, or the type has none.
class NewEntityArgumentsException final : public Zavro::Exception {
 public:
  using Zavro::Exception::Exception;
};

struct Attribute {
  std::string name;
  std::function<std::string(const Object&)> read;
  std::function<void(Object&, std::string_view)> set;  // empty when the attribute cannot be set
};

struct Operation {
  std::string name;
  std::function<void(Object&)> invoke;
  // The same, with what it found; changes nothing, so that anybody may call it at any time. Empty unless the
  // operation only reads.
  std::function<std::string(const Object&)> ask = nullptr;
};

class Type {
 public:
  using NewEntityForDir =
      std::function<Zavro::Ptr<Entity>(const std::string& name, const std::vector<std::string>& arguments)>;

  explicit Type(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  const std::vector<Attribute>& attributes() const { return attributes_; }  // in declaration order
  const std::vector<Operation>& operations() const { return operations_; }

  void attributeIs(Attribute attribute) { attributes_.push_back(std::move(attribute)); }
  void operationIs(Operation operation) { operations_.push_back(std::move(operation)); }

  // The generic constructor, for Dir::newEntity(); empty when the type has none.
  NewEntityForDir newEntityForDir;

 private:
  std::string name_;
  std::vector<Attribute> attributes_;
  std::vector<Operation> operations_;
};

// The value of an attribute in its text form. Throws NoSuchMemberException.
std::string attribute(const Object& object, std::string_view name);
// Sets an attribute from its text form. Throws NoSuchMemberException or ParseException; the attribute keeps
// its value then. Requires: no Publication is in progress.
void attributeIs(Object& object, std::string_view name, std::string_view text);
// Runs an operation. Throws NoSuchMemberException. Requires: no Publication is in progress.
void invoke(Object& object, std::string_view operation);
// Runs an operation that only reads; returns what it found. Throws NoSuchMemberException, also for an
// operation that does not only read.
std::string ask(const Object& object, std::string_view operation);

// Declares a type in a few lines:
//   static const Type type = TypeBuilder<Root>("TrelSnmp::Agent::Root").attribute("name",
//   &Root::name).build();
// An accessor's value needs a text form (kor/TextForm.h) or must be a bool, a number, a string or a
// Zavro::Ptr.
template <class T>
class TypeBuilder {
 public:
  explicit TypeBuilder(std::string name) : type_(std::move(name)) {}

  template <class Accessor>
  TypeBuilder& attribute(std::string name, Accessor accessor) {
    type_.attributeIs({std::move(name), reader(accessor), {}});
    return *this;
  }
  // set(T&, std::string_view) throws ParseException for text that is no value of the attribute.
  template <class Accessor, class Setter>
  TypeBuilder& attribute(std::string name, Accessor accessor, Setter set) {
    type_.attributeIs({std::move(name), reader(accessor),
                       [set](Object& object, std::string_view text) { set(self<T>(object), text); }});
    return *this;
  }
  template <class Function>
  TypeBuilder& operation(std::string name, Function function) {
    type_.operationIs(
        {std::move(name), [function](Object& object) { std::invoke(function, self<T>(object)); }});
    return *this;
  }
  // An operation that only reads.
  template <class Accessor>
  TypeBuilder& question(std::string name, Accessor accessor) {
    auto ask = reader(accessor);
    type_.operationIs({std::move(name), [ask](Object& object) { ask(object); }, ask});
    return *this;
  }
  TypeBuilder& newEntityForDir(Type::NewEntityForDir make) {
    type_.newEntityForDir = std::move(make);
    return *this;
  }
  Type build() { return std::move(type_); }

 private:
  // Ends the process when korType() returned the type information of another class.
  template <class Self, class AnyObject>
  static Self& self(AnyObject& object) {
    auto* self = dynamic_cast<Self*>(&object);
    zavroAssert(self && "type information of another class");
    return *self;
  }
  template <class Accessor>
  static auto reader(Accessor accessor) {
    return [accessor](const Object& object) { return toText(std::invoke(accessor, self<const T>(object))); };
  }
  Type type_;
};

}  // namespace Kor
