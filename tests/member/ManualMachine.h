// A machine that answers what the test says, fails, or hangs.
#pragma once

#include <map>
#include <set>
#include <string>

#include "member/Machine.h"
#include "tests/runtime/ManualIo.h"

namespace Member {

class ManualMachine final : public Machine {
 public:
  Result<double> uptime() override { return answer("uptime", uptimeSeconds); }
  Result<uint32_t> users() override { return answer("users", userCount); }
  Result<uint32_t> processes() override { return answer("processes", processCount); }
  Result<MemoryInUse> memory() override { return answer("memory", memoryInUse); }
  Result<std::vector<ProcessorTime>> processors() override { return answer("processors", times); }
  Result<std::vector<Mount>> mounts() override { return answer("mounts", mounted); }
  Result<Room> room(const Mount& mount) override {
    return answer("mount " + mount.point, rooms[mount.point]);
  }

  Result<double> uptimeSeconds = 1000.5;
  Result<uint32_t> userCount = 2u;
  Result<uint32_t> processCount = 130u;
  Result<MemoryInUse> memoryInUse = MemoryInUse{8000, 3000, 5000, 500, 1500};
  Result<std::vector<ProcessorTime>> times = std::vector<ProcessorTime>{{0, 100, 1000}, {1, 0, 1000}};
  Result<std::vector<Mount>> mounted = std::vector<Mount>();
  std::map<std::string, Result<Room>> rooms;  // by mount point

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
