// A manager that walks the five tables again and again, and complains when a row that is always to be there
// is missing, or an answer takes too long.
#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "tests/support/WaitUntil.h"
#include "tests/wire/Subject.h"

namespace Faults {

class Walker {
 public:
  // Walks from now on. `lasting`: the instances that every walk must find. A request that is asked three
  // times and not answered is a complaint, as is an instance that is missing.
  Walker(uint16_t port, std::set<Wire::Oid> lasting);
  ~Walker();

  uint64_t walks() const { return walks_; }
  // What was wrong since this was asked last; empty when nothing was. Once a whole walk was made that began
  // after the call.
  std::string complaints();

 private:
  void run();
  void complain(const std::string& text);

  Wire::Exchange exchange_;
  const std::set<Wire::Oid> lasting_;
  std::atomic<bool> ends_ = false;
  std::atomic<uint64_t> walks_ = 0;
  std::mutex mutex_;
  std::string complaints_;
  std::thread thread_;
};

}  // namespace Faults
