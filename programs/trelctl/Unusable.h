// An argument or a document that cannot be used. Nothing was done.
#pragma once

#include <cerrno>
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

// "PATH: " and what errno says.
inline std::string withError(const std::string& path) {
  return Runtime::textOf(Runtime::errorOf(path, errno));
}

}  // namespace TrelCtl
