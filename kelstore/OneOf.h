// A value of one of several types that takes little room. A value of more than 32 bytes is kept apart,
// immutable and shared by all copies; copies may be on different threads.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>
#include <variant>

#include "platform/zavro/Assert.h"

namespace Kelstore {

template <class... Types>
class OneOf final {
  static constexpr size_t kInlineBytes = 32;
  template <class T>
  static constexpr bool kInline = sizeof(T) <= kInlineBytes;
  template <class T>
  using Stored = std::conditional_t<kInline<T>, T, std::shared_ptr<const T>>;
  template <class T>
  static constexpr bool kIsOne = (std::is_same_v<T, Types> || ...);

 public:
  // A value of the first type.
  OneOf() = default;
  template <class T>
  requires kIsOne<T> OneOf(T value) : stored_(store(std::move(value))) {}

  // The value; null if it is of another type.
  template <class T>
  const T* find() const {
    const auto* stored = std::get_if<Stored<T>>(&stored_);
    if constexpr (kInline<T>) {
      return stored;
    } else {
      return stored == nullptr ? nullptr : stored->get();
    }
  }
  template <class T>
  bool is() const {
    return find<T>() != nullptr;
  }
  // Requires: is<T>().
  template <class T>
  const T& get() const {
    const T* found = find<T>();
    zavroAssert(found != nullptr);
    return *found;
  }
  // The result of visitor(value).
  template <class Visitor>
  decltype(auto) visit(Visitor visitor) const {
    return std::visit([&visitor](const auto& stored) -> decltype(auto) { return visitor(valueOf(stored)); },
                      stored_);
  }

  bool operator==(const OneOf& other) const {
    return visit([&other](const auto& value) {
      const auto* same = other.template find<std::decay_t<decltype(value)>>();
      return same != nullptr && *same == value;
    });
  }

 private:
  template <class T>
  static Stored<T> store(T value) {
    if constexpr (kInline<T>) {
      return value;
    } else {
      return std::make_shared<const T>(std::move(value));
    }
  }
  template <class T>
  static const T& valueOf(const T& stored) {
    return stored;
  }
  template <class T>
  static const T& valueOf(const std::shared_ptr<const T>& stored) {
    return *stored;
  }

  std::variant<Stored<Types>...> stored_;
};

}  // namespace Kelstore
