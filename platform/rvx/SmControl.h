// Run control: how a pipeline runs. The agent gives a copy to every pipeline that it creates.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vem/Vem.h"

namespace Rvx {

enum class Mode : uint8_t {
  pipelineDefault = 0,  // the default of every pipeline: asynchronous
  synchronous = 1,      // every scan runs to its end inline
  asynchronous = 2,     // scans run in slices, on tasks
};

struct SmControl {
  Zavro::Ptr<Vem::TaskScheduler> scheduler;        // null: the process's scheduler
  Zavro::Ptr<Vem::TaskScheduler> parentScheduler;  // no pipeline uses it
  std::string taskName;                            // no pipeline uses it
  Vem::TaskPriority priority = Vem::kDefaultPriority;
  Mode mode = Mode::pipelineDefault;

  // "(taskName=, priority=128, mode=0)"
  std::string text() const;
  // Sets task name, priority and mode from the form that text() returns; the schedulers stay. Throws
  // Kor::ParseException, and changes nothing, when the text is malformed or a number is out of range.
  void textIs(std::string_view text);
};

}  // namespace Rvx
