// What etcd servers tell of themselves at /metrics, and what processes have taken of the processor.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace FullSize {

// By name and labels, as the server writes them: `grpc_server_handled_total{grpc_method="Range",...}`.
using Metrics = std::map<std::string, double>;

// Of the server at "host:port". Empty: it does not answer.
Metrics metricsOf(const std::string& endpoint);
// The sum of all metrics of that name whose labels have all of these.
double sum(const Metrics& metrics, const std::string& name, const std::vector<std::string>& labels = {});
// Seconds, of all threads of the process.
double processorSeconds(pid_t process);

}  // namespace FullSize
