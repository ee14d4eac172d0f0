#include "kelstore/etcd/CompactKeys.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Kelstore::Etcd {
namespace {

// Smaller blocks are joined with the next one, if both together are at most half full.
constexpr size_t kFew = CompactKeys::kMostInBlock / 4;

constexpr unsigned kBits = 7;  // of a number in each byte; the eighth says that more follow
constexpr uint64_t kMore = 1U << kBits;

void addNumber(std::string& bytes, uint64_t number) {
  for (; number >= kMore; number >>= kBits) bytes += static_cast<char>(number | kMore);
  bytes += static_cast<char>(number);
}

// Small differences are small numbers, whatever their sign.
void addDifference(std::string& bytes, int64_t now, int64_t before) {
  uint64_t difference = static_cast<uint64_t>(now) - static_cast<uint64_t>(before);
  bool negative = (difference >> 63) != 0;
  addNumber(bytes, (negative ? ~difference : difference) << 1 | (negative ? 1 : 0));
}

uint64_t numberAt(const std::string& bytes, size_t& at) {
  uint64_t number = 0;
  for (unsigned shift = 0;; shift += kBits) {
    auto byte = static_cast<uint8_t>(bytes[at++]);
    number |= (byte & (kMore - 1)) << shift;
    if (byte < kMore) return number;
  }
}

int64_t withDifferenceAt(const std::string& bytes, size_t& at, int64_t before) {
  uint64_t number = numberAt(bytes, at);
  uint64_t difference = (number & 1) != 0 ? ~(number >> 1) : number >> 1;
  return static_cast<int64_t>(static_cast<uint64_t>(before) + difference);
}

// The key before in the block, or nothing.
struct Before {
  std::string key;
  CompactKeys::Known known;
};

// Adds a key, after which it is the one before.
void addKey(std::string& bytes, Before& before, std::string_view key, const CompactKeys::Known& known) {
  auto differs = std::mismatch(key.begin(), key.end(), before.key.begin(), before.key.end());
  auto shared = static_cast<size_t>(differs.first - key.begin());
  addNumber(bytes, shared);
  addNumber(bytes, key.size() - shared);
  bytes += key.substr(shared);
  addDifference(bytes, known.modRevision, before.known.modRevision);
  addDifference(bytes, known.lease, before.known.lease);
  bytes.append(reinterpret_cast<const char*>(&known.valueHash), sizeof known.valueHash);
  before = {std::string(key), known};
}

// Requires: bytes of a block.
std::string_view firstKey(const std::string& bytes) {
  size_t at = 0;
  numberAt(bytes, at);
  uint64_t size = numberAt(bytes, at);
  return std::string_view(bytes).substr(at, size);
}

}  // namespace

// Goes on in the next block behind the last key of one. At first, no key is read.
void CompactKeys::Cursor::next() {
  if (atEnd()) return;
  if (behind_ == bytes().size()) {
    ++block_;
    behind_ = 0;
    known_ = {};
    if (atEnd()) return;
  }
  read();
}

void CompactKeys::Cursor::read() {
  uint64_t shared = numberAt(bytes(), behind_);
  uint64_t size = numberAt(bytes(), behind_);
  key_.resize(shared);
  key_.append(bytes(), behind_, size);
  behind_ += size;
  known_.modRevision = withDifferenceAt(bytes(), behind_, known_.modRevision);
  known_.lease = withDifferenceAt(bytes(), behind_, known_.lease);
  std::memcpy(&known_.valueHash, bytes().data() + behind_, sizeof known_.valueHash);
  behind_ += sizeof known_.valueHash;
}

// The block that has the key, or would have it.
size_t CompactKeys::blockOf(std::string_view key) const {
  auto after = std::upper_bound(
      blocks_.begin(), blocks_.end(), key,
      [](std::string_view wanted, const Block& block) { return wanted < firstKey(block.bytes); });
  return after == blocks_.begin() ? 0 : static_cast<size_t>(after - blocks_.begin()) - 1;
}

CompactKeys::Cursor CompactKeys::from(std::string_view key) const {
  Cursor cursor(blocks_, blockOf(key));
  while (!cursor.atEnd() && cursor.key() < key) cursor.next();
  return cursor;
}

std::optional<CompactKeys::Known> CompactKeys::find(std::string_view key) const {
  Cursor cursor = from(key);
  return cursor.atEnd() || cursor.key() != key ? std::nullopt : std::optional(cursor.known());
}

// Replaces the key and the next one of its block, since that is told by its difference to the key.
void CompactKeys::change(std::string_view key, const Known* now) {
  Before before;
  if (blocks_.empty()) {
    if (now == nullptr) return;
    addKey(blocks_.emplace_back(Block{{}, 1}).bytes, before, key, *now);
    size_ = 1;
    return;
  }
  size_t at = blockOf(key);
  Block& block = blocks_[at];
  size_t begin = 0;  // where the key's bytes begin
  Cursor cursor(blocks_, at);
  auto inBlock = [&] { return cursor.block_ == at; };
  for (; inBlock() && cursor.key() < key; cursor.next()) {
    before = {cursor.key(), cursor.known()};
    begin = cursor.behind_;
  }
  size_t end = begin;
  bool there = inBlock() && cursor.key() == key;
  if (there) {
    end = cursor.behind_;
    cursor.next();
  } else if (now == nullptr) {
    return;
  }
  std::string changed;
  if (now != nullptr) addKey(changed, before, key, *now);
  bool last = !inBlock();
  if (!last) {
    addKey(changed, before, cursor.key(), cursor.known());
    end = cursor.behind_;
  }
  block.bytes.replace(begin, end - begin, changed);
  size_t added = now != nullptr && !there ? 1 : 0;
  size_t removed = now == nullptr ? 1 : 0;
  block.keys += added - removed;
  size_ += added - removed;
  // Keys that come in order fill their blocks, the last of which has room to grow.
  if (block.keys > kMostInBlock) return split(at, last ? kMostInBlock : kMostInBlock / 2);
  if (removed != 0) return join(at);
  if (!last || at + 1 != blocks_.size()) block.bytes.shrink_to_fit();
}

// Leaves so many keys in the block; the others become a block behind it.
void CompactKeys::split(size_t block, size_t keys) {
  Cursor cursor(blocks_, block);
  for (size_t i = 1; i < keys; ++i) cursor.next();
  Block& first = blocks_[block];
  Block second{{}, first.keys - keys};
  size_t end = cursor.behind_;
  cursor.next();
  Before nothing;
  addKey(second.bytes, nothing, cursor.key(), cursor.known());
  second.bytes.append(first.bytes, cursor.behind_);
  first.bytes.resize(end);
  first.bytes.shrink_to_fit();
  first.keys = keys;
  blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(block) + 1, std::move(second));
}

// Joins the block with the next one, or removes it, where it has few keys or none.
void CompactKeys::join(size_t block) {
  auto at = blocks_.begin() + static_cast<std::ptrdiff_t>(block);
  if (at->keys == 0) {
    blocks_.erase(at);
  } else if (auto after = at + 1;
             after != blocks_.end() && at->keys <= kFew && at->keys + after->keys <= 2 * kFew) {
    Cursor cursor(blocks_, block);
    for (size_t i = 1; i < at->keys; ++i) cursor.next();
    Before before{cursor.key(), cursor.known()};
    cursor.next();
    addKey(at->bytes, before, cursor.key(), cursor.known());
    at->bytes.append(after->bytes, cursor.behind_);
    at->keys += after->keys;
    at->bytes.shrink_to_fit();
    blocks_.erase(after);
  } else {
    at->bytes.shrink_to_fit();
  }
  if (blocks_.size() < blocks_.capacity() / 4) blocks_.shrink_to_fit();
}

}  // namespace Kelstore::Etcd
