#include "lockservice/share_modes.h"

#include "protocol/report_layout.h"

namespace klv {

namespace {

// Whether two opens may coexist: row = index of the open already held,
// column = index of the new open. Kept cell for cell as the file server's sharing rules give it,
// not derived from a rule. Rows and columns in index order: read, write, read-write, each with
// DENY_MSDOS (M), DENY_NONE (N), DENY_READ (DR), DENY_WRITE (DW), DENY_READWRITE (DRW).
constexpr bool kShareTable[kShareModes][kShareModes] = {
    // Columns: R M, R N, R DR, R DW, R DRW, W M ... W DRW, RW M ... RW DRW.
    {1, 1, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},  // R M
    {1, 1, 0, 1, 0, 1, 1, 0, 1, 0, 1, 1, 0, 1, 0},  // R N
    {0, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0},  // R DR
    {1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // R DW
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // R DRW
    {1, 1, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},  // W M
    {0, 1, 1, 0, 0, 0, 1, 1, 0, 0, 0, 1, 1, 0, 0},  // W N
    {0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0},  // W DR
    {0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // W DW
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // W DRW
    {1, 1, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},  // RW M
    {0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0},  // RW N
    {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0},  // RW DR
    {0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // RW DW
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // RW DRW
};

}  // namespace

bool ShareModesAgree(const OpenLock& new_open, const OpenLock& held) {
  return kShareTable[ShareIndex(held.openmode)][ShareIndex(new_open.openmode)];
}

bool ShareClassesAgree(int held_class, int new_class) { return kShareTable[held_class][new_class]; }

bool AgreesWithOpens(const FileEntry& file, const OpenLock& candidate) {
  for (uint32_t slot = 0; slot < file.opens.Count(); ++slot) {
    if (!ShareModesAgree(candidate, file.opens[slot])) return false;
  }
  return true;
}

void WriteOpenMode(OutputStream& out, uint32_t openmode) {
  const uint32_t access = openmode & kAccessBits;
  const uint32_t deny = openmode & kDenyBits;
  const char* access_text = report::AccessText(access);
  if (access_text != nullptr) {
    out << access_text;
  } else {
    out << access << report::kUnnamedAccess;
  }
  const char* deny_text = report::DenyText(deny);
  if (deny_text != nullptr) {
    out << deny_text;
  } else {
    out << deny << report::kUnnamedDeny;
  }
}

}  // namespace klv
