#include "tests/mutation/sample/room/Sample.h"

constexpr int kOne = 1;
static_assert(kOne == 1, "what does not compile when it is broken is left out");

bool inOrder(int a, int b, int c) { return a < b && b < c; }

int unused(int a) { return a > 3 ? a : -a; }
