#include "kelstore/Source.h"

namespace Kelstore {

const char* stateName(CollectorStatus::State state) {
  switch (state) {
    case CollectorStatus::State::starting:
      return "starting";
    case CollectorStatus::State::works:
      return "works";
    case CollectorStatus::State::fails:
      return "fails";
    case CollectorStatus::State::hangs:
      break;
  }
  return "hangs";
}

const char* stateName(SourceStatus::State state) {
  switch (state) {
    case SourceStatus::State::loading:
      return "loading";
    case SourceStatus::State::current:
      return "current";
    case SourceStatus::State::partial:
      return "partial";
    case SourceStatus::State::held:
      return "held";
    case SourceStatus::State::stale:
      break;
  }
  return "stale";
}

}  // namespace Kelstore
