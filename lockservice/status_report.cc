#include "lockservice/status_report.h"

#include "foundation/time_stamp.h"
#include "lockservice/share_modes.h"
#include "protocol/report_layout.h"
#include "protocol/version.h"

namespace klv {

namespace {

// Sums over the files that hold at least one lock.
struct ReportTotals {
  unsigned files_used = 0;
  unsigned open_locks = 0;
  unsigned record_locks = 0;
  unsigned oplocks = 0;
};

const char* StateText(ClientState state) {
  return state == ClientState::kOk ? report::kStateOk : report::kStateWait;
}

}  // namespace

void StatusReport::Write(OutputStream& out) const {
  FormatTimeStamp(out, TimeStamp::Now());
  out << " " << kDaemonName << " " << kFullVersion << "\n\n";
  out << report::kClientSection;
  WriteClientLines(out);
  out << report::kFileSection;
  ReportTotals totals;
  const std::vector<RefString> holder_names = HolderNames();
  for (HashSetIterator<FileEntry, FileTraits> it(files_); it.Advance();) {
    const FileEntry& file = *it.Current();
    if (file.IsIdle()) continue;
    ++totals.files_used;
    totals.open_locks += file.opens.Count();
    totals.record_locks += file.ranges.Count();
    totals.oplocks += file.oplocks.Count();
    WriteFileLines(out, file, holder_names);
  }
  out << report::kFilesLabel << files_.Size() << report::kUsedLabel << totals.files_used
      << report::kOpenLocksLabel << totals.open_locks << report::kRecordLocksLabel
      << totals.record_locks << report::kOplocksLabel << totals.oplocks << "\n";
}

void StatusReport::WriteClientLines(OutputStream& out) const {
  if (clients_.Size() == 0) return;
  out << report::kClientHeading;
  for (HashSetIterator<ClientEntry, ClientTraits> it(clients_); it.Advance();) {
    const ClientEntry& client = *it.Current();
    out << report::kIndent;
    WriteNameField(out, client.name);
    out << " " << StateText(client.state) << client.session_id << report::kAddressGap
        << client.Key().Address() << "\n";
  }
}

void StatusReport::WriteFileLines(OutputStream& out, const FileEntry& file,
                                  const std::vector<RefString>& holder_names) const {
  out << "[" << file.key.hi << "," << file.key.lo << "] " << file.path << "\n";
  if (!file.opens.IsEmpty()) out << report::kOpenLocksHeading;
  for (uint32_t slot = 0; slot < file.opens.Count(); ++slot) {
    const OpenLock& open = file.opens[slot];
    out << report::kRowIndent;
    WriteNameField(out, HolderName(open.client));
    out << " " << open.clientfid << " ";
    WriteOpenMode(out, open.openmode);
    out << "\n";
  }
  if (!file.oplocks.IsEmpty()) out << report::kOplocksHeading;
  for (uint32_t slot = 0; slot < file.oplocks.Count(); ++slot) {
    const OpLock& oplock = file.oplocks[slot];
    out << report::kRowIndent;
    WriteNameField(out, HolderName(oplock.client));
    out << " " << oplock.clientfid << " " << oplock.type << "\n";
  }
  if (!file.ranges.IsEmpty()) out << report::kRecordLocksHeading;
  file.ranges.ForEach([&](const RecordLock& range) {
    out << report::kRowIndent;
    WriteNameField(out, holder_names[range.holder]);
    out << " " << range.clientfid << " " << unsigned{range.shared} << " " << range.offset << " "
        << range.length << "\n";
  });
  out << "\n";
}

RefString StatusReport::HolderName(const ClientKey& holder) const {
  const ClientEntry* client = clients_.Find(holder);
  return client == nullptr ? RefString() : client->name;
}

std::vector<RefString> StatusReport::HolderNames() const {
  std::vector<RefString> names(holders_.End());
  for (uint32_t id = 0; id < holders_.End(); ++id) names[id] = HolderName(holders_.KeyOf(id));
  return names;
}

}  // namespace klv
