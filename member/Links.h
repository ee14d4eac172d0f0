// The network devices of this machine: their numbers, and whether they carry.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace Member {

struct Device {
  uint32_t index = 0;
  bool switchedOn = false;  // administratively (IFF_UP)
  bool carrier = false;
  bool operator==(const Device&) const = default;
};

class Links {
 public:
  virtual ~Links() = default;
  // Whether all devices are known; until then none is.
  virtual bool known() const = 0;
  // The device of that name; nothing when there is none.
  virtual std::optional<Device> find(const std::string& name) const = 0;
};

// The devices as messages tell of them, one after the other: by number, since a device may be renamed, and
// by name, since that is what they are asked for.
class LinkTable final : public Links {
 public:
  bool known() const override { return known_; }
  std::optional<Device> find(const std::string& name) const override;

  // All devices are told from now on; those that are not, until allAreTold(), are gone.
  void allWillBeTold();
  void allAreTold();
  // These return whether that is news.
  bool deviceIs(const std::string& name, const Device& device);
  bool deviceIsGone(uint32_t index);

 private:
  struct Entry {
    std::string name;
    Device device;
    bool told = true;  // since allWillBeTold()
  };

  bool known_ = false;
  std::map<uint32_t, Entry> byIndex_;
};

}  // namespace Member
