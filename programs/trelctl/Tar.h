// Makes a tar archive (POSIX ustar) of small texts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace TrelCtl {

class Tar final {
 public:
  // The modification time of all files, in seconds since 1970 UTC.
  explicit Tar(uint64_t time) : time_(time) {}

  // Readable by its owner alone. Requires: a name of 1 to 100 bytes.
  void add(std::string_view name, std::string_view content);
  // The whole archive, with its end.
  std::string archive() &&;

 private:
  const uint64_t time_;
  std::string bytes_;
};

}  // namespace TrelCtl
