#include "tests/simulation/Step.h"

#include <fmt/format.h>

#include <array>

namespace Simulation {

const char* nameOf(Kind kind) {
  static constexpr std::array<const char*, kKindCount> kNames = {
#define SIMULATION_KIND(name) #name,
      SIMULATION_KINDS(SIMULATION_KIND)
#undef SIMULATION_KIND
  };
  return kNames[static_cast<size_t>(kind)];
}

std::string Step::text() const {
  std::string text = fmt::format("{{.kind = Kind::{}", nameOf(kind));
  auto add = [&text](const char* name, uint32_t parameter) {
    if (parameter != 0) text += fmt::format(", .{} = {}", name, parameter);
  };
  add("set", set);
  add("key", key);
  add("item", item);
  add("value", value);
  add("within", within);
  return text + "}";
}

std::string Scenario::text() const {
  std::string text =
      fmt::format("Scenario{{.conditions = {{.storageToggle = {}, .memoryToggle = {}, .keepRecords = {}}},\n",
                  conditions.storageToggle, conditions.memoryToggle, conditions.keepRecords);
  text += "         .steps = {\n";
  for (const Step& step : steps) text += fmt::format("             {},\n", step.text());
  return text + "         }}\n";
}

}  // namespace Simulation
