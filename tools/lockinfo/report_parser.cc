#include "tools/lockinfo/report_parser.h"

#include <algorithm>
#include <cstdint>
#include <unordered_set>

#include "protocol/report_layout.h"
#include "protocol/version.h"
#include "tools/lockinfo/reading_search.h"

namespace klv {

namespace {

constexpr size_t kNameWidth = report::kNameWidth;
constexpr size_t kTimeWidth = report::kTimeStampWidth;
const std::string kBannerMiddle = std::string(" ") + kDaemonName + " ";
const std::string kClientSection = std::string("\n\n") + report::kClientSection;
constexpr std::string_view kClientHeading = report::kClientHeading;
constexpr std::string_view kFileSection = report::kFileSection;
constexpr std::string_view kOpenHeading = report::kOpenLocksHeading;
constexpr std::string_view kOplockHeading = report::kOplocksHeading;
constexpr std::string_view kRecordLockHeading = report::kRecordLocksHeading;
constexpr std::string_view kTotalsStart = report::kFilesLabel;

// More readings than this are not told apart: the whole file section is
// then ambiguous.
constexpr size_t kMostReadings = 64;

// Reads the report from a position on. Each reader consumes what it read and
// answers true, or leaves the text, notes what it expected and answers false.
class ReportCursor {
 public:
  explicit ReportCursor(std::string_view text, size_t position = 0)
      : text_(text), position_(position) {}

  size_t Position() const { return position_; }
  bool LooksAt(std::string_view expected) const { return Rest().starts_with(expected); }
  // Consumes `expected` when the text goes on with it; never an error.
  bool Skip(std::string_view expected) {
    if (!LooksAt(expected)) return false;
    position_ += expected.size();
    return true;
  }
  bool Expect(std::string_view expected) { return Skip(expected) || Fail(Quoted(expected)); }
  // An unsigned decimal of at most 32 bits.
  bool Number(uint32_t* value) {
    uint64_t number = 0;
    size_t digits = 0;
    for (; digits < Rest().size() && Rest()[digits] >= '0' && Rest()[digits] <= '9'; ++digits) {
      number = number * 10 + static_cast<uint64_t>(Rest()[digits] - '0');
      if (number > UINT32_MAX) return Fail("a number below 2^32");
    }
    if (digits == 0) return Fail("a number");
    position_ += digits;
    *value = static_cast<uint32_t>(number);
    return true;
  }
  // A client's name field: 15 bytes, padding blanks removed.
  bool Name(std::string* name) {
    if (!Field(kNameWidth, name)) return Fail("a 15-character name field");
    name->erase(name->find_last_not_of(' ') + 1);
    return true;
  }
  bool Field(size_t width, std::string* value) {
    if (Rest().size() < width) return Fail(std::to_string(width) + " more characters");
    *value = std::string(Rest().substr(0, width));
    position_ += width;
    return true;
  }
  // The bytes before the next `stop`, which stays unread.
  bool Upto(char stop, std::string* value) {
    const size_t end = Rest().find(stop);
    if (end == std::string_view::npos) return Fail(Quoted(std::string(1, stop)));
    *value = std::string(Rest().substr(0, end));
    position_ += end;
    return true;
  }
  bool AtEnd() { return Rest().empty() || Fail("the end of the report"); }
  // Notes what was expected here; the line is counted only when asked for,
  // since a failed reading of candidate lock lists is no error.
  bool Fail(const std::string& expected) {
    expected_ = expected;
    failed_at_ = position_;
    return false;
  }
  std::string Error() const {
    const auto line = std::count(text_.begin(), text_.begin() + failed_at_, '\n') + 1;
    return "line " + std::to_string(line) + ": expected " + expected_;
  }

 private:
  std::string_view Rest() const { return text_.substr(position_); }
  // `literal` in double quotes, a newline shown as \n.
  static std::string Quoted(std::string_view literal) {
    std::string shown = "\"";
    for (char c : literal) shown += c == '\n' ? std::string("\\n") : std::string(1, c);
    shown += '"';
    return shown;
  }

  std::string_view text_;
  size_t position_ = 0;
  size_t failed_at_ = 0;
  std::string expected_;
};

bool ParseClient(ReportCursor& in, ReportClient* client) {
  if (!in.Expect("  ") || !in.Name(&client->name) || !in.Expect(" ")) return false;
  if (in.Skip("  OK     ")) {
    client->state = "OK";
  } else if (in.Expect(" WAIT    ")) {
    client->state = "WAIT";
  } else {
    return false;
  }
  return in.Number(&client->session) && in.Expect("    ") && in.Upto(':', &client->address) &&
         in.Expect(":") && in.Number(&client->port) && in.Expect("\n");
}

bool ParseClients(ReportCursor& in, std::vector<ReportClient>* clients) {
  if (!in.Skip(kClientHeading)) return true;
  while (!in.LooksAt("\n")) {
    if (!ParseClient(in, &clients->emplace_back())) return false;
  }
  return true;
}

// The holder's name and the clientfid that begin every lock row.
bool ParseRowHead(ReportCursor& in, ReportLock* lock) {
  return in.Expect("    ") && in.Name(&lock->holder) && in.Expect(" ") &&
         in.Number(&lock->clientfid) && in.Expect(" ");
}

bool ParseOpenRow(ReportCursor& in, ReportLock* lock) {
  return ParseRowHead(in, lock) && in.Upto('\n', &lock->mode) && in.Expect("\n");
}

bool ParseOplockRow(ReportCursor& in, ReportLock* lock) {
  return ParseRowHead(in, lock) && in.Number(&lock->type) && in.Expect("\n");
}

bool ParseRecordLockRow(ReportCursor& in, ReportLock* lock) {
  return ParseRowHead(in, lock) && in.Number(&lock->type) && in.Expect(" ") &&
         in.Number(&lock->offset) && in.Expect(" ") && in.Number(&lock->length) && in.Expect("\n");
}

// One list of a file: its heading, then at least one row, each indented by
// four blanks; the daemon leaves an empty list out. True when absent.
bool ParseRows(ReportCursor& in, std::string_view heading, std::vector<ReportLock>* rows,
               bool (*parse_row)(ReportCursor&, ReportLock*)) {
  if (!in.Skip(heading)) return true;
  do {
    if (!parse_row(in, &rows->emplace_back())) return false;
  } while (in.LooksAt("    "));
  return true;
}

// A file's lock lists, at least one, and the blank line that closes them.
bool ParseLockLists(ReportCursor& in, ReportFile* file) {
  return ParseRows(in, kOpenHeading, &file->opens, ParseOpenRow) &&
         ParseRows(in, kOplockHeading, &file->oplocks, ParseOplockRow) &&
         ParseRows(in, kRecordLockHeading, &file->record_locks, ParseRecordLockRow) &&
         file->opens.size() + file->oplocks.size() + file->record_locks.size() > 0 &&
         in.Expect("\n");
}

bool ParseFileHead(ReportCursor& in, ReportFile* file) {
  return in.Expect("[") && in.Number(&file->key_hi) && in.Expect(",") && in.Number(&file->key_lo) &&
         in.Expect("] ");
}

bool ParseTotals(ReportCursor& in, ReportTotals* totals) {
  return in.Expect(kTotalsStart) && in.Number(&totals->files) && in.Expect(" Used: ") &&
         in.Number(&totals->used) && in.Expect(" OpenLocks: ") && in.Number(&totals->open_locks) &&
         in.Expect(" RecordLocks: ") && in.Number(&totals->record_locks) &&
         in.Expect(" OpLocks: ") && in.Number(&totals->oplocks) && in.Expect("\n") && in.AtEnd();
}

// The banner, the client table and the heading of the file section.
bool ParseHead(ReportCursor& in, StatusReport* report) {
  return in.Field(kTimeWidth, &report->time) && in.Expect(kBannerMiddle) &&
         in.Upto('\n', &report->version) && in.Expect(kClientSection) &&
         ParseClients(in, &report->clients) && in.Expect(kFileSection);
}

// Where a file starts and the candidate that closes it.
struct FileSpan {
  size_t start = 0;
  size_t pick = 0;
  bool operator==(const FileSpan&) const = default;
};

// The file section: text[begin, end) of a report cut before its totals line.
class FileSection {
 public:
  // A lock row names a client of the table, or no one once its client is gone.
  FileSection(std::string_view text, size_t begin, const std::vector<ReportClient>& clients)
      : text_(text), begin_(begin) {
    for (const ReportClient& client : clients) holders_.insert(client.name);
    holders_.insert("");
  }

  ReportReading Read(StatusReport* report, std::string* error) {
    const ReportTotals& totals = report->totals;
    candidates_ = Candidates();
    std::vector<Reading> readings;
    const SearchResult result = FindReadings(
        begin_, text_.size(), candidates_, [this](size_t p) { return PathStart(p); },
        {totals.used, totals.open_locks, totals.oplocks, totals.record_locks}, kMostReadings,
        &readings);
    if (result == SearchResult::kTooMany) return Ambiguous(0, begin_, text_.size(), report);
    if (readings.empty()) {
      *error = "lines " + std::to_string(LineOf(begin_)) + " to " +
               std::to_string(LineOf(text_.size()) + 1) +
               ": the files listed do not add up to the totals line";
      return ReportReading::kNotAReport;
    }
    return Settle(readings, report);
  }

 private:
  // Every line break that lock lists follow, in order.
  std::vector<ListsCandidate> Candidates() const {
    std::vector<ListsCandidate> candidates;
    for (size_t at = text_.find('\n', begin_); at != std::string_view::npos;
         at = text_.find('\n', at + 1)) {
      ReportCursor in(text_, at + 1);
      if (!in.LooksAt(kOpenHeading) && !in.LooksAt(kOplockHeading) &&
          !in.LooksAt(kRecordLockHeading)) {
        continue;
      }
      ReportFile lists;
      if (!ParseLockLists(in, &lists) || !KnownHolders(lists)) continue;
      if (in.Position() != text_.size() && PathStart(in.Position()) == SIZE_MAX) continue;
      candidates.push_back(
          {at,
           in.Position(),
           {static_cast<uint32_t>(lists.opens.size()), static_cast<uint32_t>(lists.oplocks.size()),
            static_cast<uint32_t>(lists.record_locks.size())}});
    }
    return candidates;
  }

  bool KnownHolders(const ReportFile& lists) const {
    for (const std::vector<ReportLock>* rows :
         {&lists.opens, &lists.oplocks, &lists.record_locks}) {
      for (const ReportLock& row : *rows) {
        if (!holders_.contains(row.holder)) return false;
      }
    }
    return true;
  }

  size_t PathStart(size_t position) const {
    ReportCursor in(text_, position);
    ReportFile file;
    return ParseFileHead(in, &file) ? in.Position() : SIZE_MAX;
  }

  ReportFile FileOf(const FileSpan& span) const {
    ReportFile file;
    ReportCursor head(text_, span.start);
    ParseFileHead(head, &file);
    const size_t path_end = candidates_[span.pick].path_end;
    file.path = std::string(text_.substr(head.Position(), path_end - head.Position()));
    ReportCursor lists(text_, path_end + 1);
    ParseLockLists(lists, &file);
    return file;
  }

  // Keeps the files that all readings share at their start and at their end;
  // what lies between them is ambiguous.
  ReportReading Settle(const std::vector<Reading>& readings, StatusReport* report) const {
    std::vector<std::vector<FileSpan>> spans(readings.size());
    size_t shortest = SIZE_MAX;
    for (size_t r = 0; r < readings.size(); ++r) {
      size_t start = begin_;
      for (size_t pick : readings[r]) {
        spans[r].push_back({start, pick});
        start = candidates_[pick].end;
      }
      shortest = std::min(shortest, spans[r].size());
    }
    // True when file `index(reading)` is the same in every reading.
    const auto shared = [&spans](auto index) {
      for (const std::vector<FileSpan>& reading : spans) {
        if (reading[index(reading)] != spans[0][index(spans[0])]) return false;
      }
      return true;
    };
    size_t prefix = 0, suffix = 0;
    while (prefix < shortest && shared([&](const auto&) { return prefix; })) ++prefix;
    while (prefix + suffix < shortest &&
           shared([&](const auto& reading) { return reading.size() - 1 - suffix; })) {
      ++suffix;
    }
    const std::vector<FileSpan>& first = spans[0];
    for (size_t i = 0; i < first.size(); ++i) {
      if (i < prefix || i + suffix >= first.size()) report->files.push_back(FileOf(first[i]));
    }
    if (readings.size() == 1) return ReportReading::kWhole;
    const size_t to = suffix == 0 ? text_.size() : first[first.size() - suffix].start;
    return Ambiguous(prefix, first[prefix].start, to, report);
  }

  ReportReading Ambiguous(size_t at, size_t from, size_t to, StatusReport* report) const {
    report->ambiguous.push_back(
        {at, LineOf(from), LineOf(to - 1), std::string(text_.substr(from, to - from))});
    return ReportReading::kAmbiguous;
  }

  size_t LineOf(size_t position) const {
    return static_cast<size_t>(std::count(text_.begin(), text_.begin() + position, '\n')) + 1;
  }

  std::string_view text_;
  size_t begin_;
  std::unordered_set<std::string> holders_;
  std::vector<ListsCandidate> candidates_;
};

}  // namespace

ReportReading ParseStatusReport(std::string_view text, ReportScope scope, StatusReport* report,
                                std::string* error) {
  *report = StatusReport();
  ReportCursor in(text);
  if (!ParseHead(in, report)) {
    *error = in.Error();
    return ReportReading::kNotAReport;
  }
  // No path follows the totals line, so it is read from the end.
  const size_t totals_at = text.rfind(kTotalsStart);
  ReportCursor totals(text, totals_at == std::string_view::npos || totals_at < in.Position()
                                ? text.size()
                                : totals_at);
  if (!ParseTotals(totals, &report->totals)) {
    *error = totals.Error();
    return ReportReading::kNotAReport;
  }
  if (scope == ReportScope::kUnforgeable) return ReportReading::kWhole;
  return FileSection(text.substr(0, totals_at), in.Position(), report->clients).Read(report, error);
}

}  // namespace klv
