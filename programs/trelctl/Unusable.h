// An argument or a document that cannot be used. Nothing was done.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "runtime/Errors.h"

namespace TrelCtl {

class Unusable final : public std::runtime_error {
 public:
  explicit Unusable(const std::string& line) : Unusable(std::vector<std::string>{line}) {}
  explicit Unusable(std::vector<std::string> lines)
      : runtime_error(lines.front()), lines_(std::move(lines)) {}
  // Each says what is wrong.
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

// Throws it for what a path that was given is no use for.
inline void orUnusable(const std::string& path, const absl::Status& status) {
  if (!status.ok()) throw Unusable(Runtime::textOf(Runtime::errorOf(path, status)));
}

}  // namespace TrelCtl
