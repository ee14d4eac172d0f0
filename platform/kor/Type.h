// Type information: what an object's attributes and operations are called, so that it can be inspected and
// driven by name, through the control socket and in tests.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/kor/Text.h"
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

// A directory's generic constructor was given arguments that the type does not take.
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

  // Makes an entity of this type for a directory; empty when directories do not make such entities.
  NewEntityForDir newEntityForDir;

 private:
  std::string name_;
  std::vector<Attribute> attributes_;
  std::vector<Operation> operations_;
};

// The value of an attribute in its text form. Throws NoSuchMemberException.
std::string attribute(const Object& object, std::string_view name);
// Sets an attribute from its text form. Throws NoSuchMemberException, or ParseException and leaves it as it
// was. Not from within a Publication.
void attributeIs(Object& object, std::string_view name, std::string_view text);
// Runs an operation. Throws NoSuchMemberException. Not from within a Publication.
void invoke(Object& object, std::string_view operation);

// Declares a type in a few lines:
//   static const Type type = TypeBuilder<Root>("TrelSnmp::Agent::Root").attribute("name",
//   &Root::name).build();
// An accessor's value needs a text form (kor/Text.h) or must be a bool, a number, a string or a Zavro::Ptr.
template <class T>
class TypeBuilder {
 public:
  explicit TypeBuilder(std::string name) : type_(std::move(name)) {}

  template <class Accessor>
  TypeBuilder& attribute(std::string name, Accessor accessor) {
    type_.attributeIs({std::move(name), reader(accessor), {}});
    return *this;
  }
  // set(T&, std::string_view) throws ParseException for text that it cannot take.
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
  TypeBuilder& newEntityForDir(Type::NewEntityForDir make) {
    type_.newEntityForDir = std::move(make);
    return *this;
  }
  Type build() { return std::move(type_); }

 private:
  // Ends the process when an object shows the type information of a class that it is not of.
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
