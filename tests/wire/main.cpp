// Runs the tests as GoogleTest does, with a few options more.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <random>

#include "tests/wire/Settings.h"

namespace Wire {
namespace {

Settings chosen;

}  // namespace

const Settings& settings() { return chosen; }

}  // namespace Wire

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::random_device chance;
  Wire::chosen.seed = chance();
  CLI::App app("Random and malformed SNMP messages, against a running trelsnmpd");
  app.add_option("--seed", Wire::chosen.seed, "of all that is random (default: another one each time)");
  app.add_option("--messages", Wire::chosen.messages, "random messages")->capture_default_str();
  app.add_option("--malformed", Wire::chosen.malformed,
                 "messages broken at random, beside those that are worked out")
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  fmt::print("--seed {}\n", Wire::chosen.seed);
  // For a daemon with sanitizers: what it frees goes back soon, so that growth is growth.
  setenv("ASAN_OPTIONS",
         "quarantine_size_mb=4:thread_local_quarantine_size_kb=64:detect_stack_use_after_return=1",
         /*overwrite=*/0);
  setenv("UBSAN_OPTIONS", "print_stacktrace=1", /*overwrite=*/0);
  return RUN_ALL_TESTS();
}
