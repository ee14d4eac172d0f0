// What a simulated run is made of: steps, each of which says all there is to say about it, so that any
// selection of a run's steps is a run, too.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Simulation {

// Parameters in brackets: set is which of the two sets of inputs; the others are places in Universe.h unless
// something else is said. A step that does not apply (to a member that is not there, say) does nothing.
#define SIMULATION_KINDS(KIND)                                                                          \
  /* What members report of neighbours [set, key, item: neighbour, value: draws the record]. */         \
  KIND(report)                                                                                          \
  KIND(reportAgain)  /* the record that is there once more [set, key, item] */                          \
  KIND(reportCopied) /* another member's record [set, key, item, value: the other's key] */             \
  KIND(withdraw)     /* [set, key, item] */                                                             \
  KIND(reachJoin)    /* a new entity, whatever was there [set, key, value: draws what it reports] */    \
  KIND(reachAlike)   /* a new entity with the records of the one that is there [set, key] */            \
  KIND(reachSame)    /* the same entity once more [set, key] */                                         \
  KIND(reachWrong)   /* an entity of another type [set, key] */                                         \
  KIND(reachLeave)   /* [set, key] */                                                                   \
  KIND(reachReturn)  /* the entity that left last comes under this key [set, key] */                    \
  KIND(reachOutside) /* the entity that left last goes on reporting [set, item, value] */               \
  /* Links [set, key: local member, item: remote member, value: interface]. */                          \
  KIND(wire)                                                                                            \
  KIND(unwire)                                                                                          \
  KIND(topoJoin)  /* a new entity [set, key, value: draws its links] */                                 \
  KIND(topoAlike) /* [set, key] */                                                                      \
  KIND(topoSame)  /* [set, key] */                                                                      \
  KIND(topoLeave) /* [set, key] */                                                                      \
  /* Interface indexes [set, item: interface, value: index]. */                                         \
  KIND(ifIndex)                                                                                         \
  KIND(ifIndexDel)                                                                                      \
  /* Hosts [set, key]. */                                                                               \
  KIND(figures)    /* [value: draws them] */                                                            \
  KIND(load)       /* [item: processor] */                                                              \
  KIND(loadAgain)  /* [item] */                                                                         \
  KIND(loadDel)    /* [item] */                                                                         \
  KIND(mount)      /* [item: mount point, value: draws the record] */                                   \
  KIND(mountAgain) /* [item] */                                                                         \
  KIND(unmount)    /* [item] */                                                                         \
  KIND(memory)     /* [value: draws the record] */                                                      \
  KIND(memoryAgain)                                                                                     \
  KIND(memoryDel)                                                                                       \
  KIND(hostJoin) /* [value: draws what it has] */                                                       \
  KIND(hostAlike)                                                                                       \
  KIND(hostSame)                                                                                        \
  KIND(hostWrong)                                                                                       \
  KIND(hostLeave)                                                                                       \
  KIND(hostReturn)                                                                                      \
  KIND(hostOutside) /* the host that left last changes [item, value] */                                 \
  /* Storage mappings [set, item: mount point or kind, value: storage index]. */                        \
  KIND(mapMount)                                                                                        \
  KIND(unmapMount)                                                                                      \
  KIND(mapMemory)                                                                                       \
  KIND(unmapMemory)                                                                                     \
  /* Time and tasks. */                                                                                 \
  KIND(clock) /* [value: milliseconds] */                                                               \
  KIND(slice) /* one task [item: which of those that are due, key: YieldMode, value: draws yields] */   \
  KIND(drain) /* many slices [item: how many at most, key: YieldMode, value: draws order and yields] */ \
  /* The agent [value: which of the two sets each of its inputs is of, in bits]. */                     \
  KIND(agentIs)                                                                                         \
  KIND(agentDel)     /* [item: 1 to hold on to it for a while] */                                       \
  KIND(agentRelease) /* what agentDel held goes */                                                      \
  KIND(control)      /* run control of pipelines that the agent makes from now on [value: mode] */      \
  KIND(startSMs)                                                                                        \
  KIND(pipelineIs)      /* [key: PipelineId, value: its inputs, in bits, item: mode] */                 \
  KIND(pipelineDel)     /* [key: PipelineId, item: 1 to hold on to it for a while] */                   \
  KIND(pipelineRelease) /* [key] */                                                                     \
  KIND(pause)           /* [key] */                                                                     \
  KIND(resume)          /* [key] */                                                                     \
  KIND(status)          /* the SNMP agent is up [set, value: 0 or 1] */                                 \
  KIND(stale)           /* a row of an earlier life [set: MIB, key: TableId, value: draws it] */        \
  /* Walks [item: which walk]. */                                                                       \
  KIND(walkFirst) /* [key: TableId, value: draws the hint] */                                           \
  KIND(walkNext)                                                                                        \
  KIND(walkHold) /* holds on to the row [value: 1 for the walk to take it along] */                     \
  KIND(walkRead) /* asks for a column of a held row [value: draws row and column] */                    \
  KIND(walkDrop) /* lets go of a held row [value: draws which] */                                       \
  KIND(walkEnd)

enum class Kind : uint8_t {
#define SIMULATION_KIND(name) name,
  SIMULATION_KINDS(SIMULATION_KIND)
#undef SIMULATION_KIND
};
const char* nameOf(Kind kind);
inline constexpr size_t kKindCount = static_cast<size_t>(Kind::walkEnd) + 1;

enum class YieldMode : uint8_t { never, always, sometimes, rarely, byClock };
inline constexpr uint32_t kYieldModes = 5;

struct Step {
  Kind kind{};
  uint32_t set = 0;
  uint32_t key = 0;
  uint32_t item = 0;
  uint32_t value = 0;
  // 0: the step is made by itself. n: it is made from within the n-th change of a row that is published after
  // this place, if that happens at all. Only a walk may be, which changes nothing.
  uint32_t within = 0;

  bool operator==(const Step&) const = default;
  // "{.kind = Kind::report, .key = 3, .value = 7}", without what is 0.
  std::string text() const;
};

// What a run is, but for its steps.
struct Conditions {
  bool storageToggle = true;  // "TrelHrStorageSnmp"
  bool memoryToggle = true;   // "TrelHrMemStorage"
  bool keepRecords =
      false;  // the run holds every record and entity to its end, and counts the references then
  bool operator==(const Conditions&) const = default;
};

struct Scenario {
  Conditions conditions;
  std::vector<Step> steps;
  // C++ that makes the same scenario, to be pasted into RegressionTest.cpp.
  std::string text() const;
};

}  // namespace Simulation
