// How many keys to ask a server for at once: fewer when they are too many or do not come, since a slow link
// carries a smaller page in time; then more again, up to half of what failed, and beyond once some pages
// worked. A page that fails for another reason is asked for again as it is, a few times.
#pragma once

#include <cstdint>

#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class PageSize final {
 public:
  static constexpr int64_t kUsual = 1000;
  static constexpr int kRaisedAfter = 16;  // pages in a row, before larger ones are tried again
  static constexpr int kRepeats = 3;       // of a page that fails, but not by its size

  // Requires: atMost > 0.
  explicit PageSize(int64_t atMost) : keys_(atMost), most_(atMost), bound_(atMost) {}

  int64_t keys() const { return keys_; }
  // The page that was asked for came.
  void worked();
  // It did not. False when there is no hope left that one will.
  bool failed(PageFailure why);
  // With another server, whose link may carry more.
  void anew();

 private:
  int64_t keys_;
  int64_t most_;
  int64_t bound_;
  int workedInARow_ = 0;
  int repeatedInARow_ = 0;
};

}  // namespace Kelstore::Etcd
