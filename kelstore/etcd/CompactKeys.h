// Keys in order, each with what is known of it, in little memory: those of a full cluster take a dozen bytes
// each. Not thread-safe.
//
// Blocks of up to kMostInBlock keys. A key leaves out the beginning that it shares with the one before it in
// its block, and revision and lease are differences to those of that key. So finding a key reads half a
// block, and a change rewrites its own key and the next one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kelstore::Etcd {

class CompactKeys {
 public:
  static constexpr size_t kMostInBlock = 64;

  struct Known {
    int64_t modRevision = 0;
    int64_t lease = 0;
    uint32_t valueHash = 0;
    bool operator==(const Known&) const = default;
  };

 private:
  struct Block {
    std::string bytes;  // never empty
    size_t keys = 0;
  };
  using Blocks = std::vector<Block>;

 public:
  // A position. Any change of the keys invalidates it.
  class Cursor {
   public:
    bool atEnd() const { return block_ == blocks_->size(); }
    // Requires: not at the end.
    const std::string& key() const { return key_; }
    const Known& known() const { return known_; }
    void next();

   private:
    friend class CompactKeys;
    Cursor(const Blocks& blocks, size_t block) : blocks_(&blocks), block_(block) { next(); }
    const std::string& bytes() const { return (*blocks_)[block_].bytes; }
    void read();

    const Blocks* blocks_;
    size_t block_;
    size_t behind_ = 0;  // where the bytes of this key end
    std::string key_;
    Known known_;
  };

  size_t size() const { return size_; }
  Cursor begin() const { return {blocks_, 0}; }
  // At the first key that is not before this one.
  Cursor from(std::string_view key) const;
  std::optional<Known> find(std::string_view key) const;
  void put(std::string_view key, const Known& known) { change(key, &known); }
  void del(std::string_view key) { change(key, nullptr); }

 private:
  size_t blockOf(std::string_view key) const;
  void change(std::string_view key, const Known* now);
  void split(size_t block, size_t keys);
  void join(size_t block);

  Blocks blocks_;
  size_t size_ = 0;
};

}  // namespace Kelstore::Etcd
