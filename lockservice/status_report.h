#ifndef KLV_LOCKSERVICE_STATUS_REPORT_H_
#define KLV_LOCKSERVICE_STATUS_REPORT_H_

#include <vector>

#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "lockservice/client_table.h"
#include "lockservice/file_entry.h"
#include "lockservice/holder_table.h"

namespace klv {

// The status report in the layout of protocol/report_layout.h: a banner, the
// client table and every file that holds a lock, closed by a line of totals.
// It reads the tables and changes nothing; they must outlive it.
class StatusReport {
 public:
  StatusReport(const ClientTable& clients, const FileTable& files, const HolderTable& holders)
      : clients_(clients), files_(files), holders_(holders) {}

  void Write(OutputStream& out) const;

 private:
  void WriteClientLines(OutputStream& out) const;
  // `holder_names` gives the name of each byte-range lock's holder.
  void WriteFileLines(OutputStream& out, const FileEntry& file,
                      const std::vector<RefString>& holder_names) const;
  // The name of the client holding a lock; empty when it has no entry.
  RefString HolderName(const ClientKey& holder) const;
  // HolderName of every number in the holder table, by number.
  std::vector<RefString> HolderNames() const;

  const ClientTable& clients_;
  const FileTable& files_;
  const HolderTable& holders_;
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_STATUS_REPORT_H_
