#include "kelstore/etcd/PageSize.h"

#include <algorithm>

namespace Kelstore::Etcd {

void PageSize::worked() {
  repeatedInARow_ = 0;
  if (++workedInARow_ % kRaisedAfter == 0) most_ = std::min(bound_, 2 * most_);
  keys_ = std::min(most_, 2 * keys_);
}

bool PageSize::failed(PageFailure why) {
  workedInARow_ = 0;
  if (why != PageFailure::tooLarge && why != PageFailure::late) return ++repeatedInARow_ <= kRepeats;
  if (keys_ == 1) return false;
  most_ = keys_ / 2;
  keys_ = std::max<int64_t>(1, keys_ / 8);
  return true;
}

void PageSize::anew() {
  most_ = bound_;
  workedInARow_ = 0;
  repeatedInARow_ = 0;
}

}  // namespace Kelstore::Etcd
