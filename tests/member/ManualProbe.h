// Echoes that are answered as the test says.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "member/Echo.h"
#include "tests/runtime/ManualIo.h"

namespace Member {

class ManualProbe final : public EchoProbe {
 public:
  absl::StatusOr<bool> ask(const EchoTarget& target) override {
    asked.push_back(target.address + " on " + target.device + " within " +
                    std::to_string(target.timeout.count()));
    if (hanging) throw Runtime::ManualIo::Hangs();
    return answer;
  }

  absl::StatusOr<bool> answer = true;
  bool hanging = false;
  std::vector<std::string> asked;
};

}  // namespace Member
