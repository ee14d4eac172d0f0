// This machine's file systems: which are mounted, how much room each has, and which row each gets.
//
// Each mount is looked at by a collector of its own, so that one that hangs is nobody else's trouble; it
// keeps the figures that it had. A mount that is gone has neither figures nor a row any more, but its index
// is kept for it, as are those of an earlier life of the process whose file of indexes can be read. On the
// event loop's thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "member/Collector.h"
#include "member/IndexFile.h"
#include "member/StorageIndexes.h"

namespace Member {

class LocalStorage final {
 public:
  // indexFile: where indexes are kept; empty: nowhere. `told` is called when there is news. Io and clock
  // outlive this.
  LocalStorage(std::shared_ptr<LocalMachine> machine, std::string indexFile, Runtime::Io& io,
               const Zavro::Clock& clock, std::function<void()> told);

  // Asks which indexes were kept. Call it once, first.
  void start();
  // Asks for everything else, except for what is still asked for.
  void look();
  // Whether the mounts are known, if only that there are none.
  bool known() const { return known_; }
  // The figures of each mount that are known, by mount point.
  std::map<std::string, Kelstore::Storage> figures() const;
  // The row of each mount point that had figures since something is mounted there. `taken`: what others gave
  // away.
  std::vector<std::pair<std::string, Kelstore::Mapping>> mappings(const StorageIndexes::Taken& taken);
  // Keeps the indexes, if there are new ones since the last attempt.
  void keepIndexes();

  // Those of the mounts and of the indexes included.
  std::vector<const Collector*> collectors() const;

 private:
  struct Area {
    Mount mount;
    std::optional<Kelstore::Storage> figures;
    std::optional<MountKind> row;  // since it had figures: of what kind it was then
    std::unique_ptr<Collector> collector;
  };

  std::unique_ptr<Collector> collector(std::string name, Collector::Ask ask);
  void mountsAre(std::vector<Mount> mounts);
  void areaIs(const Mount& mount);
  void roomIs(const Mount& mount, const Room& room);
  void keptAre(KeptIndexes kept);
  bool nameable(const std::string& mountPoint);

  std::shared_ptr<LocalMachine> machine_;
  const std::string indexFile_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> told_;

  std::unique_ptr<Collector> mounts_;
  bool known_ = false;
  std::map<std::string, Area> areas_;  // by mount point, those that are mounted
  std::set<std::string> unnameable_;   // mount points that are left out, of which was told

  StorageIndexes indexes_;
  std::unique_ptr<Collector> keeper_;  // reads the file of indexes, then writes it; null without one
  bool keptRead_ = false;              // it was read before an index was given
  StorageIndexes::ByMountPoint attempted_;
  StorageIndexes::ByMountPoint kept_;
};

}  // namespace Member
