#pragma once

// How many of the numbers are below the limit.
template <class Numbers>
int below(const Numbers& numbers, int limit) {
  int count = 0;
  for (int number : numbers) {
    if (number < limit) ++count;
  }
  return count;
}

bool inOrder(int a, int b, int c);
int alike(int a);
int unused(int a);
