#include "pipelines/framework/InputScan.h"

namespace TrelSnmp::Agent {

void traceScanYields(const ScanContext& context, uint64_t iterations) {
  size_t total = context.pending();
  context.root.traceHandle().trace(8, "{} {} yielding after {} iterations ({} total items)",
                                   context.root.name(), context.machine, iterations, total);
  context.task->taskWorkCountInc(iterations);
  context.task->taskWorkPendingIs(total);
  context.task->scheduleTask();
}

ScanState scanCompleted(const ScanContext& context) {
  bool initial = !context.root.initialScanDone();
  context.root.traceHandle().trace(9, "{}{} scan, and parent scan, complete.", context.machine,
                                   initial ? " initial" : "");
  return initial ? ScanState::completeInitial : ScanState::complete;
}

}  // namespace TrelSnmp::Agent
