// This machine's mounted file systems: their sizes, and the row of each.
//
// Each mount has a collector of its own. One that hangs keeps its figures and affects no other, unless there
// are as many of them as LookPool has threads. A mount that is gone has no figures and no row, but its index
// is kept for it; a file keeps the indexes over restarts. On the event loop's thread.
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
#include "member/LookPool.h"
#include "member/StorageIndexes.h"

namespace Member {

class LocalStorage final {
 public:
  // indexFile: keeps the indexes; empty: none. told: called after each answer of a collector, and when one
  // begins to hang. Io and clock outlive this. A question that hangs may use the machine for longer.
  LocalStorage(std::shared_ptr<LocalMachine> machine, std::string indexFile, Runtime::Io& io,
               const Zavro::Clock& clock, std::function<void()> told);

  // Reads the kept indexes. Call it once, first.
  void start();
  // Asks for mounts and sizes, except those that have no answer yet.
  void look();
  // Whether the mounts are known; there may be none.
  bool known() const { return known_; }
  // The figures that are known, by mount point.
  std::map<std::string, Kelstore::Storage> figures() const;
  // The row of each mount point that has had figures while something was mounted there. taken: indexes that
  // other sources have. None before the kept indexes are known.
  std::vector<std::pair<std::string, Kelstore::Mapping>> mappings(const StorageIndexes::Taken& taken);
  // Writes the indexes to the file if they differ from the last attempt.
  void keepIndexes();

  // All collectors, including those of the mount table and of the file of indexes.
  std::vector<const Collector*> collectors() const;

 private:
  struct Area {
    Mount mount;
    std::optional<Kelstore::Storage> figures;
    std::optional<MountKind> row;  // the kind when it had figures; nothing: it never had
    std::unique_ptr<Collector> collector;
  };

  std::unique_ptr<Collector> collector(std::string name, Collector::Ask ask, Runtime::Io& io);
  void mountsAre(std::vector<Mount> mounts);
  void areaIs(const Mount& mount);
  void roomIs(const Mount& mount, const Room& room);
  void keptAre(KeptIndexes kept);
  bool takes(const std::string& mountPoint);

  std::shared_ptr<LocalMachine> machine_;
  const std::string indexFile_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  std::function<void()> told_;

  LookPool pool_{io_};
  std::unique_ptr<Collector> mounts_;
  bool known_ = false;
  std::map<std::string, Area> areas_;  // by mount point, those that are mounted
  std::set<std::string> unnameable_;   // mount points that are left out; logged

  StorageIndexes indexes_;
  std::unique_ptr<Collector> keeper_;  // reads the file of indexes, then writes it; null without one
  bool keptRead_ = false;              // it was read before the first index was given
  StorageIndexes::ByMountPoint attempted_;
  StorageIndexes::ByMountPoint kept_;
};

}  // namespace Member
