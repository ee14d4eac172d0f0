#include "tests/e2e/Manager.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace E2e {
namespace {

// Short to numeric, the longer first.
const std::array<std::pair<std::string, std::string>, 6> kAbbreviations = {{
    {"baif", ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.40.1.1.1"},
    {"reach", ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.40.1.2.1"},
    {"sys", ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.41.1.1.1"},
    {"proc", ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.41.1.2.1"},
    {"stor", ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.41.1.3.1"},
    {"tables", ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3"},
}};

// Long enough for a busy machine; a test that expects no answer waits so long.
const Support::Argv kPatience = {"-t", "2", "-r", "1"};

void append(Support::Argv& argv, const Support::Argv& more) {
  argv.insert(argv.end(), more.begin(), more.end());
}

}  // namespace

const Support::Argv Manager::kV2c = {"-v2c", "-c", "public"};

Manager::Manager(std::string address, Support::Argv credentials)
    : address_(std::move(address)), credentials_(std::move(credentials)) {
  // The tools make it where it is missing, and say so in between their answers.
  std::filesystem::create_directory(settings_.path() / "cert_indexes");
}

Manager& Manager::runBy(const Support::Argv& program) {
  runBy_ = program;
  return *this;
}

std::string numericName(std::string_view name) {
  for (const auto& [abbreviation, numbers] : kAbbreviations) {
    if (name.starts_with(abbreviation)) return numbers + std::string(name.substr(abbreviation.size()));
  }
  return std::string(name);
}

std::string shortName(std::string text) {
  for (const auto& [abbreviation, numbers] : kAbbreviations) {
    for (size_t at = 0; (at = text.find(numbers + ".", at)) != std::string::npos;) {
      text.replace(at, numbers.size(), abbreviation);
    }
  }
  return text;
}

Support::Result Manager::run(const std::string& tool, const Support::Argv& options,
                             const Names& names) const {
  Support::Argv argv = runBy_;
  argv.push_back(tool);
  append(argv, kPatience);
  append(argv, credentials_);
  append(argv, options);
  argv.push_back(address_);
  append(argv, names);
  std::string settings = settings_.path();
  return Support::run(argv, {"SNMPCONFPATH=" + settings, "SNMP_PERSISTENT_DIR=" + settings},
                      Support::Millis(120'000));
}

std::string Manager::ask(const std::string& tool, const Support::Argv& options, const Names& names) const {
  Support::Argv all = {"-m", "", "-On"};
  append(all, options);
  Names numeric;
  for (const std::string& name : names) numeric.push_back(numericName(name));
  Support::Result result = run(tool, all, numeric);
  return shortName(result.out + result.err);
}

std::string Manager::getBulk(int nonRepeaters, int maxRepetitions, const Names& names) const {
  return ask("snmpbulkget", {"-Cn" + std::to_string(nonRepeaters), "-Cr" + std::to_string(maxRepetitions)},
             names);
}

std::string Manager::set(const std::string& name, long value) const {
  return set(name, 'i', std::to_string(value));
}

std::string Manager::set(const std::string& name, char type, const std::string& value) const {
  return ask("snmpset", {}, {name, std::string(1, type), value});
}

Support::Result Manager::withNames(const std::string& tool, const Support::Argv& options,
                                   const Names& names) const {
  Support::Argv all = {"-M", TREL_MIBS, "-m", "VELDA-TREL-MIB:VELDA-TREL-HOST-RESOURCES-MIB"};
  append(all, options);
  return run(tool, all, names);
}

uint32_t Manager::upTime() const {
  std::string answer = ask("snmpget", {"-Oqvt"}, {".1.3.6.1.2.1.1.3.0"});
  try {
    return static_cast<uint32_t>(std::stoul(answer));
  } catch (const std::logic_error&) {
    throw std::runtime_error("no uptime: " + answer);
  }
}

}  // namespace E2e
