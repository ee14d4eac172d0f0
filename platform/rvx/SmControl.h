// Run control: how a pipeline is to run. The agent hands a copy to every pipeline that it makes.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vem/Vem.h"

namespace Rvx {

enum class Mode : uint8_t {
  pipelineDefault = 0,  // what the pipeline's own default says, which is asynchronous
  synchronous = 1,      // every scan runs to its end inline
  asynchronous = 2,     // scans run in slices, on tasks
};

struct SmControl {
  Zavro::Ptr<Vem::TaskScheduler> scheduler;        // null: the process's scheduler
  Zavro::Ptr<Vem::TaskScheduler> parentScheduler;  // copied along, used by no pipeline
  std::string taskName;
  Vem::TaskPriority priority = Vem::kDefaultPriority;
  Mode mode = Mode::pipelineDefault;

  // "(taskName=, priority=128, mode=0)"
  std::string text() const;
  // Sets task name, priority and mode from their text form; the schedulers stay. Throws Kor::ParseException
  // and changes nothing when the text is malformed or a number is out of range.
  void textIs(std::string_view text);
};

}  // namespace Rvx
