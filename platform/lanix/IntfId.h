// Names of interfaces.
#pragma once

#include <compare>
#include <string>

namespace Lanix {

class IntfId {
 public:
  IntfId() = default;  // the empty name, which no interface has
  explicit IntfId(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  const std::string& text() const { return name_; }
  auto operator<=>(const IntfId&) const = default;
  bool operator==(const IntfId&) const = default;

 private:
  std::string name_;
};

class BackplaneChannelIntfId {
 public:
  // A backplane channel interface is called `Backplane` followed by a digit, such as "Backplane1/2".
  static bool isBackplaneChannelIntfId(const IntfId& id);
};

}  // namespace Lanix
