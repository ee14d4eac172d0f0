#include <array>

#include "room/Sample.h"

int main() {
  std::array numbers{1, 2, 3};
  bool right =
      below(numbers, 3) == 2 && inOrder(1, 2, 3) && !inOrder(1, 3, 2) && !inOrder(2, 1, 3) && alike(1) == 2;
  return right ? 0 : 1;
}
