#include "programs/trelctl/Secrets.h"

#include <absl/strings/ascii.h>
#include <absl/strings/str_split.h>
#include <absl/strings/strip.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <vector>

namespace TrelCtl {
namespace {

// Of both daemons.
constexpr auto kKnownKeys = std::to_array<std::string_view>(
    {"access",     "address",   "after-hold", "agentx",      "answersUp",
     "ca",         "cert",      "conf",       "control",     "deadbands",
     "device",     "enabled",   "etcd-ca",    "etcd-cert",   "figuresInterval",
     "grace",      "handover",  "hold",       "ifIndex",     "ifIndexBase",
     "index-file", "indexFile", "interface",  "interval",    "intervalMs",
     "limit",      "listen",    "load",       "log",         "longest",
     "lossesDown", "member",    "memory",     "neighbours",  "probe",
     "processes",  "resync",    "state",      "storage",     "store",
     "timeoutMs",  "toggles",   "trace",      "trel-mode",   "ttl",
     "user",       "users",     "window",     "windowLosses"});
constexpr auto kFileKeys =
    std::to_array<std::string_view>({"credentials", "etcd-credentials", "etcd-key", "key"});

constexpr auto kOpenDirectives = std::to_array<std::string_view>({"access",
                                                                  "agentaddress",
                                                                  "agentxperms",
                                                                  "agentxsocket",
                                                                  "authaccess",
                                                                  "authgroup",
                                                                  "authtrapenable",
                                                                  "authuser",
                                                                  "group",
                                                                  "includedir",
                                                                  "includefile",
                                                                  "master",
                                                                  "maxgetbulkrepeats",
                                                                  "maxgetbulkresponses",
                                                                  "rouser",
                                                                  "rwuser",
                                                                  "setaccess",
                                                                  "syscontact",
                                                                  "sysdescr",
                                                                  "syslocation",
                                                                  "sysname",
                                                                  "sysobjectid",
                                                                  "sysservices",
                                                                  "view"});
// Their names may be shown, their arguments may not.
constexpr auto kSecretDirectives = std::to_array<std::string_view>(
    {"authcommunity", "com2sec", "com2sec6", "com2secunix", "createuser", "informsink", "oldengineid",
     "proxy", "rocommunity", "rocommunity6", "rwcommunity", "rwcommunity6", "trap2sink", "trapcommunity",
     "trapsess", "trapsink", "usmuser"});
// Arguments that say nothing. Taken out of a log they would leave little of it.
constexpr auto kPlainWords = std::to_array<std::string_view>(
    {"default", "localhost", "MD5", "SHA", "SHA-224", "SHA-256", "SHA-384", "SHA-512", "DES", "AES",
     "AES-128", "AES-192", "AES-256", "-V", "-Cn", "-e", "-v", "-l", "-m"});

template <class List>
bool isIn(const List& list, std::string_view word) {
  return std::find(list.begin(), list.end(), word) != list.end();
}

// A password in an address would stand before "@".
bool isOpen(const nlohmann::json& leaf, const std::string& key) {
  if (leaf.is_boolean() || leaf.is_null()) return true;
  const auto* text = leaf.get_ptr<const std::string*>();
  if (isIn(kFileKeys, key)) return text != nullptr && text->starts_with('/');
  return isIn(kKnownKeys, key) && (text == nullptr || text->find('@') == std::string::npos);
}

bool isWordAt(const std::string& text, size_t at, size_t size) {
  auto joins = [&](size_t i) {
    return i < text.size() && absl::ascii_isalnum(static_cast<unsigned char>(text[i]));
  };
  return (at == 0 || !joins(at - 1)) && !joins(at + size);
}

}  // namespace

void Secrets::take(nlohmann::json& node, const std::string& key) {
  if (node.is_object()) {
    for (auto& [name, value] : node.items()) take(value, name);
  } else if (node.is_array()) {
    for (nlohmann::json& element : node) take(element, key);
  } else if (!isOpen(node, key)) {
    words_.insert(node.is_string() ? node.get<std::string>() : node.dump());
    node = kRemoved;
  }
}

std::string Secrets::jsonWithout(const std::string& text) {
  nlohmann::json parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::string(kRemoved) + ": it is no JSON\n";
  take(parsed, "");
  return parsed.dump(2, ' ', true, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string Secrets::lineWithout(const std::string& line) {
  std::vector<std::string> words = absl::StrSplit(line, absl::ByAnyChar(" \t\r\"'"), absl::SkipEmpty());
  if (words.empty()) return "";
  std::string directive = absl::AsciiStrToLower(words.front());
  if (isIn(kOpenDirectives, directive)) return line;
  bool named = isIn(kSecretDirectives, directive);
  for (size_t i = named ? 1 : 0; i < words.size(); ++i) {
    if (!isIn(kPlainWords, words[i])) words_.insert(words[i]);
  }
  return named ? words.front() + " " + kRemoved : kRemoved;
}

std::string Secrets::confWithout(const std::string& text) {
  std::string without;
  std::vector<std::string> lines = absl::StrSplit(absl::StripSuffix(text, "\n"), '\n');
  for (std::string& line : lines) {
    absl::StripLeadingAsciiWhitespace(&line);
    // A comment may be a line that was in use once.
    without += (line.starts_with('#') ? std::string("# ") + kRemoved : lineWithout(line)) + "\n";
  }
  return without;
}

std::string Secrets::textWithout(const std::string& text) const {
  std::vector<std::string> longestFirst(words_.begin(), words_.end());
  std::sort(longestFirst.begin(), longestFirst.end(),
            [](const auto& a, const auto& b) { return a.size() > b.size(); });
  std::string without;
  for (size_t at = 0; at < text.size();) {
    auto word = std::find_if(longestFirst.begin(), longestFirst.end(), [&](const std::string& one) {
      return !one.empty() && text.compare(at, one.size(), one) == 0 && isWordAt(text, at, one.size());
    });
    bool found = word != longestFirst.end();
    without += found ? std::string_view(kRemoved) : std::string_view(text).substr(at, 1);
    at += found ? word->size() : 1;
  }
  return without;
}

}  // namespace TrelCtl
