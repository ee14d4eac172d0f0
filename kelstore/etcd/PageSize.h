// How many keys to ask a server for at once: fewer after a page that was too large or late, since a slow link
// carries a smaller page in time. Then more again, up to half of what failed, and beyond that after some
// pages. A page that fails for another reason is asked for again as it is, a few times.
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
  // The page came.
  void worked();
  // It did not. False: give up.
  bool failed(PageFailure why);
  // Another server is asked, whose link may carry more.
  void anew();

 private:
  int64_t keys_;
  int64_t most_;
  int64_t bound_;
  int workedInARow_ = 0;
  int repeatedInARow_ = 0;
};

}  // namespace Kelstore::Etcd
