// The network devices of this machine: their numbers, and whether they have carrier. On the event loop's
// thread.
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
  // Whether all devices are known. Before that, find() finds none.
  virtual bool known() const = 0;
  // The device of that name; nothing: there is none.
  virtual std::optional<Device> find(const std::string& name) const = 0;
};

// The devices, as the kernel's messages describe them one by one. Kept by number, since a device may be
// renamed.
class LinkTable final : public Links {
 public:
  bool known() const override { return known_; }
  std::optional<Device> find(const std::string& name) const override;

  // A listing of all devices begins and ends. A device that deviceIs() did not name in between is gone.
  void listingBegins();
  void listingEnds();
  // These return whether anything changed.
  bool deviceIs(const std::string& name, const Device& device);
  bool deviceIsGone(uint32_t index);

 private:
  struct Entry {
    std::string name;
    Device device;
    bool listed = true;  // since listingBegins()
  };

  bool known_ = false;
  std::map<uint32_t, Entry> byIndex_;
};

}  // namespace Member
