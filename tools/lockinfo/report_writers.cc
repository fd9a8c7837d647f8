#include "tools/lockinfo/report_writers.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/report_layout.h"
#include "protocol/version.h"

namespace klv {

void AppendQuoted(std::string* out, const std::string& bytes) {
  *out += '"';
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      *out += '\\';
      *out += c;
    } else if (byte < 0x20 || byte > 0x7E) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\u%04x", byte);
      *out += escape;
    } else {
      *out += c;
    }
  }
  *out += '"';
}

void AppendEscaped(std::string* out, std::string_view bytes) {
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      *out += "\\\\";
    } else if (c == '\n') {
      *out += "\\n";
    } else if (c == '\t') {
      *out += "\\t";
    } else if (byte < 0x20 || (byte >= 0x7F && byte < 0xA0)) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\x%02x", byte);
      *out += escape;
    } else {
      *out += c;
    }
  }
}

namespace {

// Appends `"name": `, after ", " unless it opens its object.
void AppendKey(std::string* out, const char* name) {
  if (out->back() != '{') *out += ", ";
  AppendQuoted(out, name);
  *out += ": ";
}

// Appends `"name": value`.
void AppendMember(std::string* out, const char* name, const std::string& value) {
  AppendKey(out, name);
  AppendQuoted(out, value);
}

void AppendMember(std::string* out, const char* name, uint32_t value) {
  AppendKey(out, name);
  *out += std::to_string(value);
}

// Appends `"name": [...]` with one item a line, each indented by `indent`
// blanks and written by `append_item`.
template <typename Item, typename Writer>
void AppendArray(std::string* out, const char* name, const std::vector<Item>& items, size_t indent,
                 Writer append_item) {
  AppendQuoted(out, name);
  *out += items.empty() ? ": [" : ": [\n";
  for (size_t i = 0; i < items.size(); ++i) {
    out->append(indent, ' ');
    append_item(out, items[i]);
    *out += i + 1 < items.size() ? ",\n" : "\n";
  }
  if (!items.empty()) out->append(indent - 2, ' ');
  *out += ']';
}

void AppendClient(std::string* out, const ReportClient& client) {
  *out += '{';
  AppendMember(out, "name", client.name);
  AppendMember(out, "state", client.state);
  AppendMember(out, "session", client.session);
  AppendMember(out, "address", client.address);
  AppendMember(out, "port", client.port);
  *out += '}';
}

// The members that every lock row has; the caller closes the object.
void AppendRowHead(std::string* out, const ReportLock& lock) {
  *out += '{';
  AppendMember(out, "holder", lock.holder);
  AppendMember(out, "clientfid", lock.clientfid);
}

void AppendOpen(std::string* out, const ReportLock& lock) {
  AppendRowHead(out, lock);
  AppendMember(out, "mode", lock.mode);
  *out += '}';
}

void AppendOplock(std::string* out, const ReportLock& lock) {
  AppendRowHead(out, lock);
  AppendMember(out, "type", lock.type);
  *out += '}';
}

void AppendRecordLock(std::string* out, const ReportLock& lock) {
  AppendRowHead(out, lock);
  AppendMember(out, "type", lock.type);
  AppendMember(out, "offset", lock.offset);
  AppendMember(out, "length", lock.length);
  *out += '}';
}

void AppendFile(std::string* out, const ReportFile& file) {
  *out += '{';
  AppendMember(out, "key_hi", file.key_hi);
  AppendMember(out, "key_lo", file.key_lo);
  AppendMember(out, "path", file.path);
  *out += ",\n      ";
  AppendArray(out, "opens", file.opens, 8, AppendOpen);
  *out += ",\n      ";
  AppendArray(out, "oplocks", file.oplocks, 8, AppendOplock);
  *out += ",\n      ";
  AppendArray(out, "record_locks", file.record_locks, 8, AppendRecordLock);
  *out += '}';
}

void AppendStretch(std::string* out, const AmbiguousStretch& stretch) {
  *out += '{';
  AppendMember(out, "first_line", static_cast<uint32_t>(stretch.first_line));
  AppendMember(out, "last_line", static_cast<uint32_t>(stretch.last_line));
  AppendMember(out, "text", stretch.text);
  *out += '}';
}

void AppendTotals(std::string* out, const ReportTotals& totals) {
  *out += "\"totals\": {";
  AppendMember(out, "files", totals.files);
  AppendMember(out, "used", totals.used);
  AppendMember(out, "open_locks", totals.open_locks);
  AppendMember(out, "record_locks", totals.record_locks);
  AppendMember(out, "oplocks", totals.oplocks);
  *out += '}';
}

// Appends one metric: its HELP and TYPE lines and one sample per label set.
void AppendGauge(std::string* out, const char* name, const char* help,
                 std::initializer_list<std::pair<const char*, uint32_t>> samples) {
  *out += "# HELP ";
  *out += name;
  *out += ' ';
  *out += help;
  *out += "\n# TYPE ";
  *out += name;
  *out += " gauge\n";
  for (const auto& [labels, value] : samples) {
    *out += name;
    *out += labels;
    *out += ' ';
    *out += std::to_string(value) + "\n";
  }
}

// A name field: the escaped name padded to 15 characters.
void AppendNameField(std::string* out, const std::string& name) {
  const size_t before = out->size();
  AppendEscaped(out, name);
  if (out->size() - before < 15) out->append(15 - (out->size() - before), ' ');
}

void AppendRows(std::string* out, const char* heading, const std::vector<ReportLock>& rows,
                void (*append_fields)(std::string*, const ReportLock&)) {
  if (rows.empty()) return;
  *out += heading;
  for (const ReportLock& row : rows) {
    *out += "    ";
    AppendNameField(out, row.holder);
    *out += ' ' + std::to_string(row.clientfid) + ' ';
    append_fields(out, row);
    *out += '\n';
  }
}

void AppendFileText(std::string* out, const ReportFile& file) {
  *out += '[' + std::to_string(file.key_hi) + ',' + std::to_string(file.key_lo) + "] ";
  AppendEscaped(out, file.path);
  *out += '\n';
  AppendRows(out, report::kOpenLocksHeading, file.opens,
             [](std::string* o, const ReportLock& row) { *o += row.mode; });
  AppendRows(out, report::kOplocksHeading, file.oplocks,
             [](std::string* o, const ReportLock& row) { *o += std::to_string(row.type); });
  AppendRows(out, report::kRecordLocksHeading, file.record_locks,
             [](std::string* o, const ReportLock& row) {
               *o += std::to_string(row.type) + ' ' + std::to_string(row.offset) + ' ' +
                     std::to_string(row.length);
             });
  *out += '\n';
}

// Each line of the stretch after "? ".
void AppendStretchText(std::string* out, const AmbiguousStretch& stretch) {
  std::string_view rest = stretch.text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    *out += "? ";
    AppendEscaped(out, rest.substr(0, end));
    *out += '\n';
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

constexpr const char* kUpHelp = "Whether the daemon's status report could be read.";

}  // namespace

std::string ReportJson(const StatusReport& report) {
  std::string out = "{";
  AppendMember(&out, "time", report.time);
  AppendMember(&out, "version", report.version);
  out += ",\n  ";
  AppendArray(&out, "clients", report.clients, 4, AppendClient);
  out += ",\n  ";
  AppendArray(&out, "files", report.files, 4, AppendFile);
  if (!report.ambiguous.empty()) {
    out += ",\n  ";
    AppendArray(&out, "ambiguous", report.ambiguous, 4, AppendStretch);
  }
  out += ",\n  ";
  AppendTotals(&out, report.totals);
  out += "}\n";
  return out;
}

std::string ReportText(const StatusReport& report) {
  std::string out =
      report.time + " " + kDaemonName + " " + report.version + "\n\n" + report::kClientSection;
  if (!report.clients.empty()) out += report::kClientHeading;
  for (const ReportClient& client : report.clients) {
    out += report::kIndent;
    AppendNameField(&out, client.name);
    out += ' ';
    out += client.state == "OK" ? report::kStateOk : report::kStateWait;
    out += std::to_string(client.session) + report::kAddressGap + client.address + ':' +
           std::to_string(client.port) + '\n';
  }
  out += report::kFileSection;
  for (size_t i = 0; i <= report.files.size(); ++i) {
    for (const AmbiguousStretch& stretch : report.ambiguous) {
      if (stretch.at == i) AppendStretchText(&out, stretch);
    }
    if (i < report.files.size()) AppendFileText(&out, report.files[i]);
  }
  const ReportTotals& totals = report.totals;
  out += report::kFilesLabel + std::to_string(totals.files) + report::kUsedLabel +
         std::to_string(totals.used) + report::kOpenLocksLabel + std::to_string(totals.open_locks) +
         report::kRecordLocksLabel + std::to_string(totals.record_locks) + report::kOplocksLabel +
         std::to_string(totals.oplocks) + '\n';
  return out;
}

std::string ReportMetrics(const StatusReport& report) {
  uint32_t waiting = 0;
  for (const ReportClient& client : report.clients) waiting += client.state == "WAIT" ? 1 : 0;
  const uint32_t ok = static_cast<uint32_t>(report.clients.size()) - waiting;
  const ReportTotals& totals = report.totals;
  std::string out;
  AppendGauge(&out, "klvlockd_up", kUpHelp, {{"", 1}});
  AppendGauge(&out, "klvlockd_clients", "Client sessions in the client table, by state.",
              {{"{state=\"ok\"}", ok}, {"{state=\"wait\"}", waiting}});
  AppendGauge(&out, "klvlockd_files", "Files in the file table, idle ones included.",
              {{"", totals.files}});
  AppendGauge(&out, "klvlockd_files_used", "Files that hold at least one lock.",
              {{"", totals.used}});
  AppendGauge(&out, "klvlockd_open_locks", "Opens with their share modes, over all files.",
              {{"", totals.open_locks}});
  AppendGauge(&out, "klvlockd_record_locks", "Byte-range locks, over all files.",
              {{"", totals.record_locks}});
  AppendGauge(&out, "klvlockd_oplocks", "Opportunistic locks, over all files.",
              {{"", totals.oplocks}});
  return out;
}

std::string UnreachableMetrics() {
  std::string out;
  AppendGauge(&out, "klvlockd_up", kUpHelp, {{"", 0}});
  return out;
}

}  // namespace klv
