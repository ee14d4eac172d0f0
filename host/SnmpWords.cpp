#include "host/SnmpWords.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <span>
#include <sstream>

#include "runtime/Nearest.h"
#include "runtime/Text.h"
#include "snmp-modules/NetSnmp.h"

namespace Host {
namespace {

using Runtime::inQuotes;

// A word of a line's arguments, as net-snmp's readers cut it. They crash on a missing one, hence the checks.
struct Part {
  std::string text;  // without quotes
  size_t at;         // where it begins in the line
  size_t size;       // of it in the line, with quotes
};

class Parts {
 public:
  explicit Parts(std::string& line) : line_(line) {
    std::string text(line.size() + 1, '\0');
    const char* next = nullptr;
    for (char* at = line.data(); at != nullptr; at = const_cast<char*>(next)) {
      next = copy_nword(at, text.data(), static_cast<int>(text.size()));
      auto begin = static_cast<size_t>(at - line.data());
      size_t end = next == nullptr ? line.size() : static_cast<size_t>(next - line.data());
      while (end > begin && isspace(static_cast<unsigned char>(line[end - 1])) != 0) --end;
      parts_.push_back({text.substr(0, text.find('\0')), begin, end - begin});
    }
  }

  size_t count() const { return parts_.size(); }
  // Empty when there are fewer parts.
  std::string operator[](size_t index) const { return index < count() ? parts_[index].text : ""; }
  // Replaces it in the line. After that this part and those behind it cannot be read.
  void replace(size_t index, const std::string& text) {
    line_.replace(parts_[index].at, parts_[index].size, text);
    parts_.erase(parts_.begin() + static_cast<ptrdiff_t>(index), parts_.end());
  }
  const std::string& line() const { return line_; }
  void clearLine() { line_.clear(); }

 private:
  std::string& line_;
  std::vector<Part> parts_;
};

std::string expected(const std::string& found, const char* what) {
  return fmt::format("found {}, expected {}", found.empty() ? "nothing" : inQuotes(found), what);
}

bool isAddress(int family, const std::string& text) {
  in6_addr parsed{};
  return inet_pton(family, text.c_str(), &parsed) == 1;
}

std::string anything(Parts& /*parts*/) { return ""; }

// For a name, net-snmp would search for the MIB module's file.
std::string checkOid(const std::string& text) {
  constexpr size_t kMaxNumbers = 128;
  const char* at = text.data() + (text.starts_with('.') ? 1 : 0);
  const char* end = text.data() + text.size();
  for (size_t count = 1; count <= kMaxNumbers; ++count) {
    uint32_t number = 0;
    auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc()) break;
    if (next == end) return "";
    if (*next != '.') break;
    at = next + 1;
  }
  return expected(text, "a numeric OID");
}

// NAME TYPE SUBTREE [MASK]. net-snmp cuts these at blanks and knows no quotes.
std::string view(Parts& parts) {
  std::istringstream words(parts.line());
  std::string name, type, subtree;
  words >> name >> type >> subtree;
  return checkOid(subtree);
}

std::string systemOid(Parts& parts) { return checkOid(parts.line()); }

std::string systemText(Parts& parts) {
  constexpr size_t kMaxBytes = 255;
  size_t size = parts.line().size();
  return size <= kMaxBytes ? "" : fmt::format("found {} bytes, expected at most {}", size, kMaxBytes);
}

std::string oneOrTwo(Parts& parts) {
  bool good = parts.count() == 1 && (parts[0] == "1" || parts[0] == "2");
  return good ? "" : expected(parts.line(), "1 (enabled) or 2 (disabled)");
}

// The source from which a community is accepted: no names, as a lookup may hang, and its answer may be
// forged.
std::string checkSource(Parts& parts, size_t index, int family) {
  std::string text = parts[index];
  if (text == "localhost") {
    parts.replace(index, family == AF_INET ? "127.0.0.1" : "::1");
    return "";
  }
  std::string address = text.substr(text.starts_with('!') ? 1 : 0);
  address.resize(std::min(address.find('/'), address.size()));
  if (text == "default" || isAddress(family, address)) return "";
  return expected(
      text, family == AF_INET
                ? "\"default\" or an IPv4 address, with /LENGTH for a network; names are not looked up"
                : "\"default\" or an IPv6 address, with /LENGTH for a network; names are not looked up");
}

// [OID | -V VIEW]
std::string checkWhat(Parts& parts, size_t at) {
  if (parts[at] == "-V") return parts[at + 1].empty() ? "found nothing after -V, expected a view" : "";
  return parts.count() > at ? checkOid(parts[at]) : "";
}

// [-v VERSION] COMMUNITY [SOURCE [OID | -V VIEW [CONTEXT]]]
std::string checkCommunity(Parts& parts, size_t at, int family) {
  if (parts[at] == "-v") at += 2;
  if (parts[at].empty()) return "found nothing, expected a community";
  std::string what = checkWhat(parts, at + 2);
  std::string source = parts.count() == at + 1 ? "" : checkSource(parts, at + 1, family);
  return source.empty() ? what : source;
}

std::string community4(Parts& parts) { return checkCommunity(parts, 0, AF_INET); }
std::string community6(Parts& parts) { return checkCommunity(parts, 0, AF_INET6); }
std::string authCommunity(Parts& parts) { return checkCommunity(parts, 1, AF_INET); }

// [-Cn CONTEXT] NAME SOURCE COMMUNITY
std::string checkCom2Sec(Parts& parts, int family) {
  size_t at = parts[0] == "-Cn" ? 2 : 0;
  if (parts.count() < at + 3) return "expected NAME SOURCE COMMUNITY";
  return family == AF_UNIX ? "" : checkSource(parts, at + 1, family);
}

std::string com2Sec4(Parts& parts) { return checkCom2Sec(parts, AF_INET); }
std::string com2Sec6(Parts& parts) { return checkCom2Sec(parts, AF_INET6); }
std::string com2SecUnix(Parts& parts) { return checkCom2Sec(parts, AF_UNIX); }

// [-s MODEL] USER [LEVEL [OID | -V VIEW [CONTEXT]]]
std::string checkUserAccess(Parts& parts, size_t at) {
  if (parts[at] == "-s") at += 2;
  if (parts[at].empty()) return "found nothing, expected a user";
  return checkWhat(parts, at + 2);
}

std::string user(Parts& parts) { return checkUserAccess(parts, 0); }
std::string authUser(Parts& parts) { return checkUserAccess(parts, 1); }

std::string group(Parts& parts) { return parts.count() < 3 ? "expected NAME MODEL SECURITY-NAME" : ""; }

constexpr const char* kUserForm = "expected NAME [AUTHENTICATION PASSWORD [PRIVACY [PASSWORD]]]";

// A password, or -l or -m with a key. Sets `at` behind it. Returns what is wrong with it.
std::string takeKey(Parts& parts, size_t& at) {
  bool isKey = parts[at] == "-l" || parts[at] == "-m";
  at += isKey ? 2 : 1;
  std::string key = parts[at - 1];
  if (key.empty()) return kUserForm;
  if (isKey || key.size() >= USM_LENGTH_P_MIN) return "";
  // Passwords are not for the log.
  return fmt::format("found a password of {} characters, expected {} at least", key.size(), USM_LENGTH_P_MIN);
}

// NAME [AUTHENTICATION KEY [PRIVACY [KEY]]]
std::string createUser(Parts& parts) {
  constexpr size_t kMaxNameBytes = 32;
  std::string name = parts[0];
  if (name.empty() || name.starts_with('-')) return fmt::format("found {}, {}", inQuotes(name), kUserForm);
  if (name.size() > kMaxNameBytes) return expected(name, "a name of at most 32 bytes");
  if (parts.count() == 1) return "";
  if (usm_lookup_auth_type(parts[1].c_str()) < 0) {
    return expected(parts[1], "MD5, SHA, SHA-224, SHA-256, SHA-384 or SHA-512");
  }
  size_t at = 2;
  std::string problem = takeKey(parts, at);
  if (!problem.empty() || parts.count() <= at) return problem;
  if (usm_lookup_priv_type(parts[at].c_str()) < 0) return expected(parts[at], "DES, AES, AES-192 or AES-256");
  if (parts.count() == ++at) return "";
  problem = takeKey(parts, at);
  return problem.empty() && parts.count() > at ? kUserForm : problem;
}

// The arguments that net-snmp writes.
std::string usmUser(Parts& parts) {
  constexpr size_t kParts = 11;
  constexpr size_t kMaxBytes = 66;  // 32 in hexadecimal, with 0x
  constexpr std::array<size_t, 3> kNames = {2, 3, 4};
  bool named = std::all_of(kNames.begin(), kNames.end(), [&parts](size_t index) {
    return !parts[index].empty() && parts[index].size() <= kMaxBytes;
  });
  return parts.count() == kParts && named ? "" : "expected a user as this daemon stores it";
}

std::string number(Parts& parts, int64_t greatest) {
  std::string text = parts[0];
  int64_t value = -1;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  bool good = parts.count() == 1 && error == std::errc() && end == text.data() + text.size() && value >= 0 &&
              value <= greatest;
  return good ? "" : fmt::format("found {}, expected a number from 0 to {}", inQuotes(text), greatest);
}

std::string count(Parts& parts) { return number(parts, 1'000'000); }
// One less than the largest boot count (RFC 3414), as each start adds one.
std::string boots(Parts& parts) { return number(parts, 2'147'483'646); }

std::string ownEngineId(Parts& parts) {
  constexpr size_t kMaxBytes = 27;  // net-snmp puts 5 bytes before it; an engine ID has at most 32
  return parts.line().size() <= kMaxBytes ? "" : "expected a text of at most 27 bytes";
}

std::string engineId(Parts& parts) {
  constexpr size_t kMaxBytes = 66;  // 32 in hexadecimal, with 0x
  return parts.count() == 1 && parts[0].size() <= kMaxBytes ? ""
                                                            : "expected an engine ID of at most 32 bytes";
}

// [udp:]ADDRESS[:PORT] or udp6:[ADDRESS][:PORT]
bool isSink(const std::string& text) {
  bool six = text.starts_with("udp6:");
  std::string address = text.substr(six ? 5 : text.starts_with("udp:") ? 4 : 0);
  std::string port;
  if (six && address.starts_with('[') && address.find(']') != std::string::npos) {
    port = address.substr(address.find(']') + 1);
    address = address.substr(1, address.find(']') - 1);
  } else if (size_t colon = address.find(':'); !six && colon != std::string::npos) {
    port = address.substr(colon);
    address.resize(colon);
  }
  unsigned value = 0;
  auto [end, error] = std::from_chars(port.data() + (port.empty() ? 0 : 1), port.data() + port.size(), value);
  bool goodPort = port.empty() || (port.front() == ':' && error == std::errc() &&
                                   end == port.data() + port.size() && value > 0 && value <= 65'535);
  return goodPort && isAddress(six ? AF_INET6 : AF_INET, address);
}

// SINK [COMMUNITY]
std::string sink(Parts& parts) {
  if (parts.count() > 2) return "expected ADDRESS[:PORT] [COMMUNITY]";
  std::string text = parts[0];
  if (text == "localhost" || text == "127.0.0.1") {
    // With a port: without one, net-snmp looks up this machine's name.
    parts.replace(0, "127.0.0.1:162");
    return "";
  }
  return isSink(text) ? "" : expected(text, "ADDRESS[:PORT] or udp6:[ADDRESS]:PORT; names are not looked up");
}

// Taken and dropped: values that a manager set are still stored in the state directory of some agents.
std::string forgotten(Parts& parts) {
  parts.clearLine();
  return "";
}

// What a reload does with a word. Lines of the latter two cannot be taken back when net-snmp refuses another
// line, so their check here must find all that net-snmp would refuse.
enum class Counts : uint8_t {
  always,      // its effect is that of the new lines
  notWithout,  // the same, but without a new line the former effect stays
  atStart      // nothing
};

struct Word {
  const char* name;
  std::string (*check)(Parts&);
  Counts counts = Counts::always;
};

constexpr std::array kAccessWords = {
    Word{"rocommunity", community4},
    Word{"rocommunity6", community6},
    Word{"authcommunity", authCommunity},
    Word{"com2sec", com2Sec4},
    Word{"com2sec6", com2Sec6},
    Word{"com2secunix", com2SecUnix},
    Word{"createUser", createUser},
    Word{"rouser", user},
    Word{"authuser", authUser},
    Word{"authgroup", authUser},
    Word{"authaccess", anything},
    Word{"group", group},
    Word{"view", view},
    Word{"access", anything},
    Word{"setaccess", anything},
    Word{"sysdescr", systemText, Counts::notWithout},
    Word{"sysobjectid", systemOid, Counts::notWithout},
    Word{"syscontact", systemText, Counts::notWithout},
    Word{"sysname", systemText, Counts::notWithout},
    Word{"syslocation", systemText, Counts::notWithout},
    Word{"sysservices", count, Counts::notWithout},
    Word{"authtrapenable", oneOrTwo, Counts::notWithout},
    Word{"trapcommunity", anything},
    Word{"trapsink", sink},
    Word{"trap2sink", sink},
    Word{"engineID", ownEngineId, Counts::atStart},
    Word{"maxGetbulkRepeats", count, Counts::notWithout},
    Word{"maxGetbulkResponses", count, Counts::notWithout},
};

constexpr std::array kStateWords = {
    Word{"createUser", createUser},  Word{"usmUser", usmUser},       Word{"engineBoots", boots},
    Word{"oldEngineID", engineId},   Word{"psyscontact", forgotten}, Word{"psysname", forgotten},
    Word{"psyslocation", forgotten},
};

std::span<const Word> wordsOf(SnmpFile kind) {
  if (kind == SnmpFile::access) return kAccessWords;
  return kStateWords;
}

struct Instead {
  const char* name;
  const char* what;
};

// Words that operators have in such files, and what to write instead.
constexpr std::array kInstead = {
    Instead{"rwcommunity", "nothing is writable, expected rocommunity"},
    Instead{"rwcommunity6", "nothing is writable, expected rocommunity6"},
    Instead{"rwuser", "nothing is writable, expected rouser"},
    Instead{"agentaddress", "not taken here, expected as --listen"},
    Instead{"master", "this daemon is no master agent"},
    Instead{"agentxsocket", "this daemon is no master agent; --agentx makes it the subagent of one"},
    Instead{"trapsess", "not taken, expected trapsink or trap2sink"},
    Instead{"informsink",
            "not taken, as notifications pile up for a receiver that does not answer, expected "
            "trapsink or trap2sink"},
    Instead{"includefile", "other files are not read, expected their lines here"},
    Instead{"includedir", "other files are not read, expected their lines here"},
    Instead{"includesearch", "other files are not read, expected their lines here"},
};

// The arguments of the word's last line; empty when there is none.
std::string lastOf(const std::vector<SnmpLine>& lines, const char* word) {
  auto found = std::find_if(lines.rbegin(), lines.rend(), [word](const SnmpLine& line) {
    return strcasecmp(line.word.c_str(), word) == 0;
  });
  return found == lines.rend() ? "" : found->rest;
}

template <class Table>
auto find(const Table& table, const std::string& name) {
  return std::find_if(table.begin(), table.end(),
                      [&name](const auto& entry) { return strcasecmp(entry.name, name.c_str()) == 0; });
}

}  // namespace

std::string checkSnmpWord(SnmpFile kind, const std::string& word, std::string& rest) {
  auto words = wordsOf(kind);
  auto known = find(words, word);
  if (known == words.end()) {
    const auto* instead = find(kInstead, word);
    if (instead != kInstead.end()) return instead->what;
    if (word.starts_with('[')) return "sections are not taken, expected the words without one";
    std::string meant = Runtime::nearest(word, snmpWords(kind));
    return meant.empty() ? "not taken, trelsnmpd(8) lists the words that are"
                         : fmt::format("not taken, expected {}, which is spelt alike", meant);
  }
  if (rest.empty()) return "found nothing behind it";
  Parts parts(rest);
  return known->check(parts);
}

std::string userNamedBy(const SnmpLine& line) {
  std::string rest = line.rest;
  return strcasecmp(line.word.c_str(), "createUser") == 0 ? Parts(rest)[0] : "";
}

bool canBeTakenBack(const SnmpLine& line) {
  auto known = find(kAccessWords, line.word);
  return known == std::end(kAccessWords) || known->counts == Counts::always;
}

std::vector<std::string> notReloaded(const std::vector<SnmpLine>& before, const std::vector<SnmpLine>& now) {
  std::vector<std::string> words;
  for (const Word& word : kAccessWords) {
    std::string was = lastOf(before, word.name);
    std::string is = lastOf(now, word.name);
    bool ignored = word.counts == Counts::atStart ? was != is : is.empty() && !was.empty();
    if (word.counts != Counts::always && ignored) words.emplace_back(word.name);
  }
  return words;
}

std::vector<std::string> snmpWords(SnmpFile kind) {
  std::vector<std::string> names;
  for (const Word& word : wordsOf(kind)) names.emplace_back(word.name);
  return names;
}

}  // namespace Host
