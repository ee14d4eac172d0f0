#include "Links.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace {

Trel::ReachabilityState::State stateNamed(const std::string& name) {
  constexpr auto names = namesOf(Trel::ReachabilityState::State{});
  auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) throw std::invalid_argument("found the state \"" + name + "\"");
  return static_cast<Trel::ReachabilityState::State>(found - names.begin());
}

Trel::MemberId memberOf(unsigned id) {
  if (id > 255) throw std::invalid_argument("found member " + std::to_string(id));
  return Trel::MemberId(static_cast<uint8_t>(id));
}

}  // namespace

Links::Links(std::string path, const Zavro::Clock& clock)
    : path_(std::move(path)),
      clock_(clock),
      ifMib_(Zavro::makePtr<IntfSnmp::IfMib>("ifMib")),
      topology_(Zavro::makePtr<Trel::TopologyConfig>("topology")),
      reachability_(Zavro::makePtr<Kor::Dir>("reachability")) {}

void Links::follow() {
  std::ifstream file(path_);
  if (!file) return;  // as while it is replaced
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (text == text_) return;
  text_ = text;
  try {
    becomes(parsed(text));
  } catch (const std::invalid_argument& error) {
    std::cerr << path_ << ": " << error.what()
              << ", expected MEMBER NEIGHBOUR INTERFACE IFINDEX STATE; nothing changes\n";
  }
}

Links::All Links::parsed(const std::string& text) {
  All links;
  std::istringstream lines(text);
  std::string line;
  for (size_t number = 1; std::getline(lines, line); ++number) {
    std::istringstream words(line);
    unsigned member = 0, neighbour = 0;
    std::string interface, state;
    Link link;
    try {
      if (!(words >> member >> neighbour >> interface >> link.ifIndex >> state)) {
        throw std::invalid_argument("found \"" + line + "\"");
      }
      link.interface = Lanix::IntfId(interface);
      link.state = stateNamed(state);
      links[{memberOf(member), memberOf(neighbour)}] = link;
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("line " + std::to_string(number) + ": " + error.what());
    }
  }
  return links;
}

void Links::becomes(const All& links) {
  All before = std::exchange(links_, links);
  for (const auto& [end, link] : before) {
    auto now = links.find(end);
    // Another interface is another link.
    if (now == links.end() || now->second.interface != link.interface) linkDel(end, link);
  }
  for (const auto& [end, link] : links) {
    auto old = before.find(end);
    if (old == before.end() || old->second != link) linkIs(end, link);
  }
}

void Links::linkIs(const End& end, const Link& link) {
  ifMib_->ifIndexByIntfId().set(link.interface, link.ifIndex);
  auto& members = topology_->topoConfig();
  if (members.find(end.member) == nullptr) {
    members.set(end.member, Zavro::makePtr<Trel::TopoConfig>(end.member));
  }
  (*members.find(end.member))->neighbor().set(end.neighbour, link.interface);
  std::string name = end.member.text();
  if (!reachability_->entityPtr(name)) {
    reachability_->entityPtrIs(Zavro::makePtr<Trel::ReachabilityStatus>(name));
  }
  auto& report = static_cast<Trel::ReachabilityStatus&>(*reachability_->entityPtr(name));
  report.reachabilityStatus().set(end.neighbour, Zavro::makePtr<const Trel::ReachabilityState>(
                                                     link.state, link.interface, clock_.utcNs()));
}

void Links::linkDel(const End& end, const Link& link) {
  auto report = reachability_->entityPtr(end.member.text());
  static_cast<Trel::ReachabilityStatus&>(*report).reachabilityStatus().del(end.neighbour);
  (*topology_->topoConfig().find(end.member))->neighbor().del(end.neighbour);
  ifMib_->ifIndexByIntfId().del(link.interface);
}
