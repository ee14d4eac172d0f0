#include "runtime/Nearest.h"

#include <algorithm>

namespace Runtime {
namespace {

constexpr size_t kMaxBytes = 100;

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Letters to insert, remove, replace, or exchange with the next one.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) cost[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) cost[0][j] = j;
  auto alike = [&](size_t i, size_t j) { return lower(a[i - 1]) == lower(b[j - 1]); };
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t& here = cost[i][j];
      here = std::min({cost[i - 1][j - 1] + (alike(i, j) ? 0 : 1), cost[i - 1][j] + 1, cost[i][j - 1] + 1});
      bool exchanged = i > 1 && j > 1 && alike(i, j - 1) && alike(i - 1, j);
      if (exchanged) here = std::min(here, cost[i - 2][j - 2] + 1);
    }
  }
  return cost[a.size()][b.size()];
}

}  // namespace

std::string nearest(std::string_view misspelt, const std::vector<std::string>& names) {
  if (misspelt.size() > kMaxBytes) return "";
  size_t best = std::max<size_t>(1, misspelt.size() / 3) + 1;
  std::string found;
  for (const std::string& name : names) {
    size_t one = distance(misspelt, name);
    if (one >= best) continue;
    best = one;
    found = name;
  }
  return found;
}

}  // namespace Runtime
