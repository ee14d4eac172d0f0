// What an operator sets of a daemon: one table, from which come the command line, its help, the file of
// configuration with all that is wrong in it, and what a reload changes.
//
// A key "access/ca" is the member "ca" of the object "access" in the file, and the option --access-ca; a
// capital letter in a key is "-" and a small one in the option. An option wins over the file.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/JsonFields.h"
#include "runtime/LocatedJson.h"

namespace CLI {
class App;
}

namespace Runtime {

// Where settings are given.
struct Arguments {
  std::string file;                       // empty: none
  bool named = false;                     // by an option: then it must be there
  std::shared_ptr<nlohmann::json> given;  // the options' values, as a file would have them; not null
};

// For a reload: the file that is there now must be there then, or nothing of what is in force is to be lost.
Arguments forReload(Arguments arguments);

// What is wrong, each in one line that begins with the place: "FILE:LINE: KEY: " or "--OPTION: ".
class Findings final {
 public:
  // isAbsent: there is no file, and need be none.
  Findings(Arguments arguments, LocatedJson located, bool isAbsent);
  void fault(std::string_view where, std::string_view text);
  // Of the file, whatever the options say.
  void faultInFile(std::string_view where, std::string_view text);
  void warning(std::string_view where, std::string_view text);
  // Lines that have a place of their own.
  void add(const std::vector<std::string>& faults);
  const std::vector<std::string>& faults() const { return faults_; }
  const std::vector<std::string>& warnings() const { return warnings_; }

  // Whether an option gives the value, or what it is in.
  bool isOption(std::string_view where) const { return !optionAt(where).empty(); }

 private:
  std::string placed(std::string_view where, std::string_view text) const;
  std::string_view optionAt(std::string_view where) const;
  std::string placedInFile(std::string_view where, std::string_view text) const;

  Arguments arguments_;
  LocatedJson located_;
  bool isAbsent_;
  std::vector<std::string> faults_;
  std::vector<std::string> warnings_;
};

// Ends a check: writes all findings to standard error. Returns the status with which the process is to exit:
// 0 when there are no faults, else 1.
int reported(const Findings& findings);

// Types of members, besides those of JsonFields.h: a string, or each of an array, for which `check` does not
// throw std::invalid_argument ("found ..., expected ...").
struct JsonChecked {
  std::function<void(const std::string&)> check;
  std::string kind;  // of string

  std::string expected() const { return "a string " + kind; }
  std::optional<std::string> decode(const nlohmann::json& json) const;
  std::string fault(const nlohmann::json& json) const;
};
struct JsonList {
  std::function<void(const std::string&)> check;

  std::string expected() const { return "an array of strings"; }
  std::optional<std::vector<std::string>> decode(const nlohmann::json& json) const;
  std::string fault(const nlohmann::json& json) const;
};

void anyText(const std::string& text);
// Throws unless the text can be a path.
void isPath(const std::string& text);

class Settings final {
 public:
  enum class Form : uint8_t { number, text, list, flag, onlyInFile };
  enum class Applies : uint8_t { atReload, atStart };
  enum class Needed : uint8_t { yes, no };

  // How a setting is shown.
  struct About {
    const char* key;
    const char* kind;  // stands for the value in the help
    std::string meaning;
    Applies applies = Applies::atStart;
    Needed needed = Needed::no;
  };
  struct Setting {
    About about;
    Form form;
    std::string bounds;     // "1 to 3600"; empty: none
    std::string byDefault;  // empty: the meaning says it
    std::function<void(JsonFields&)> read;
    std::string value;           // as it was read; empty: the default
    std::string option() const;  // "index-file"; empty: there is none
  };

  // Each outlives the readings: targets, and all that the functions use.
  template <class Number>
  void number(About about, Number min, Number max, Number& target) {
    add(std::move(about), Form::number, fmt::format("{} to {}", min, max), fmt::to_string(target),
        JsonInteger<Number>{min, max}, target);
  }
  void percent(About about, double& target);
  void text(About about, std::string& target, std::function<void(const std::string&)> check = anyText);
  // One of the words; the kind is made of them. `set` is called with the one that is given.
  void choice(About about, std::vector<std::string> words, std::string byDefault,
              std::function<void(const std::string&)> set);
  void list(About about, std::vector<std::string>& target, std::function<void(const std::string&)> check);
  void flag(About about, bool& target);
  // A member that no option stands for. `read` notes what is wrong with it.
  void onlyInFile(About about, std::function<void(const nlohmann::json&, JsonNotes&)> read);

  // Adds an option for each setting, which sets `arguments`, and one for the file, "--config", whose default
  // is `file`.
  void describe(CLI::App& app, const char* names, const std::string& file, Arguments& arguments) const;
  // Sets the targets of what is given. Blocks.
  Findings read(const Arguments& arguments);

  const std::vector<Setting>& all() const { return settings_; }
  // Whether it was read from the file or an option.
  bool isGiven(std::string_view key) const;
  // The settings that a reload does not apply, with the text of the value that counts.
  using AtStart = std::vector<std::pair<std::string, std::string>>;
  AtStart atStart() const;
  // The keys whose values differ in two readings of the same table.
  static std::vector<std::string> differences(const AtStart& before, const AtStart& now);

 private:
  template <class Type, class Target>
  void add(About about, Form form, std::string bounds, std::string byDefault, Type type, Target& target) {
    std::string_view key = about.key;
    std::string_view name = key.substr(key.find('/') + 1);
    bool needed = about.needed == Needed::yes;
    settings_.push_back({std::move(about), form, std::move(bounds), std::move(byDefault),
                         [name, needed, type = std::move(type), &target](JsonFields& fields) {
                           if (needed) {
                             fields.required(name, type, target);
                           } else {
                             fields.optional(name, type, target);
                           }
                         },
                         ""});
  }
  void readInto(const nlohmann::json& document, JsonNotes& notes);

  std::vector<Setting> settings_;
};

}  // namespace Runtime
