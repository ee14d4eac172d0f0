#include "member/IndexFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/JsonFields.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using Json = nlohmann::json;
using Runtime::errorOf;
using Runtime::textOf;

constexpr int kVersion = 1;
constexpr uint64_t kMaxBytes = 64 << 20;
constexpr int kMaxSetAside = 100;

absl::StatusOr<StorageIndexes::ByMountPoint> indexesIn(const std::string& content) {
  auto damaged = [](const std::string& what) { return absl::InvalidArgumentError(what); };
  Json document = Json::parse(content, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) return damaged("found no JSON object");
  if (document.value("version", Json()) != kVersion) {
    return damaged(fmt::format("found version {}, expected {}",
                               Runtime::shortened(document.value("version", Json()).dump()), kVersion));
  }
  Json mounts = document.value("mounts", Json());
  if (!mounts.is_object()) return damaged("found no object \"mounts\"");
  StorageIndexes::ByMountPoint indexes;
  std::set<uint32_t> given;
  for (const auto& [mountPoint, found] : mounts.items()) {
    auto index = Runtime::JsonInteger<uint32_t>{StorageIndexes::kFirst, StorageIndexes::kLast}.decode(found);
    if (!index || !given.insert(*index).second) {
      return damaged(fmt::format("found index {} for {}, expected a number from {} to {} that occurs once",
                                 Runtime::shortened(found.dump()), Runtime::inQuotes(mountPoint),
                                 StorageIndexes::kFirst, StorageIndexes::kLast));
    }
    indexes[mountPoint] = *index;
  }
  return indexes;
}

// Renames the file to an unused name.
absl::StatusOr<std::string> setAside(const std::string& path) {
  for (int number = 1; number <= kMaxSetAside; ++number) {
    std::string name = path + ".damaged" + (number == 1 ? "" : fmt::format(".{}", number));
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) return name;
    if (errno != EEXIST) return errorOf(name, errno);
  }
  return absl::AlreadyExistsError(fmt::format("{}.damaged.{} and those before it exist", path, kMaxSetAside));
}

}  // namespace

absl::StatusOr<KeptIndexes> readIndexes(const std::string& path) {
  absl::StatusOr<Runtime::File> file = Runtime::File::open(path);
  if (absl::IsNotFound(file.status())) return KeptIndexes();
  if (!file.ok()) return errorOf(path, file.status());
  absl::StatusOr<std::string> content = file->content(kMaxBytes);
  if (!content.ok() && !absl::IsOutOfRange(content.status())) return errorOf(path, content.status());
  absl::StatusOr<StorageIndexes::ByMountPoint> indexes =
      content.ok() ? indexesIn(*content) : content.status();
  if (indexes.ok()) return KeptIndexes{*std::move(indexes), ""};
  std::string damage = fmt::format("{}: {}", path, textOf(indexes.status()));
  absl::StatusOr<std::string> name = setAside(path);
  if (!name.ok()) return errorOf(damage + "; not set aside", name.status());
  return KeptIndexes{{}, fmt::format("{}; set aside as {}", damage, *name)};
}

absl::Status writeIndexes(const std::string& path, const StorageIndexes::ByMountPoint& indexes) {
  std::filesystem::path directory = std::filesystem::path(path).parent_path();
  if (directory.empty()) directory = ".";
  std::error_code ignored;  // an error shows when the file is created
  std::filesystem::create_directories(directory, ignored);

  // Always the same name, so that a file that a loss of power left behind is removed.
  std::string fresh = path + ".new";
  unlink(fresh.c_str());
  std::string content = Json{{"version", kVersion}, {"mounts", indexes}}.dump(2) + "\n";
  absl::Status written = Runtime::writeNewFile(fresh, content, 0644);
  if (written.ok() && rename(fresh.c_str(), path.c_str()) != 0) {
    written = Runtime::systemError(errno);
    unlink(fresh.c_str());
  }
  if (!written.ok()) return errorOf(path, written);
  // The new name, too, must survive a loss of power.
  Runtime::Descriptor entry(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (entry.opened()) fsync(entry.get());
  return absl::OkStatus();
}

}  // namespace Member
