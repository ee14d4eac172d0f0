// trelctl store init: users and roles in an etcd cluster, so that each member writes its own values only, and
// agents write nothing.
//
// Errors are thrown: Unusable for arguments, StoreFailed for the store.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "programs/trelctl/StoreCommands.h"

namespace TrelCtl {

struct InitOptions {
  std::vector<uint8_t> members;
  // What the names of a member's interfaces begin with; % stands for its number.
  std::string interfaces = "Backplane%/";
  // Where a file is written for each user, with a password that nobody else knows; empty: users have none,
  // and are told by the names in their certificates.
  std::string credentials;
  // The servers ask who it is from then on; takes credentials, or a certificate of root's.
  bool enable = false;
  Run run = Run::wet;
};

// The members of "1-20,30". Throws std::invalid_argument.
std::vector<uint8_t> membersOf(const std::string& text);

// What is there already stays, so that it may be called again for more members. Prints a line for each user.
void initStore(const StoreOptions& options, const InitOptions& what);

}  // namespace TrelCtl
