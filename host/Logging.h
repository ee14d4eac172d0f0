// Where traces and log lines go: standard error, syslog or the journal.
#pragma once

#include <memory>

#include "Options.h"
#include "lumalog/Lumalog.h"

namespace spdlog {
class logger;
}

namespace Host {

// The process's trace sink while it lives. Level 0 is logged as error, 1 as information, the rest as
// debugging detail; which levels there are is settled by the handles.
class Logging final : public Lumalog::Sink {
 public:
  explicit Logging(LogTo where);
  ~Logging() override;
  void trace(std::string_view handle, int level, std::string_view text) override;

 private:
  Lumalog::Sink* before_;
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace Host
