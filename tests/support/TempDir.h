// A directory of a test's own, removed with all that is in it when the test ends.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Support {

class TempDir final {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string file(std::string_view name) const { return path_ / name; }

  // Writes in place, as an editor that keeps the inode does: readers may see the file half written.
  std::string write(std::string_view name, std::string_view content) const;
  // Writes beside it and renames: readers see the old content or the new.
  std::string replace(std::string_view name, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

// The whole content; throws std::runtime_error when the file cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace Support
