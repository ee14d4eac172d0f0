#include "platform/trel/Reachability.h"

#include <algorithm>
#include <array>

namespace Trel {
namespace {

constexpr std::array<std::string_view, ReachabilityState::kStates> kStateNames = {
    "unknown", "initializing", "reachable", "degraded", "unreachable", "disabled"};

}  // namespace

std::string stateName(ReachabilityState::State state) {
  return state < kStateNames.size() ? std::string(kStateNames[state]) : std::to_string(state);
}

std::optional<ReachabilityState::State> stateNamed(std::string_view name) {
  auto found = std::find(kStateNames.begin(), kStateNames.end(), name);
  if (found == kStateNames.end()) return std::nullopt;
  return static_cast<ReachabilityState::State>(found - kStateNames.begin());
}

std::string ReachabilityState::text() const {
  return fmt::format("(state={}, intf={}, lastChange={})", stateName(state_),
                     backplaneChannelIntfId_ ? backplaneChannelIntfId_->name() : "None", lastChangeNs_);
}

const Kor::Type& ReachabilityState::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<ReachabilityState>("Trel::ReachabilityState")
          .attribute("state", [](const ReachabilityState& r) { return stateName(r.state()); })
          .attribute("backplaneChannelIntfId",
                     [](const ReachabilityState& r) { return Kor::optText(r.backplaneChannelIntfId()); })
          .attribute("lastChange", &ReachabilityState::lastChangeNs)
          .build();
  return type;
}

const Kor::Type& ReachabilityStatus::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<ReachabilityStatus>("Trel::ReachabilityStatus")
          .attribute("name", &ReachabilityStatus::name)
          .attribute("reachabilityStatus",
                     [](const ReachabilityStatus& s) { return s.reachabilityStatus().size(); })
          .build();
  return type;
}

}  // namespace Trel
