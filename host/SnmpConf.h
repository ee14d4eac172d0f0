// Reads and checks configuration in the syntax of snmpd.conf(5) before net-snmp gets it. Accepts only words
// that this agent needs; none of them runs code, opens a port, loads a module, writes a file, or looks up a
// name.
//
// net-snmp gets the checked lines and not the file. Lines are cut into words by net-snmp's own functions, so
// that it reads the same words that were checked.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Host {

struct SnmpLine {
  std::string where;  // "PATH:7", for messages
  std::string word;   // as written in the file
  std::string rest;   // its arguments, never empty
  // Without regard to `where`.
  friend bool operator==(const SnmpLine& a, const SnmpLine& b) {
    return a.word == b.word && a.rest == b.rest;
  }
};

struct SnmpConf {
  std::vector<SnmpLine> lines;
  // About each unusable line, "PATH:7: WORD: ..."; there are no lines then.
  std::vector<std::string> errors;
};

enum class SnmpFile {
  access,  // the operator's: communities, users, views, the system group, trap sinks
  state    // net-snmp's own, over restarts: the engine, its boots, users with their keys
};

// `name` stands for the text in messages. For any thread.
SnmpConf parseSnmpConf(const std::string& name, std::string_view text, SnmpFile kind);
// The same of a file, which must be a regular one. A file of state must be one that no other user may write;
// if there is none, there are no lines.
SnmpConf readSnmpConf(const std::string& path, SnmpFile kind);
// The operator's file, or without a path what counts then: this machine may read what is served.
SnmpConf readAccess(const std::string& path);

}  // namespace Host
