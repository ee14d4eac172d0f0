// The tasks that run a top machine's scans, one for each of its streams. A task lives until its stream's scan
// that triggers events is complete; a synchronous pipeline has none.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "pipelines/framework/Pipeline.h"

namespace TrelSnmp::Agent {

class ScanTasks {
 public:
  // streams: the pipeline's numbers of the machine's streams; runScan takes an index into them.
  ScanTasks(Pipeline& root, const std::string& machine, std::vector<size_t> streams,
            std::function<void(size_t)> runScan);

  size_t size() const { return streams_.size(); }
  const Zavro::Ptr<Vem::Task>& task(size_t i) const { return tasks_[i]; }
  // Runs the stream's scan: on its task, or at once when it has none.
  void start(size_t i) const;
  // The stream's scan is complete.
  void completed(size_t i);
  // Ends every task.
  void stop();

 private:
  void drop(size_t i);

  Pipeline& root_;
  const std::vector<size_t> streams_;
  const std::function<void(size_t)> runScan_;
  std::vector<Zavro::Ptr<Vem::Task>> tasks_;
};

}  // namespace TrelSnmp::Agent
