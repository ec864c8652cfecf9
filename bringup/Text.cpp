#include "bringup/Text.h"

#include <algorithm>
#include <utility>

namespace kvx::bringup {

size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::vector<std::string> nearMisses(const std::string& name, const std::vector<std::string>& candidates,
                                    size_t limit) {
  if (name.empty()) return {};
  const size_t allowed = std::min(std::max<size_t>(2, name.size() / 4), name.size() - 1);
  std::vector<std::pair<size_t, std::string>> near;
  for (const std::string& candidate : candidates) {
    // Lengths that differ by more than the slips allowed cannot be that close.
    const size_t gap =
        candidate.size() > name.size() ? candidate.size() - name.size() : name.size() - candidate.size();
    if (gap > allowed) continue;
    const size_t distance = editDistance(name, candidate);
    if (distance <= allowed) near.emplace_back(distance, candidate);
  }
  std::sort(near.begin(), near.end());
  near.erase(std::unique(near.begin(), near.end()), near.end());
  std::vector<std::string> names;
  for (auto& [distance, candidate] : near) {
    if (names.size() == limit) break;
    names.push_back(std::move(candidate));
  }
  return names;
}

std::string listing(const std::vector<std::string>& words, const std::string& conjunction) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i != 0) text += i + 1 == words.size() ? " " + conjunction + " " : ", ";
    text += words[i];
  }
  return text;
}

}  // namespace kvx::bringup
