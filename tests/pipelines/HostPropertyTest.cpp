// Whatever happens to what members publish of their hosts, and whenever: once it is quiet, the system,
// processor and storage tables equal what the inputs imply.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <deque>
#include <set>

#include "tests/oracle/Entities.h"
#include "tests/pipelines/HostWorld.h"
#include "tests/pipelines/PropertyRuns.h"

namespace TrelSnmp::Agent::HostProperty {
namespace {

// One thing that happens. What its numbers mean depends on the kind.
struct Happening {
  enum Kind {
    loadChanges,
    loadAnnouncedAgain,
    processorVanishes,
    mountChanges,
    mountVanishes,
    memoryChanges,
    memoryVanishes,
    leaves,
    joinsEmpty,
    replacedAlike,
    wrongType,
    restarts,
    pauses,
    resumes,
    // For the storage table alone.
    mountMapped,
    mountUnmapped,
    memoryMapped,
    memoryUnmapped,
  };
  Kind kind;
  uint8_t member;
  uint8_t index;
  uint8_t value;
};

std::ostream& operator<<(std::ostream& out, const Happening& h) {
  static constexpr const char* kNames[] = {"loadChanges",
                                           "loadAnnouncedAgain",
                                           "processorVanishes",
                                           "mountChanges",
                                           "mountVanishes",
                                           "memoryChanges",
                                           "memoryVanishes",
                                           "leaves",
                                           "joinsEmpty",
                                           "replacedAlike",
                                           "wrongType",
                                           "restarts",
                                           "pauses",
                                           "resumes",
                                           "mountMapped",
                                           "mountUnmapped",
                                           "memoryMapped",
                                           "memoryUnmapped"};
  return out << kNames[h.kind] << " member " << int{h.member} << " index " << int{h.index} << " value "
             << int{h.value};
}

// Member keys: two numbers that sort otherwise as text ("10" before "2"), and one that is no number.
const char* const kMembers[] = {"1", "10", "2", "x"};
const char* const kMountpts[] = {"/", "/home", "/var", "/var/log"};

// Every row that shows it tells it from others, by its size at least.
HostWorld::Memory memoryOf(uint32_t figure) {
  HostResources::MemInfo::Amounts amounts;
  amounts.total = 1000 + figure;
  amounts.free = figure;
  return Zavro::makePtr<HostResources::MemInfo>(amounts);
}

void applyToInputs(HostWorld& world, const Happening& h) {
  const std::string key = kMembers[h.member];
  const std::string mountpt = kMountpts[h.index];
  HostWorld::Host* host = world.member(key);
  bool canPublish = host != nullptr || !world.dir->entityPtr(key);
  switch (h.kind) {
    case Happening::loadChanges:
      if (canPublish) world.load(key, h.index, h.value);
      break;
    case Happening::loadAnnouncedAgain:
      if (host == nullptr) break;
      if (const auto* found = host->processorTable().find(uint32_t{h.index})) {
        HostWorld::Processor same = *found;
        host->processorTable().set(h.index, same);
      }
      break;
    case Happening::processorVanishes:
      if (host != nullptr) host->processorTable().del(h.index);
      break;
    case Happening::mountChanges:
      if (canPublish) world.mounts(key, mountpt, h.value);
      break;
    case Happening::mountVanishes:
      if (host != nullptr) host->storageInfoTable().del(mountpt);
      break;
    case Happening::memoryChanges:
      if (canPublish) world.host(key)->memInfoIs(memoryOf(h.value));
      break;
    case Happening::memoryVanishes:
      if (host != nullptr) host->memInfoIs(nullptr);
      break;
    case Happening::leaves:
      world.leaves(key);
      break;
    case Happening::joinsEmpty:
      world.joins(key);
      break;
    case Happening::replacedAlike:
      world.replacedAlike(key);
      break;
    case Happening::wrongType:
      world.dir->entityPtrIs(key, Zavro::makePtr<Kor::Dir>(key));
      break;
    case Happening::mountMapped:
      world.mapMount(mountpt, 10U + h.value % 4U);
      break;
    case Happening::mountUnmapped:
      world.mappings->mountEntries().del(mountpt);
      break;
    case Happening::memoryMapped:
      world.mapMemory(h.index, 10U + h.value % 4U);
      break;
    case Happening::memoryUnmapped:
      world.mappings->memEntries().del(h.index);
      break;
    default:
      break;
  }
}

uint32_t indexOfMount(uint32_t mountpt) { return 30 + mountpt; }
uint32_t indexOfMemory(uint32_t kind) { return 100 - 33 * kind; }

// The same, with an index of its own for each mapping.
void applyWithOwnIndexes(HostWorld& world, const Happening& h) {
  if (h.kind == Happening::mountMapped) {
    world.mapMount(kMountpts[h.index], indexOfMount(h.index));
  } else if (h.kind == Happening::memoryMapped) {
    world.mapMemory(h.index, indexOfMemory(h.index));
  } else {
    applyToInputs(world, h);
  }
}

// What tells a memory record from others.
uint32_t figureOf(const HostWorld::Memory& record) { return record ? record->amounts().free.value_or(0) : 0; }

using StorageRows = std::map<TrelHrStorageKey, std::string>;

StorageRows storageRowsOf(const HostWorld& world) {
  StorageRows rows;
  for (auto row = world.mib->trelHrStorageTable().begin(); row; row.next()) {
    const TrelHrStorageEntry& entry = *row.entry();
    const auto* memory = dynamic_cast<const TrelHrStorageEntryMem*>(&entry);
    uint32_t figure = memory != nullptr ? figureOf(memory->memInfo()) : entry.used();
    rows[row.key()] = HostWorld::storageText(row.key(), entry.descr(), figure);
  }
  return rows;
}

std::string textOf(const StorageRows& rows) {
  std::string text = "[ ";
  for (const auto& [key, row] : rows) text += row;
  return text + "]";
}

// Plays happenings against one pipeline, at its yields.
template <class Sm>
class Run {
 public:
  Run(HostWorld& world, Zavro::Ptr<Sm>& sm, Rvx::Mode mode) : world_(world), sm_(sm), mode_(mode) {}

  void play(std::vector<Happening> happenings, std::vector<bool> yields) {
    happenings_.assign(happenings.begin(), happenings.end());
    size_t asked = 0;
    world_.scheduler.yieldWhen([&, yields] { return yields.empty() || yields[asked++ % yields.size()]; });
    world_.replace(sm_, mode_);
    world_.scheduler.drain([this] { applyNext(); });
    while (!happenings_.empty()) {
      applyNext();
      world_.scheduler.drain([this] { applyNext(); });
    }
    if (!sm_->hasNotificationActive()) sm_->hasNotificationActiveIs(true);
    world_.scheduler.drain();
  }

 private:
  void applyNext() {
    if (happenings_.empty()) return;
    Happening h = happenings_.front();
    happenings_.pop_front();
    switch (h.kind) {
      case Happening::restarts:
        world_.replace(sm_, mode_);
        break;
      case Happening::pauses:
      case Happening::resumes:
        sm_->hasNotificationActiveIs(h.kind == Happening::resumes);
        break;
      default:
        applyWithOwnIndexes(world_, h);
    }
  }

  HostWorld& world_;
  Zavro::Ptr<Sm>& sm_;
  const Rvx::Mode mode_;
  std::deque<Happening> happenings_;
};

using Weights = std::initializer_list<std::pair<std::size_t, int>>;

rc::Gen<Happening> anyHappening(Weights kinds) {
  return rc::gen::build<Happening>(
      rc::gen::set(&Happening::kind,
                   rc::gen::map(rc::gen::weightedElement<int>(kinds),
                                [](int kind) { return static_cast<Happening::Kind>(kind); })),
      rc::gen::set(&Happening::member, rc::gen::inRange<uint8_t>(0, 4)),
      rc::gen::set(&Happening::index, rc::gen::inRange<uint8_t>(0, 4)),
      rc::gen::set(&Happening::value, rc::gen::inRange<uint8_t>(0, 100)));
}

using Happenings = std::vector<Happening>;

Happenings some(Weights kinds) { return *rc::gen::container<Happenings>(anyHappening(kinds)); }

constexpr Weights kProcessorKinds = {
    {8, Happening::loadChanges}, {2, Happening::loadAnnouncedAgain}, {4, Happening::processorVanishes},
    {2, Happening::leaves},      {1, Happening::joinsEmpty},         {2, Happening::replacedAlike},
    {1, Happening::wrongType},   {1, Happening::restarts},           {1, Happening::pauses},
    {2, Happening::resumes}};

void systemAndProcessorTablesEqualInputs(Rvx::Mode mode) {
  Lumalog::levelIs("*", -1);
  HostWorld world;
  for (const Happening& h : some(kProcessorKinds)) applyToInputs(world, h);
  for (const Happening& h : some(kProcessorKinds)) {  // rows of an earlier life
    uint32_t member = HostWorld::id(kMembers[h.member]);
    if (!world.mib->trelHrSystemTable(member)) world.mib->trelHrSystemTableIs(member, nullptr);
    if (!world.mib->trelProcessorTable({member, h.index})) {
      world.mib->trelProcessorTableIs({member, h.index}, HostWorld::processor(h.value));
    }
  }
  Happenings happenings = some(kProcessorKinds);
  Run<TrelSnmpHostResourcesSm> run(world, world.sm, mode);
  run.play(happenings, *rc::gen::arbitrary<std::vector<bool>>());
  Lumalog::levelsReset();
  RC_ASSERT(Oracle::textOf(Oracle::rowsIn(world.mib->trelHrSystemTable())) ==
            Oracle::textOf(Oracle::systemRows(*world.dir)));
  RC_ASSERT(Oracle::textOf(Oracle::rowsIn(world.mib->trelProcessorTable())) ==
            Oracle::textOf(Oracle::processorRows(*world.dir)));
  RC_ASSERT(world.sm->ready());
  RC_ASSERT(world.sm->idle());
}

constexpr Weights kStorageKinds = {
    {8, Happening::mountChanges},   {4, Happening::mountVanishes}, {6, Happening::memoryChanges},
    {2, Happening::memoryVanishes}, {2, Happening::leaves},        {1, Happening::joinsEmpty},
    {2, Happening::replacedAlike},  {1, Happening::wrongType},     {1, Happening::restarts},
    {1, Happening::pauses},         {2, Happening::resumes}};

// With mappings that stay as they are, and no two of which share an index.
void storageTableEqualsInputs(Rvx::Mode mode) {
  Lumalog::levelIs("*", -1);
  HostWorld world;
  auto mapped = *rc::gen::container<std::vector<bool>>(8, rc::gen::arbitrary<bool>());
  for (uint32_t i = 0; i < 4; ++i) {
    if (mapped[i]) world.mapMount(kMountpts[i], indexOfMount(i));
    if (mapped[4 + i]) world.mapMemory(static_cast<int32_t>(i), indexOfMemory(i));
  }
  for (const Happening& h : some(kStorageKinds)) applyToInputs(world, h);
  for (const Happening& h : some(kStorageKinds)) {  // rows of an earlier life
    TrelHrStorageKey key(HostWorld::id(kMembers[h.member]), h.value);
    world.mib->trelHrStorageTableIs(trelHrStorageEntryMemFactory(key, {}, "stale", nullptr));
  }
  Happenings happenings = some(kStorageKinds);
  Run<TrelSnmpHrStorageTableSm> run(world, world.storageSm, mode);
  run.play(happenings, *rc::gen::arbitrary<std::vector<bool>>());
  Lumalog::levelsReset();

  RC_ASSERT(Oracle::textOf(Oracle::rowsIn(world.mib->trelHrStorageTable())) ==
            Oracle::textOf(Oracle::storageRows(*world.dir, *world.mappings)));
  RC_ASSERT(world.storageSm->ready());
  RC_ASSERT(world.storageSm->idle());
}

constexpr Weights kScanKinds = {
    {8, Happening::mountChanges},   {3, Happening::mountVanishes}, {5, Happening::memoryChanges},
    {1, Happening::memoryVanishes}, {2, Happening::leaves},        {2, Happening::replacedAlike},
    {1, Happening::restarts},       {5, Happening::mountMapped},   {2, Happening::mountUnmapped},
    {5, Happening::memoryMapped},   {2, Happening::memoryUnmapped}};

// Mappings come and go while the pipeline scans. A row may be missing or left over then, but only one whose
// mapping changed; and a pipeline that starts over the table afterwards puts all of it right.
void storageTableWhileMappingsChange() {
  Lumalog::levelIs("*", -1);
  HostWorld world;
  for (const Happening& h : some(kScanKinds)) applyWithOwnIndexes(world, h);
  Happenings happenings = some(kScanKinds);
  std::set<uint32_t> changed;
  for (const Happening& h : happenings) {
    if (h.kind == Happening::mountMapped || h.kind == Happening::mountUnmapped)
      changed.insert(indexOfMount(h.index));
    if (h.kind == Happening::memoryMapped || h.kind == Happening::memoryUnmapped)
      changed.insert(indexOfMemory(h.index));
  }
  Run<TrelSnmpHrStorageTableSm> run(world, world.storageSm, Rvx::Mode::asynchronous);
  run.play(happenings, *rc::gen::arbitrary<std::vector<bool>>());
  Oracle::Rows shown = Oracle::rowsIn(world.mib->trelHrStorageTable());
  Oracle::Rows implied = Oracle::storageRows(*world.dir, *world.mappings);
  for (Oracle::Rows* rows : {&shown, &implied}) {
    std::erase_if(*rows, [&](const auto& row) { return changed.contains(row.first.second); });
  }
  RC_ASSERT(Oracle::textOf(shown) == Oracle::textOf(implied));
  world.scheduler.yieldWhen([] { return false; });
  world.startStorageAndDrain();
  Lumalog::levelsReset();
  RC_ASSERT(Oracle::textOf(Oracle::rowsIn(world.mib->trelHrStorageTable())) ==
            Oracle::textOf(Oracle::storageRows(*world.dir, *world.mappings)));
  RC_ASSERT(world.storageSm->idle());
}

// The storage table by the order of events: mappings are looked up when a record is announced, and not
// followed; where two mappings share an index, or a row's mapping is gone, what happened last counts.
class StorageModel {
 public:
  explicit StorageModel(HostWorld& world) : world_(world) {}

  void apply(const Happening& h) {
    const std::string key = kMembers[h.member];
    bool publishes = h.kind == Happening::mountChanges || h.kind == Happening::memoryChanges;
    if (publishes && !world_.dir->entityPtr(key)) {
      world_.joins(key);
      memberScanned(key);
    }
    auto before = world_.dir->entityPtr(key);
    std::map<std::string, bool> mountsBefore = mountsOf(before);
    applyToInputs(world_, h);
    auto after = world_.dir->entityPtr(key);
    if (before != after) {
      if (typed(before)) memberGone(key, mountsBefore);
      if (typed(after)) memberScanned(key);
      return;
    }
    auto* host = typed(after);
    if (host == nullptr) return;
    if (h.kind == Happening::mountChanges) mount(key, kMountpts[h.index]);
    if (h.kind == Happening::mountVanishes && mountsBefore.contains(kMountpts[h.index]))
      mount(key, kMountpts[h.index]);
    if (h.kind == Happening::memoryChanges || h.kind == Happening::memoryVanishes)
      memory(key, host->memInfo());
  }

  // What a pipeline that starts over the filled table makes of it: only what it produces stays.
  void restarted() {
    rows_.clear();
    forEachMember([this](const std::string& key) { mountsScanned(key); });
    forEachMember([this](const std::string& key) { memory(key, world_.member(key)->memInfo()); });
  }

  std::string rows() const { return textOf(rows_); }

 private:
  static HostWorld::Host* typed(const Zavro::Ptr<Kor::Entity>& entity) {
    return dynamic_cast<HostWorld::Host*>(entity.get());
  }
  static std::map<std::string, bool> mountsOf(const Zavro::Ptr<Kor::Entity>& entity) {
    std::map<std::string, bool> mounts;
    if (auto* host = typed(entity)) {
      for (auto at = host->storageInfoTable().begin(); at; at.next()) mounts[at.key()] = true;
    }
    return mounts;
  }
  template <class Do>
  void forEachMember(Do each) {
    for (auto entry = world_.dir->entities().begin(); entry; entry.next()) {
      if (world_.member(entry.key()) != nullptr) each(entry.key());
    }
  }
  void mount(const std::string& key, const std::string& mountpt) {
    const auto* mapping = world_.mappings->mountEntries().find(mountpt);
    if (mapping == nullptr) return;
    HostWorld::Host* host = world_.member(key);
    const auto* storage = host != nullptr ? host->storageInfoTable().find(mountpt) : nullptr;
    TrelHrStorageKey row(HostWorld::id(key), mapping->index);
    if (storage == nullptr) {
      rows_.erase(row);
    } else {
      uint32_t used = static_cast<uint32_t>((*storage)->size() - (*storage)->free());
      rows_[row] = HostWorld::storageText(row, mapping->description, used);
    }
  }
  void memory(const std::string& key, const HostWorld::Memory& record) {
    for (auto at = world_.mappings->memEntries().begin(); at; at.next()) {
      TrelHrStorageKey row(HostWorld::id(key), at.value()->index);
      if (!record) {
        rows_.erase(row);
      } else {
        rows_[row] = HostWorld::storageText(row, at.value()->description, figureOf(record));
      }
    }
  }
  void mountsScanned(const std::string& key) {
    for (const auto& [mountpt, there] : mountsOf(world_.dir->entityPtr(key))) mount(key, mountpt);
  }
  void memberScanned(const std::string& key) {
    mountsScanned(key);
    memory(key, world_.member(key)->memInfo());
  }
  void memberGone(const std::string& key, const std::map<std::string, bool>& mounts) {
    for (const auto& [mountpt, there] : mounts) {
      if (const auto* mapping = world_.mappings->mountEntries().find(mountpt)) {
        rows_.erase({HostWorld::id(key), mapping->index});
      }
    }
    memory(key, nullptr);
  }

  HostWorld& world_;
  StorageRows rows_;
};

constexpr Weights kMappingKinds = {
    {8, Happening::mountChanges},   {4, Happening::mountVanishes}, {6, Happening::memoryChanges},
    {2, Happening::memoryVanishes}, {2, Happening::leaves},        {1, Happening::joinsEmpty},
    {2, Happening::replacedAlike},  {1, Happening::wrongType},     {1, Happening::restarts},
    {6, Happening::mountMapped},    {2, Happening::mountUnmapped}, {4, Happening::memoryMapped},
    {2, Happening::memoryUnmapped}};

void storageTableFollowsTheOrderOfEvents() {
  Lumalog::levelIs("*", -1);
  HostWorld world;
  StorageModel model(world);
  for (const Happening& h : some(kMappingKinds)) applyToInputs(world, h);
  world.startStorage(Rvx::Mode::synchronous);
  model.restarted();
  std::string before = textOf(storageRowsOf(world));
  std::string modelBefore = model.rows();
  Happenings happenings = some(kMappingKinds);
  RC_ASSERT(before == modelBefore);
  for (const Happening& h : happenings) {
    if (h.kind == Happening::restarts) {
      world.startStorage(Rvx::Mode::synchronous);
      model.restarted();
    } else {
      model.apply(h);
    }
    RC_ASSERT(textOf(storageRowsOf(world)) == model.rows());
  }
  Lumalog::levelsReset();
}

TEST(HostPropertyTest, AnyChangesAtAnyYield_SystemAndProcessorTablesEqualWhatInputsImply) {
  EXPECT_TRUE(
      rc::check("host, asynchronous", [] { systemAndProcessorTablesEqualInputs(Rvx::Mode::asynchronous); }));
}

TEST(HostPropertyTest, AnyChanges_SynchronousSystemAndProcessorTablesEqualWhatInputsImply) {
  EXPECT_TRUE(
      rc::check("host, synchronous", [] { systemAndProcessorTablesEqualInputs(Rvx::Mode::synchronous); }));
}

TEST(HostPropertyTest, AnyChangesAtAnyYield_StorageTableEqualsWhatInputsImply) {
  EXPECT_TRUE(rc::check("storage, asynchronous", [] { storageTableEqualsInputs(Rvx::Mode::asynchronous); }));
}

TEST(HostPropertyTest, AnyChanges_SynchronousStorageTableEqualsWhatInputsImply) {
  EXPECT_TRUE(rc::check("storage, synchronous", [] { storageTableEqualsInputs(Rvx::Mode::synchronous); }));
}

TEST(HostPropertyTest, MappingsThatChangeDuringScans_OtherRowsAreRightAndTheNextPipelineRightsAll) {
  EXPECT_TRUE(rc::check("storage, mappings change during scans", [] { storageTableWhileMappingsChange(); }));
}

TEST(HostPropertyTest, MappingsThatChange_StorageTableFollowsTheOrderOfEvents) {
  EXPECT_TRUE(rc::check("storage, mappings change", [] { storageTableFollowsTheOrderOfEvents(); }));
}

}  // namespace
}  // namespace TrelSnmp::Agent::HostProperty
