#include "tools/lockinfo/report_parser.h"

#include <algorithm>
#include <cstdint>

namespace klv {

namespace {

constexpr size_t kNameWidth = 15;
constexpr size_t kTimeWidth = 23;  // "2024/05/17 14:03:07.412"
constexpr std::string_view kClientHeading = "  Name            State SessionId   Address\n";

// Reads the report from front to back. Each reader consumes what it read and
// answers true, or leaves the text, notes what it expected and answers false.
class ReportCursor {
 public:
  explicit ReportCursor(std::string_view text) : text_(text) {}

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
    if (Rest().size() < kNameWidth) return Fail("a 15-character name field");
    *name = std::string(Rest().substr(0, kNameWidth));
    name->erase(name->find_last_not_of(' ') + 1);
    position_ += kNameWidth;
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
  bool Fail(const std::string& expected) {
    const auto line = std::count(text_.begin(), text_.begin() + position_, '\n') + 1;
    error_ = "line ";
    error_ += std::to_string(line) + ": expected " + expected;
    return false;
  }
  const std::string& Error() const { return error_; }

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
  std::string error_;
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

// One list of a file: its heading, then its rows, each indented by four blanks.
bool ParseRows(ReportCursor& in, std::string_view heading, std::vector<ReportLock>* rows,
               bool (*parse_row)(ReportCursor&, ReportLock*)) {
  if (!in.Skip(heading)) return true;
  while (in.LooksAt("    ")) {
    if (!parse_row(in, &rows->emplace_back())) return false;
  }
  return true;
}

bool ParseFile(ReportCursor& in, ReportFile* file) {
  return in.Expect("[") && in.Number(&file->key_hi) && in.Expect(",") && in.Number(&file->key_lo) &&
         in.Expect("] ") && in.Upto('\n', &file->path) && in.Expect("\n") &&
         ParseRows(in, "  Open locks: [clientfid type]\n", &file->opens, ParseOpenRow) &&
         ParseRows(in, "  Op locks: [clientfid type]\n", &file->oplocks, ParseOplockRow) &&
         ParseRows(in, "  Record locks: [clientfid type offset length]\n", &file->record_locks,
                   ParseRecordLockRow) &&
         in.Expect("\n");
}

bool ParseTotals(ReportCursor& in, ReportTotals* totals) {
  return in.Expect("\nFiles: ") && in.Number(&totals->files) && in.Expect(" Used: ") &&
         in.Number(&totals->used) && in.Expect(" OpenLocks: ") && in.Number(&totals->open_locks) &&
         in.Expect(" RecordLocks: ") && in.Number(&totals->record_locks) &&
         in.Expect(" OpLocks: ") && in.Number(&totals->oplocks) && in.Expect("\n") && in.AtEnd();
}

}  // namespace

bool ParseStatusReport(std::string_view text, StatusReport* report, std::string* error) {
  ReportCursor in(text);
  bool parsed = in.Field(kTimeWidth, &report->time) && in.Expect(" Ostrand Kelvane Lock Daemon ") &&
                in.Upto('\n', &report->version) && in.Expect("\n\n== Client information\n") &&
                ParseClients(in, &report->clients) && in.Expect("\n== File lock information\n");
  while (parsed && in.LooksAt("[")) parsed = ParseFile(in, &report->files.emplace_back());
  parsed = parsed && ParseTotals(in, &report->totals);
  if (!parsed) *error = in.Error();
  return parsed;
}

}  // namespace klv
