#include "pipelines/LinksByInterface.h"

namespace TrelSnmp::Agent {

const LinksByInterface::Links& LinksByInterface::of(const Lanix::IntfId& intf) {
  static const Links none;
  if (!current_) walk();
  auto found = links_.find(&intf.name());
  return found == links_.end() ? none : found->second;
}

void LinksByInterface::clear() {
  current_ = false;
  changes_.clear();
  links_ = {};
}

void LinksByInterface::walk() {
  clear();
  auto outdated = [this](const auto& /*key*/) { current_ = false; };
  const auto& members = topology_->topoConfig();
  changes_.push_back(members.subscribe(outdated));
  for (auto member = members.begin(); member; member.next()) {
    const auto& neighbors = (*member.value())->neighbor();
    changes_.push_back(neighbors.subscribe(outdated));
    visited_ += neighbors.size();
    for (auto neighbor = neighbors.begin(); neighbor; neighbor.next()) {
      links_[&neighbor.value()->name()].emplace_back(member.key(), neighbor.key());
    }
  }
  current_ = true;
}

}  // namespace TrelSnmp::Agent
