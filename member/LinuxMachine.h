// The machine that this process runs on, as Linux tells of it: /proc through libproc2, and the user
// accounting database. Holds nothing between questions.
#pragma once

#include "Machine.h"

namespace Member {

class LinuxMachine final : public Machine {
 public:
  // Where what libproc2 does not read is found.
  struct Files {
    std::string proc = "/proc";
    std::string utmp = "/run/utmp";
  };

  LinuxMachine() = default;
  explicit LinuxMachine(Files files) : files_(std::move(files)) {}

  Result<double> uptime() override;
  // As who(1) counts them. Where no database is kept, there are none.
  Result<uint32_t> users() override;
  Result<uint32_t> processes() override;
  Result<MemoryInUse> memory() override;
  Result<std::vector<ProcessorTime>> processors() override;

 private:
  Files files_;
};

}  // namespace Member
