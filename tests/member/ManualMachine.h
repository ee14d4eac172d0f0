// A machine that answers what the test says, fails, or hangs.
#pragma once

#include <map>
#include <set>
#include <string>

#include "member/LocalMachine.h"
#include "tests/runtime/ManualIo.h"

namespace Member {

class ManualMachine final : public LocalMachine {
 public:
  std::string name() override { return hostName; }
  absl::StatusOr<double> uptime() override { return answer("uptime", uptimeSeconds); }
  absl::StatusOr<uint32_t> users() override { return answer("users", userCount); }
  absl::StatusOr<uint32_t> processes() override { return answer("processes", processCount); }
  absl::StatusOr<MemoryInUse> memory() override { return answer("memory", memoryInUse); }
  absl::StatusOr<std::vector<ProcessorTime>> processors() override { return answer("processors", times); }
  absl::StatusOr<std::vector<Mount>> mounts() override { return answer("mounts", mounted); }
  absl::StatusOr<Room> room(const Mount& mount) override {
    return answer("mount " + mount.point, rooms.try_emplace(mount.point, Room()).first->second);
  }

  std::string hostName;
  absl::StatusOr<double> uptimeSeconds = 1000.5;
  absl::StatusOr<uint32_t> userCount = 2u;
  absl::StatusOr<uint32_t> processCount = 130u;
  absl::StatusOr<MemoryInUse> memoryInUse = MemoryInUse{8000, 3000, 5000, 500, 1500};
  absl::StatusOr<std::vector<ProcessorTime>> times = std::vector<ProcessorTime>{{0, 100, 1000}, {1, 0, 1000}};
  absl::StatusOr<std::vector<Mount>> mounted = std::vector<Mount>();
  std::map<std::string, absl::StatusOr<Room>> rooms;  // by mount point

  std::set<std::string> hanging;
  std::map<std::string, int> asked;  // how often

 private:
  template <class Answer>
  Answer answer(const std::string& question, const Answer& is) {
    ++asked[question];
    if (hanging.contains(question)) throw Runtime::ManualIo::Hangs();
    return is;
  }
};

}  // namespace Member
