// What an SNMP agent is told by files in the syntax of snmpd.conf(5): read once, and checked word by word
// before net-snmp sees any of it. Only words that this agent has a use for are taken; none of them runs code,
// opens a port, loads a module, writes a file, or looks a name up.
//
// net-snmp is not given the file but the lines, and they are cut into words by its own functions: what was
// checked is what is applied.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Host {

struct SnmpLine {
  std::string where;  // "--conf PATH: line 7", for messages
  std::string word;   // as it is written there
  std::string rest;   // what it says, never empty
  // Whether they say the same, wherever they stand.
  friend bool operator==(const SnmpLine& a, const SnmpLine& b) {
    return a.word == b.word && a.rest == b.rest;
  }
};

struct SnmpConf {
  std::vector<SnmpLine> lines;
  std::string error;  // "--conf PATH: line 7: ..." of the first that cannot be used; there are no lines then
};

enum class SnmpFile {
  access,  // what an operator writes: communities, users, views, the system group, trap sinks
  state    // what must survive a restart: the engine, its boots, users with their keys
};

// `name` is what the text is called in messages. On any thread.
SnmpConf parseSnmpConf(const std::string& name, std::string_view text, SnmpFile kind);
// Reads the file first, which must be a regular one, and when it holds the state, one that no other user may
// write. A state that is not there is empty.
SnmpConf readSnmpConf(const std::string& path, SnmpFile kind);

}  // namespace Host
