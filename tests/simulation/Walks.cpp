#include "tests/simulation/Walks.h"

#include "platform/snmp/RegVoidCollByContext.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace Simulation {
namespace {

bool registered() {
  return Snmp::RegVoidCollByContext::singleton()->regVoid("", "veldaTrelBaIfTable") != nullptr;
}

}  // namespace

bool Walks::apply(const Step& step) {
  auto& walker = walkers_[step.item % walkers_.size()];
  switch (step.kind) {
    case Kind::walkFirst:
      return first(step, walker);
    case Kind::walkNext:
      return walker && walker->next();
    case Kind::walkHold:
      return walker && walker->hold(step.value == 1);
    case Kind::walkRead:
      return walker && walker->read(step.value);
    case Kind::walkDrop:
      return walker && walker->drop(step.value);
    default:
      if (!walker) return false;
      walker.reset();
      return true;
  }
}

bool Walks::first(const Step& step, std::unique_ptr<Walker>& walker) {
  if (!registered()) return false;
  auto table = static_cast<TableId>(step.key % kTables);
  if (!walker || walker->table() != table) {
    walker.reset();
    size_t served = trelDir_->entityPtr("trelMib") == state_.set(0).mib ? 0 : 1;
    walker = std::make_unique<Walker>(observer_, state_, served, table);
  }
  walker->first(step.value);
  return true;
}

void Walks::unregister() {
  for (auto& walker : walkers_) walker.reset();
  unregister_veldaTrelHostResourcesMIB("");
  unregister_veldaTrelMIB("");
}

}  // namespace Simulation
