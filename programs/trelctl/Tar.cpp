#include "programs/trelctl/Tar.h"

#include <fmt/format.h>

#include <numeric>

#include "platform/zavro/Assert.h"

namespace TrelCtl {
namespace {

constexpr size_t kBlock = 512;
constexpr size_t kNameBytes = 100;
constexpr size_t kChecksumAt = 148;

// Up to the next whole block.
void pad(std::string& bytes) { bytes.resize((bytes.size() + kBlock - 1) / kBlock * kBlock); }

}  // namespace

void Tar::add(std::string_view name, std::string_view content) {
  zavroAssert(!name.empty() && name.size() <= kNameBytes);
  std::string header(name);
  header.resize(kNameBytes);
  // Mode, owner, group, size, time, checksum (of blanks in its own place), type, link, magic, version.
  header += fmt::format("{:07o}", 0600) + '\0' + fmt::format("{:07o}", 0) + '\0' + fmt::format("{:07o}", 0) +
            '\0' + fmt::format("{:011o}", content.size()) + '\0' + fmt::format("{:011o}", time_) + '\0' +
            "        0" + std::string(kNameBytes, '\0') + "ustar" + '\0' + "00";
  pad(header);
  auto sum = std::accumulate(header.begin(), header.end(), 0U,
                             [](unsigned total, char c) { return total + static_cast<unsigned char>(c); });
  header.replace(kChecksumAt, 7, fmt::format("{:06o}", sum) + '\0');
  bytes_ += header;
  bytes_ += content;
  pad(bytes_);
}

std::string Tar::archive() && {
  bytes_.append(2 * kBlock, '\0');
  return std::move(bytes_);
}

}  // namespace TrelCtl
