#include "platform/trel/Reachability.h"

namespace Trel {

std::string ReachabilityState::text() const {
  return fmt::format("(state={}, intf={}, lastChange={})", Kor::nameOf(state_),
                     backplaneChannelIntfId_ ? backplaneChannelIntfId_->name() : "None", lastChangeNs_);
}

const Kor::Type& ReachabilityState::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<ReachabilityState>("Trel::ReachabilityState")
          .attribute("state", [](const ReachabilityState& r) { return Kor::nameOf(r.state()); })
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
