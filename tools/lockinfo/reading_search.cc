#include "tools/lockinfo/reading_search.h"

#include <algorithm>
#include <cstdint>

namespace klv {

namespace {

constexpr SectionCounts kUnreachable = {-1, -1, -1, -1};
constexpr size_t kTerminal = SIZE_MAX;  // the candidate ends the section

SectionCounts Sum(SectionCounts counts, const SectionCounts& more) {
  for (size_t kind = 0; kind < counts.size(); ++kind) counts[kind] += more[kind];
  return counts;
}

// One more file, with the rows of `candidate`.
SectionCounts Plus(const SectionCounts& counts, const ListsCandidate& candidate) {
  return Sum(counts, {1, candidate.rows[0], candidate.rows[1], candidate.rows[2]});
}

bool AtLeast(const SectionCounts& counts, const SectionCounts& totals) {
  for (size_t kind = 0; kind < counts.size(); ++kind) {
    if (counts[kind] < totals[kind]) return false;
  }
  return true;
}

// The readings are the paths through a graph whose nodes are file heads and
// whose edges are candidates. For each candidate, best_ holds the most of each
// count that a reading can still reach from its file on, taking that candidate
// or a later one. A path can always run on to a later candidate and take over
// what follows it, so the later a candidate the less it can reach, and a count
// that best_ cannot reach rules out the rest of a file's candidates at once.
// The search is depth-first on an explicit stack: a real report has a million
// files.
class Search {
 public:
  Search(size_t end, const std::vector<ListsCandidate>& candidates,
         const std::function<size_t(size_t)>& path_start)
      : candidates_(candidates),
        path_start_(path_start),
        next_(candidates.size()),
        best_(candidates.size() + 1, kUnreachable) {
    for (size_t i = candidates.size(); i-- > 0;) {
      next_[i] = candidates[i].end == end ? kTerminal : FirstFor(candidates[i].end);
      best_[i] = best_[i + 1];
      const SectionCounts rest = next_[i] == kTerminal ? SectionCounts{} : best_[next_[i]];
      if (rest[0] < 0) continue;
      const SectionCounts reach = Plus(rest, candidates[i]);
      for (size_t kind = 0; kind < reach.size(); ++kind) {
        best_[i][kind] = std::max(best_[i][kind], reach[kind]);
      }
    }
  }

  // The first candidate that can close a file whose head is at `position`.
  size_t FirstFor(size_t position) const {
    const size_t start = path_start_(position);
    if (start == SIZE_MAX) return candidates_.size();
    return std::partition_point(candidates_.begin(), candidates_.end(),
                                [&](const ListsCandidate& c) { return c.path_end < start; }) -
           candidates_.begin();
  }

  SearchResult Run(size_t first, const SectionCounts& totals, size_t most,
                   std::vector<Reading>* readings) const {
    struct Frame {
      size_t next;           // the file's next candidate to try
      SectionCounts counts;  // before the file
    };
    std::vector<Frame> stack = {{first, {}}};
    Reading picks;  // the candidate taken by each frame below the top
    const size_t budget = 16 * candidates_.size() + 100000;
    for (size_t steps = 0; !stack.empty(); ++steps) {
      if (steps > budget) return SearchResult::kTooMany;
      Frame& frame = stack.back();
      if (!CanReach(frame.counts, frame.next, totals)) {
        stack.pop_back();
        if (!picks.empty()) picks.pop_back();
        continue;
      }
      const size_t i = frame.next++;
      const SectionCounts counts = Plus(frame.counts, candidates_[i]);
      if (!AtLeast(totals, counts)) continue;  // more than the totals: no later file helps
      if (next_[i] != kTerminal) {
        if (CanReach(counts, next_[i], totals)) {
          picks.push_back(i);
          stack.push_back({next_[i], counts});
        }
      } else if (counts == totals) {
        readings->push_back(picks);
        readings->back().push_back(i);
        if (readings->size() > most) return SearchResult::kTooMany;
      }
    }
    return SearchResult::kComplete;
  }

 private:
  // True when `counts` plus what candidates from `next` on can reach is not
  // below `totals`.
  bool CanReach(const SectionCounts& counts, size_t next, const SectionCounts& totals) const {
    return best_[next][0] >= 0 && AtLeast(Sum(counts, best_[next]), totals);
  }

  const std::vector<ListsCandidate>& candidates_;
  const std::function<size_t(size_t)>& path_start_;
  std::vector<size_t> next_;
  std::vector<SectionCounts> best_;
};

}  // namespace

SearchResult FindReadings(size_t begin, size_t end, const std::vector<ListsCandidate>& candidates,
                          const std::function<size_t(size_t)>& path_start,
                          const SectionCounts& totals, size_t most,
                          std::vector<Reading>* readings) {
  if (begin == end) {
    if (totals == SectionCounts{}) readings->emplace_back();
    return SearchResult::kComplete;
  }
  const Search search(end, candidates, path_start);
  return search.Run(search.FirstFor(begin), totals, most, readings);
}

}  // namespace klv
