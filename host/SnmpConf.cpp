#include "host/SnmpConf.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "host/SnmpWords.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"
#include "snmp-modules/NetSnmp.h"

namespace Host {
namespace {

constexpr size_t kMaxFileBytes = 1 << 20;
// net-snmp's readers have buffers of about this size.
constexpr size_t kMaxLineBytes = 1000;

// The access without --conf: read the system group and the served tables, from this machine.
constexpr const char* kDefaultAccess =
    "view trelServed included .1.3.6.1.2.1.1\n"
    "view trelServed included .1.3.6.1.4.1.{0}.3.40\n"
    "view trelServed included .1.3.6.1.4.1.{0}.3.41\n"
    "rocommunity public 127.0.0.1 -V trelServed\n"
    "rocommunity6 public ::1 -V trelServed\n";

// `text` is one line without its newline. Leaves `line` empty for a blank line or a comment. Returns what is
// wrong.
std::string parseLine(std::string_view text, SnmpFile kind, SnmpLine& line) {
  if (text.find('\0') != std::string_view::npos) return "found a NUL byte, expected text";
  if (text.size() > kMaxLineBytes) {
    return fmt::format("found {} bytes, expected at most {}", text.size(), kMaxLineBytes);
  }
  std::string copy(text);
  char* at = skip_white(copy.data());
  if (at == nullptr) return "";
  std::string word(copy.size() + 1, '\0');
  const char* rest = copy_nword(at, word.data(), static_cast<int>(word.size()));
  line.word = word.substr(0, word.find('\0'));
  if (line.word.empty()) return "found an empty word";
  line.rest = rest == nullptr ? "" : rest;
  line.rest.resize(line.rest.find_last_not_of(" \t\v\f\r") + 1);
  std::string problem = checkSnmpWord(kind, line.word, line.rest);
  return problem.empty() ? "" : fmt::format("{}: {}", Runtime::shortened(line.word), problem);
}

// Of a user with two lines, net-snmp would take the last without a word.
void noteNamedTwice(SnmpConf& conf) {
  std::set<std::string> names;
  for (const SnmpLine& line : conf.lines) {
    std::string name = userNamedBy(line);
    if (!name.empty() && !names.insert(name).second) {
      conf.errors.push_back(fmt::format("{}: {}: found {} for the second time", line.where, line.word,
                                        Runtime::inQuotes(name)));
    }
  }
}

std::string wrongWithOwner(const struct stat& about) {
  bool ours = about.st_uid == geteuid() || about.st_uid == 0;
  if (ours && (about.st_mode & (S_IWGRP | S_IWOTH)) == 0) return "";
  return fmt::format("found mode {:04o} and the user {}, expected a file that no other user may write",
                     about.st_mode & 07777u, about.st_uid);
}

}  // namespace

SnmpConf parseSnmpConf(const std::string& name, std::string_view text, SnmpFile kind) {
  SnmpConf conf;
  for (unsigned number = 1; !text.empty(); ++number) {
    size_t end = std::min(text.find('\n'), text.size());
    SnmpLine line{fmt::format("{}:{}", name, number), {}, {}};
    std::string problem = parseLine(text.substr(0, end), kind, line);
    if (!problem.empty()) {
      conf.errors.push_back(fmt::format("{}: {}", line.where, problem));
    } else if (!line.rest.empty()) {
      conf.lines.push_back(std::move(line));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  if (kind == SnmpFile::access) noteNamedTwice(conf);
  if (!conf.errors.empty()) conf.lines.clear();
  return conf;
}

SnmpConf readSnmpConf(const std::string& path, SnmpFile kind) {
  auto failed = [&path](const std::string& error) { return SnmpConf{{}, {path + ": " + error}}; };
  absl::StatusOr<Runtime::File> file = Runtime::File::open(path);
  if (kind == SnmpFile::state && absl::IsNotFound(file.status())) return {};
  if (!file.ok()) return failed(Runtime::textOf(file.status()));
  std::string problem = kind == SnmpFile::state ? wrongWithOwner(file->about()) : "";
  if (!problem.empty()) return failed(problem);
  absl::StatusOr<std::string> text = file->content(kMaxFileBytes);
  return text.ok() ? parseSnmpConf(path, *text, kind) : failed(Runtime::textOf(text.status()));
}

SnmpConf readAccess(const std::string& path) {
  if (!path.empty()) return readSnmpConf(path, SnmpFile::access);
  return parseSnmpConf("built in", fmt::format(kDefaultAccess, TREL_ENTERPRISE_NUMBER), SnmpFile::access);
}

}  // namespace Host
