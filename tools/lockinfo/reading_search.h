#ifndef KLV_TOOLS_LOCKINFO_READING_SEARCH_H_
#define KLV_TOOLS_LOCKINFO_READING_SEARCH_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace klv {

// The ways to read the file section of a status report. Each file is a head
// "[hi,lo] path\n" followed by its lock lists, which end with a blank line.
// A path may hold line breaks, so the lists of a file may begin after any
// line break that is followed by lists; only the counts of the totals line
// tell the readings apart.

// Lock lists that follow one line break of the section.
struct ListsCandidate {
  size_t path_end = 0;                // the line break that would end the path
  size_t end = 0;                     // just past the blank line that closes the lists
  std::array<uint32_t, 3> rows = {};  // opens, oplocks, record locks
};

// Files, then open, oplock and record-lock rows.
using SectionCounts = std::array<int64_t, 4>;

// One reading: the candidate that closes each file, in order.
using Reading = std::vector<size_t>;

enum class SearchResult { kComplete, kTooMany };

// Finds the readings of the section from `begin` to `end` whose counts are
// `totals`. `candidates` are sorted by path_end; `path_start(p)` is where the
// path of a file head at `p` begins, or SIZE_MAX when no head is there. Gives
// up with kTooMany past `most` readings or when the search grows beyond a
// bound linear in the candidates.
SearchResult FindReadings(size_t begin, size_t end, const std::vector<ListsCandidate>& candidates,
                          const std::function<size_t(size_t)>& path_start,
                          const SectionCounts& totals, size_t most, std::vector<Reading>* readings);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_READING_SEARCH_H_
