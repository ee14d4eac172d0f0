// Whom the configuration of a stock snmpd lets read the tables, where that is the master agent.
#pragma once

#include <fmt/format.h>

#include <string>
#include <vector>

#include "programs/trelsnmpd/SnmpdConf.h"

namespace TrelCtl {

inline const std::string kTablesSubtree = fmt::format(".1.3.6.1.4.1.{}.3", TREL_ENTERPRISE_NUMBER);

struct SnmpdViews {
  bool anybody = false;              // somebody may read something
  std::vector<std::string> without;  // views that somebody is limited to, and that lack the tables
  std::string unread;                // a file that could not be read, and why
};

SnmpdViews viewsIn(const Trelsnmpd::SnmpdConf& conf);

}  // namespace TrelCtl
