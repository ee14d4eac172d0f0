// The cluster's links as the library's inputs, followed in a text file of this program's own.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>

#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Dir.h"
#include "platform/trel/Reachability.h"
#include "platform/trel/Topology.h"
#include "platform/zavro/Clock.h"

class Links final {
 public:
  // Each line of the file is one link as one member reports it: its id, the neighbour's, the interface, its
  // ifIndex, and a state such as "reachable".
  Links(std::string path, const Zavro::Clock& clock);

  // Reads the file. What did not change is not touched. When a line cannot be used, says which one and why on
  // stderr, and everything stays.
  void follow();

  const Zavro::Ptr<IntfSnmp::IfMib>& ifMib() const { return ifMib_; }
  const Zavro::Ptr<Trel::TopologyConfig>& topology() const { return topology_; }
  const Zavro::Ptr<Kor::Dir>& reachability() const { return reachability_; }

 private:
  struct End {
    Trel::MemberId member, neighbour;
    auto operator<=>(const End&) const = default;
  };
  struct Link {
    Lanix::IntfId interface;
    uint32_t ifIndex = 0;
    Trel::ReachabilityState::State state = Trel::ReachabilityState::unknown;
    bool operator==(const Link&) const = default;
  };
  using All = std::map<End, Link>;

  static All parsed(const std::string& text);
  void becomes(const All& links);
  void linkIs(const End& end, const Link& link);
  void linkDel(const End& end, const Link& link);

  const std::string path_;
  const Zavro::Clock& clock_;
  std::string text_;
  All links_;
  Zavro::Ptr<IntfSnmp::IfMib> ifMib_;
  Zavro::Ptr<Trel::TopologyConfig> topology_;
  Zavro::Ptr<Kor::Dir> reachability_;
};
