#include "runtime/Settings.h"

#include <sys/stat.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>

#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"

namespace Runtime {
namespace {

using nlohmann::json;

constexpr size_t kMaxFileBytes = 1 << 20;

// What `check` says; empty: nothing.
std::string saidBy(const std::function<void(const std::string&)>& check, const std::string& text) {
  try {
    check(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

json::json_pointer pointerOf(std::string_view key) {
  json::json_pointer pointer;
  for (size_t slash; (slash = key.find('/')) != std::string_view::npos; key.remove_prefix(slash + 1)) {
    pointer /= std::string(key.substr(0, slash));
  }
  return pointer /= std::string(key);
}

// The top of a place: "state" of "state[1]", "access" of "access/ca".
std::string_view groupOf(std::string_view where) { return where.substr(0, where.find_first_of("/[")); }

// An option's text as a file would have it. What is no number stays a text, which its type refuses.
json numberOf(const std::string& text) {
  int64_t number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size()) {
    return number < 0 ? json(number) : json(static_cast<uint64_t>(number));
  }
  json parsed = json::parse(text, nullptr, /*allow_exceptions=*/false);
  return parsed.is_number() ? parsed : json(text);
}

std::string optionOf(std::string_view key) {
  std::string option;
  for (char c : key) {
    if (c >= 'A' && c <= 'Z') {
      option += '-';
      option += static_cast<char>(c - 'A' + 'a');
    } else {
      option += c == '/' ? '-' : c;
    }
  }
  return option;
}

std::string helpOf(const Settings::Setting& setting) {
  const Settings::About& about = setting.about;
  std::string help = about.meaning;
  if (!setting.bounds.empty()) help += ", " + setting.bounds;
  if (setting.form == Settings::Form::list) help += "; repeatable";
  if (about.needed == Settings::Needed::yes) {
    help += "; needed";
  } else if (!setting.byDefault.empty()) {
    help += fmt::format(" (default: {})", setting.byDefault);
  }
  return about.applies == Settings::Applies::atReload ? help + "; a reload applies it" : help;
}

}  // namespace

Arguments forReload(Arguments arguments) {
  struct stat about {};
  arguments.named |= !arguments.file.empty() && stat(arguments.file.c_str(), &about) == 0;
  return arguments;
}

Findings::Findings(Arguments arguments, LocatedJson located, bool isAbsent)
    : arguments_(std::move(arguments)), located_(std::move(located)), isAbsent_(isAbsent) {}

// The part of the place that an option gives; empty: none.
std::string_view Findings::optionAt(std::string_view where) const {
  for (std::string_view key = where; !key.empty();) {
    json::json_pointer pointer = pointerOf(key);
    if (arguments_.given->contains(pointer) && !(*arguments_.given)[pointer].is_object()) return key;
    size_t end = key.find_last_of("/[");
    key = key.substr(0, end == std::string_view::npos ? 0 : end);
  }
  return "";
}

std::string Findings::placed(std::string_view where, std::string_view text) const {
  std::string_view option = optionAt(where);
  return option.empty() ? placedInFile(where, text) : fmt::format("--{}: {}", optionOf(option), text);
}

std::string Findings::placedInFile(std::string_view where, std::string_view text) const {
  std::string place = where.empty() ? "" : fmt::format("{}: ", where);
  if (arguments_.file.empty()) return fmt::format("{}{}", place, text);
  if (isAbsent_) return fmt::format("{}{} (there is no {})", place, text, arguments_.file);
  return fmt::format("{}:{}: {}{}", arguments_.file, located_.lineOf(where), place, text);
}

void Findings::fault(std::string_view where, std::string_view text) {
  faults_.push_back(placed(where, text));
}

void Findings::faultInFile(std::string_view where, std::string_view text) {
  faults_.push_back(placedInFile(where, text));
}

void Findings::warning(std::string_view where, std::string_view text) {
  warnings_.push_back(placed(where, text));
}

void Findings::add(const std::vector<std::string>& faults) {
  faults_.insert(faults_.end(), faults.begin(), faults.end());
}

int reported(const Findings& findings) {
  for (const auto* lines : {&findings.faults(), &findings.warnings()}) {
    for (const std::string& line : *lines) {
      std::string escapedLine = escaped(line) + "\n";
      std::fwrite(escapedLine.data(), 1, escapedLine.size(), stderr);
    }
  }
  return findings.faults().empty() ? 0 : 1;
}

std::optional<std::string> JsonChecked::decode(const json& value) const {
  const auto* text = value.get_ptr<const std::string*>();
  return text != nullptr && saidBy(check, *text).empty() ? std::optional(*text) : std::nullopt;
}

std::string JsonChecked::fault(const json& value) const {
  const auto* text = value.get_ptr<const std::string*>();
  return text == nullptr ? foundExpected(value, expected()) : saidBy(check, *text);
}

std::optional<std::vector<std::string>> JsonList::decode(const json& value) const {
  if (!value.is_array() || !fault(value).empty()) return std::nullopt;
  return value.get<std::vector<std::string>>();
}

// About the first wrong one.
std::string JsonList::fault(const json& value) const {
  if (!value.is_array()) return foundExpected(value, expected());
  for (const json& one : value) {
    JsonChecked checked{check, ""};
    if (!checked.decode(one)) return checked.fault(one);
  }
  return "";
}

void anyText(const std::string& /*text*/) {}

void isPath(const std::string& text) {
  if (text.empty()) throw std::invalid_argument("found nothing, expected a path");
  if (text.find('\0') != std::string::npos) throw std::invalid_argument("found a NUL byte, expected a path");
}

std::string Settings::Setting::option() const { return form == Form::onlyInFile ? "" : optionOf(about.key); }

void Settings::percent(About about, double& target) {
  add(std::move(about), Form::number, "0 to 100", fmt::to_string(target), JsonNumber{0, 100}, target);
}

void Settings::text(About about, std::string& target, std::function<void(const std::string&)> check) {
  JsonChecked type{std::move(check), about.kind};
  add(std::move(about), Form::text, "", target, std::move(type), target);
}

void Settings::choice(About about, std::vector<std::string> words, std::string byDefault,
                      std::function<void(const std::string&)> set) {
  std::string_view name = about.key;
  JsonChecked type{[words = std::move(words)](const std::string& text) {
                     if (std::find(words.begin(), words.end(), text) != words.end()) return;
                     throw std::invalid_argument(
                         fmt::format("found {}, expected {}", inQuotes(text), fmt::join(words, ", ")));
                   },
                   about.kind};
  settings_.push_back({std::move(about), Form::text, "", std::move(byDefault),
                       [name, type = std::move(type), set = std::move(set)](JsonFields& fields) {
                         std::string word;
                         if (fields.optional(name, type, word)) set(word);
                       },
                       ""});
}

void Settings::list(About about, std::vector<std::string>& target,
                    std::function<void(const std::string&)> check) {
  add(std::move(about), Form::list, "", "", JsonList{std::move(check)}, target);
}

void Settings::flag(About about, bool& target) {
  add(std::move(about), Form::flag, "", "", JsonBoolean(), target);
}

void Settings::onlyInFile(About about, std::function<void(const json&, JsonNotes&)> read) {
  std::string_view name = about.key;
  settings_.push_back({std::move(about), Form::onlyInFile, "", "",
                       [name, read = std::move(read)](JsonFields& fields) { fields.any(name, read); }, ""});
}

void Settings::describe(CLI::App& app, const char* names, const std::string& file,
                        Arguments& arguments) const {
  arguments.file = file;
  arguments.given = std::make_shared<json>(json::object());
  app.add_option_function<std::string>(
         names,
         [&arguments](const std::string& path) {
           arguments.file = path;
           arguments.named = !path.empty();
         },
         fmt::format("The configuration, a JSON object whose keys are those of the options; an option wins; "
                     "empty: none (default: {})",
                     file))
      ->type_name("FILE");
  for (const Setting& setting : settings_) {
    if (setting.form == Form::onlyInFile) continue;
    auto set = [&arguments, key = setting.about.key](json value) {
      (*arguments.given)[pointerOf(key)] = std::move(value);
    };
    std::string option = "--" + setting.option();
    std::string help = helpOf(setting);
    if (setting.form == Form::flag) {
      app.add_flag_callback(
          option, [set] { set(true); }, help);
    } else if (setting.form == Form::list) {
      app.add_option_function<std::vector<std::string>>(
             option, [set](const std::vector<std::string>& texts) { set(texts); }, help)
          ->type_name(setting.about.kind)
          ->allow_extra_args(false);
    } else {
      bool isNumber = setting.form == Form::number;
      app.add_option_function<std::string>(
             option,
             [set, isNumber](const std::string& text) { set(isNumber ? numberOf(text) : json(text)); }, help)
          ->type_name(setting.about.kind);
    }
  }
}

void Settings::readInto(const json& document, JsonNotes& notes) {
  JsonFields root(document, notes);
  if (!root.isObject()) return;
  std::set<std::string_view> groups;
  for (Setting& setting : settings_) {
    std::string_view key = setting.about.key;
    std::string_view group = groupOf(key);
    if (group == key) {
      setting.read(root);
    } else if (groups.insert(group).second) {
      root.object(group, [&](JsonFields& fields) {
        for (Setting& one : settings_) {
          std::string_view inner = one.about.key;
          if (inner != group && groupOf(inner) == group) one.read(fields);
        }
      });
    }
    auto pointer = pointerOf(key);
    if (document.contains(pointer)) {
      const json& value = document[pointer];
      setting.value = value.is_string() ? value.get<std::string>() : value.dump();
    }
  }
  root.done();
}

Findings Settings::read(const Arguments& arguments) {
  const std::string& path = arguments.file;
  LocatedJson located = parseLocated("{}");
  std::string unusable;
  absl::StatusOr<std::string> text = path.empty() ? "{}" : readFile(path, kMaxFileBytes);
  bool isAbsent = !arguments.named && absl::IsNotFound(text.status());
  if (text.ok()) {
    located = parseLocated(*text);
    if (!located.unusable.empty()) unusable = fmt::format("{}:{}", path, located.unusable);
  } else if (!isAbsent) {
    unusable = textOf(text.status());
  }
  Findings findings(arguments, located, isAbsent);
  if (!unusable.empty()) {
    findings.add({unusable});
    JsonNotes ofOptions;
    readInto(*arguments.given, ofOptions);
    for (const JsonNote& note : ofOptions.faults) {
      if (findings.isOption(note.where)) findings.fault(note.where, note.text);
    }
    return findings;
  }
  JsonNotes notes;
  notes.strict = true;
  for (const JsonNote& note : located.faults) findings.faultInFile(note.where, note.text);
  json document = *located.json;
  if (document.is_object()) {
    // Options of a group would hide that the file has no such group.
    for (const auto& [group, given] : arguments.given->items()) {
      auto found = document.find(group);
      if (!given.is_object() || found == document.end() || found->is_object()) continue;
      findings.faultInFile(group, foundExpected(*found, "an object"));
    }
    document.merge_patch(*arguments.given);
  }
  readInto(document, notes);
  for (const JsonNote& note : notes.faults) findings.fault(note.where, note.text);
  for (const JsonNote& note : notes.warnings) findings.warning(note.where, note.text);
  return findings;
}

bool Settings::isGiven(std::string_view key) const {
  return std::any_of(settings_.begin(), settings_.end(), [key](const Setting& setting) {
    return setting.about.key == key && !setting.value.empty();
  });
}

Settings::AtStart Settings::atStart() const {
  AtStart values;
  for (const Setting& setting : settings_) {
    if (setting.about.applies == Applies::atReload) continue;
    values.emplace_back(setting.about.key, setting.value.empty() ? setting.byDefault : setting.value);
  }
  return values;
}

std::vector<std::string> Settings::differences(const AtStart& before, const AtStart& now) {
  std::vector<std::string> keys;
  for (size_t i = 0; i < now.size(); ++i) {
    if (before.at(i) != now[i]) keys.push_back(now[i].first);
  }
  return keys;
}

}  // namespace Runtime
