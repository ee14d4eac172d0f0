// What the members of one cluster publish of their hosts, extreme figures among them: as the document that an
// agent is given, and as the answers that a manager expects of the three host-resources tables.
#pragma once

#include <string>
#include <vector>

#include "tests/e2e/Reports.h"

namespace E2e {

std::string hostsDocument();

// In walk order, "proc.3.1.1 = INTEGER: -1".
std::vector<Varbind> hostsTree();

}  // namespace E2e
