// What the daemon must answer to a message: RFC 1157 and RFC 3416 over the tables' tree. Where net-snmp,
// which reads and writes the messages, deviates from them, the model says so and does as it does.
//
// Two communities are known, both through a view that holds the five tables and nothing else: one that reads,
// and one that may write.
#pragma once

#include <optional>

#include "tests/wire/Tables.h"

namespace Wire {

inline constexpr const char* kReader = "reader";
inline constexpr const char* kWriter = "writer";

// Users of SNMPv3: one without a password, and one with both, whose name is as long as one may be, so that as
// little as possible of a message is left for what is asked.
inline constexpr const char* kWatcher = "watcher";
inline constexpr const char* kOperator = "operator-of-thirty-two-octets-xx";
inline constexpr const char* kAuthPass = "authentication pass";
inline constexpr const char* kPrivPass = "privacy pass";

// The daemon's configuration, in snmpd.conf syntax.
std::string modelledAccess();
// The same for these users, too.
std::string accessWithUsers();

class Model {
 public:
  explicit Model(Tree tree) : tree_(std::move(tree)) {}

  const Tree& tree() const { return tree_; }
  // Nothing when no answer may come. Requires: the request is well-formed but for what a name may be too
  // long for, and a value's tag may be unknown.
  std::optional<Message> answerTo(const Message& request) const;

 private:
  Value get(const Oid& name) const;
  Varbind next(const Oid& name) const;
  void getBulk(const Pdu& request, Pdu& answer) const;

  Tree tree_;
};

}  // namespace Wire
