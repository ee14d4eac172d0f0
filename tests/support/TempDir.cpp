#include "tests/support/TempDir.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace Support {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string name = fs::temp_directory_path() / "trel-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory can be made");
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TempDir::write(std::string_view name, std::string_view content) const {
  std::string target = file(name);
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + target);
  return target;
}

std::string TempDir::replace(std::string_view name, std::string_view content) const {
  std::string target = file(name);
  fs::rename(write(std::string(name) + ".new", content), target);
  return target;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return content.str();
}

}  // namespace Support
