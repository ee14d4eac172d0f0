#include "kelstore/Limits.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "runtime/Text.h"

namespace Kelstore {
namespace {

constexpr std::array<LimitSpec, 7> kLimits = {{
    {"document-bytes", &Limits::documentBytes, "of a document"},
    {"key-bytes", &Limits::keyBytes, "of a key in a store"},
    {"value-bytes", &Limits::valueBytes, "of a value in a store, as JSON"},
    {"rows", &Limits::rows, "values of one kind that one member has, such as its processors"},
    {"cluster-rows", &Limits::clusterRows, "values of one kind that the cluster has, such as interfaces"},
    {"values", &Limits::values, "values of one source"},
    {"remembered", &Limits::remembered,
     "values that cannot be used, and are remembered; a document with more of them is not taken at all"},
}};
constexpr size_t kLargest = 1 << 30;

absl::Status wrong(std::string_view found, std::string_view expected) {
  return absl::InvalidArgumentError(fmt::format("found {}, expected {}", Runtime::inQuotes(found), expected));
}

absl::Status limitIs(std::string_view text, Limits& limits) {
  size_t equals = std::min(text.find('='), text.size());
  std::string_view name = text.substr(0, equals);
  auto spec =
      std::find_if(kLimits.begin(), kLimits.end(), [name](const LimitSpec& one) { return one.name == name; });
  if (spec == kLimits.end()) {
    std::string names;
    for (const LimitSpec& one : kLimits) names += fmt::format("{}{}", names.empty() ? "" : ", ", one.name);
    return wrong(name, "one of " + names);
  }
  std::string_view number = text.substr(std::min(equals + 1, text.size()));
  size_t limit = 0;
  auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), limit);
  bool whole = error == std::errc() && end == number.data() + number.size();
  if (!whole || limit < 1 || limit > kLargest) {
    return wrong(text, fmt::format("{}=NUMBER with a number from 1 to {}", name, kLargest));
  }
  limits.*(spec->limit) = limit;
  return absl::OkStatus();
}

}  // namespace

std::span<const LimitSpec> allLimits() { return kLimits; }

absl::Status limitsAre(std::string_view text, Limits& limits) {
  for (size_t at = 0; at <= text.size();) {
    size_t comma = std::min(text.find(',', at), text.size());
    absl::Status status = limitIs(text.substr(at, comma - at), limits);
    if (!status.ok()) return status;
    at = comma + 1;
  }
  return absl::OkStatus();
}

}  // namespace Kelstore
