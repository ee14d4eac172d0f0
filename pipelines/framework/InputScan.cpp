#include "pipelines/framework/InputScan.h"

namespace TrelSnmp::Agent {

void scanYields(const Machine& machine, size_t stream, uint64_t iterations, size_t total) {
  machine.root().traceHandle().trace(8, "{} {} yielding after {} iterations ({} total items)",
                                     machine.root().name(), machine.name(), iterations, total);
  Zavro::Ptr<Vem::Task> task = machine.task(stream);
  task->taskWorkCountInc(iterations);
  task->taskWorkPendingIs(total);
  task->scheduleTask();
}

ScanState scanEnds(const Machine& machine) {
  bool initial = !machine.root().initialScanDone();
  machine.root().traceHandle().trace(9, "{}{} scan, and parent scan, complete.", machine.name(),
                                     initial ? " initial" : "");
  return initial ? ScanState::completeInitial : ScanState::complete;
}

}  // namespace TrelSnmp::Agent
