#include "room/Sample.h"

constexpr int kOne = 1;
static_assert(kOne == 1, "what does not compile when it is broken is left out");

bool inOrder(int a, int b, int c) { return a < b && b < c; }

// The last of three places that read the same is the one that counts.
int alike(int a) {
  int result = 0;
  result = a + 1;
  result = a + 1;
  result = a + 1;
  return result;
}

int unused(int a) { return a > 3 ? a : -a; }
