#include "member/Cgroup.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <optional>
#include <sstream>
#include <string_view>

#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"

namespace Member {
namespace {

constexpr uint64_t kMaxCgroupBytes = 1 << 16;
constexpr uint64_t kKib = 1024;
constexpr uint64_t kUnlimited = UINT64_MAX;

struct CgroupFile {
  std::string path;
  std::string content;

  // Of a word of it; kUnlimited for "max".
  absl::StatusOr<uint64_t> number(std::string_view word) const {
    if (word == "max") return kUnlimited;
    uint64_t value = 0;
    auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error == std::errc() && end == word.data() + word.size()) return value;
    return absl::InvalidArgumentError(
        fmt::format("{}: found {}, expected a number or max", path, Runtime::inQuotes(word)));
  }
};

// NotFound: there is no such file, as outside of a cgroup namespace.
absl::StatusOr<CgroupFile> readCgroup(const std::string& directory, const char* name) {
  std::string path = directory + "/" + name;
  absl::StatusOr<Runtime::File> file = Runtime::File::open(path);
  if (!file.ok()) return Runtime::errorOf(path, file.status());
  absl::StatusOr<std::string> content = file->content(kMaxCgroupBytes);
  if (!content.ok()) return Runtime::errorOf(path, content.status());
  return CgroupFile{std::move(path), *std::move(content)};
}

// The numbers at the beginning of a file. One that is missing is an error.
template <size_t kCount>
absl::StatusOr<std::array<uint64_t, kCount>> numbersIn(const std::string& directory, const char* name) {
  absl::StatusOr<CgroupFile> file = readCgroup(directory, name);
  if (!file.ok()) return file.status();
  std::istringstream words(file->content);
  std::array<uint64_t, kCount> numbers;
  for (uint64_t& number : numbers) {
    std::string word;
    words >> word;
    absl::StatusOr<uint64_t> parsed = file->number(word);
    if (!parsed.ok()) return parsed.status();
    number = *parsed;
  }
  return numbers;
}

// A file of lines with a name and a number. A name that is missing counts as 0.
absl::StatusOr<std::map<std::string, uint64_t>> table(const std::string& directory, const char* name) {
  absl::StatusOr<CgroupFile> file = readCgroup(directory, name);
  if (!file.ok()) return file.status();
  std::istringstream words(file->content);
  std::map<std::string, uint64_t> all;
  for (std::string key, word; words >> key >> word;) {
    absl::StatusOr<uint64_t> parsed = file->number(word);
    if (!parsed.ok()) return parsed.status();
    all[key] = *parsed;
  }
  return all;
}

}  // namespace

// What the kernel could take back counts as available, like in /proc/meminfo.
absl::StatusOr<MemoryInUse> limitedTo(const std::string& directory, const MemoryInUse& machine) {
  auto limit = numbersIn<1>(directory, "memory.max");
  if (absl::IsNotFound(limit.status())) return machine;
  if (!limit.ok()) return limit.status();
  if (limit->front() / kKib >= machine.total) return machine;
  auto used = numbersIn<1>(directory, "memory.current");
  if (!used.ok()) return used.status();
  auto parts = table(directory, "memory.stat");
  if (!parts.ok()) return parts.status();
  uint64_t total = limit->front() / kKib;
  uint64_t free = total - std::min(total, used->front() / kKib);
  uint64_t reclaimable =
      ((*parts)["active_file"] + (*parts)["inactive_file"] + (*parts)["slab_reclaimable"]) / kKib;
  return MemoryInUse{total, free, std::min(total, free + reclaimable), 0,
                     std::min(total, (*parts)["file"] / kKib)};
}

absl::StatusOr<std::vector<ProcessorTime>> limitedTo(const std::string& directory,
                                                     const std::vector<ProcessorTime>& machine,
                                                     double uptimeSeconds) {
  auto limit = numbersIn<2>(directory, "cpu.max");
  if (absl::IsNotFound(limit.status())) return machine;
  if (!limit.ok()) return limit.status();
  auto [quota, period] = *limit;
  double allowed = static_cast<double>(quota) / static_cast<double>(std::max<uint64_t>(period, 1));
  if (quota == 0 || allowed >= static_cast<double>(machine.size())) return machine;
  auto used = table(directory, "cpu.stat");
  if (!used.ok()) return used.status();
  constexpr double kMicroseconds = 1e6;
  ProcessorTime time;
  time.busy = static_cast<uint64_t>(static_cast<double>((*used)["usage_usec"]) / allowed);
  time.total = static_cast<uint64_t>(uptimeSeconds * kMicroseconds);
  std::vector<ProcessorTime> processors(static_cast<size_t>(std::ceil(allowed)), time);
  for (size_t i = 0; i < processors.size(); ++i) processors[i].number = static_cast<uint32_t>(i);
  return processors;
}

}  // namespace Member
