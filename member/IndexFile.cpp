#include "member/IndexFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "member/Failed.h"
#include "runtime/File.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using Json = nlohmann::json;

constexpr int kVersion = 1;
constexpr uint64_t kMaxBytes = 64 << 20;
constexpr int kMaxSetAside = 100;

bool writeAll(int file, std::string_view content) {
  while (!content.empty()) {
    ssize_t count = write(file, content.data(), content.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    content.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

// What is wrong with the document; empty, and the indexes are there, when nothing is.
std::string damageOf(const std::string& content, StorageIndexes::ByMountPoint& indexes) {
  Json document = Json::parse(content, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) return "found no JSON object";
  if (document.value("version", Json()) != kVersion) {
    return fmt::format("found version {}, expected {}",
                       Runtime::shortened(document.value("version", Json()).dump()), kVersion);
  }
  Json mounts = document.value("mounts", Json());
  if (!mounts.is_object()) return "found no object \"mounts\"";
  std::set<uint32_t> given;
  for (const auto& [mountPoint, index] : mounts.items()) {
    bool good =
        index.is_number_unsigned() && index >= StorageIndexes::kFirst && index <= StorageIndexes::kLast;
    if (!good || !given.insert(index.get<uint32_t>()).second) {
      return fmt::format("found index {} for {}, expected a number from {} to {} that occurs once",
                         Runtime::shortened(index.dump()), Runtime::inQuotes(mountPoint),
                         StorageIndexes::kFirst, StorageIndexes::kLast);
    }
    indexes[mountPoint] = index.get<uint32_t>();
  }
  return "";
}

// Renames the file to a name that is not taken.
Result<std::string> setAside(const std::string& path) {
  for (int number = 1; number <= kMaxSetAside; ++number) {
    std::string name = path + ".damaged" + (number == 1 ? "" : fmt::format(".{}", number));
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) return name;
    if (errno != EEXIST) return failed(name, errno);
  }
  return Failure{fmt::format("{}.damaged.{} and those before it exist", path, kMaxSetAside)};
}

}  // namespace

Result<KeptIndexes> readIndexes(const std::string& path) {
  absl::StatusOr<Runtime::File> file = Runtime::File::open(path);
  if (absl::IsNotFound(file.status())) return KeptIndexes();
  if (!file.ok()) return failed(path, file.status());
  KeptIndexes kept;
  std::string damage;
  absl::StatusOr<std::string> content = file->content(kMaxBytes);
  if (content.ok()) {
    damage = damageOf(*content, kept.indexes);
  } else if (absl::IsOutOfRange(content.status())) {
    damage = Runtime::textOf(content.status());
  } else {
    return failed(path, content.status());
  }
  if (damage.empty()) return kept;
  Result<std::string> name = setAside(path);
  if (auto* failure = std::get_if<Failure>(&name)) {
    return Failure{fmt::format("{}: {}; not set aside: {}", path, damage, failure->text)};
  }
  return KeptIndexes{{}, fmt::format("{}: {}; set aside as {}", path, damage, std::get<std::string>(name))};
}

Result<std::monostate> writeIndexes(const std::string& path, const StorageIndexes::ByMountPoint& indexes) {
  std::filesystem::path directory = std::filesystem::path(path).parent_path();
  if (directory.empty()) directory = ".";
  std::error_code ignored;  // what is wrong shows when the file is made
  std::filesystem::create_directories(directory, ignored);

  // Always the same name, so that one that was left behind, as by a loss of power, does not stay.
  std::string fresh = path + ".new";
  unlink(fresh.c_str());
  Runtime::Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!file.opened()) return failed(path, errno);
  std::string content = Json{{"version", kVersion}, {"mounts", indexes}}.dump(2) + "\n";
  bool written = fchmod(file.get(), 0644) == 0 && writeAll(file.get(), content) && fsync(file.get()) == 0 &&
                 rename(fresh.c_str(), path.c_str()) == 0;
  if (!written) {
    int error = errno;
    unlink(fresh.c_str());
    return failed(path, error);
  }
  // The name, too, is to survive a loss of power.
  Runtime::Descriptor entry(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (entry.opened()) fsync(entry.get());
  return std::monostate();
}

}  // namespace Member
