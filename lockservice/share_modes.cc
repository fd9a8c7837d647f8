#include "lockservice/share_modes.h"

namespace klv {

namespace {

// Number of compatibility indexes: three access classes times five deny classes.
constexpr int kShareModes = 15;

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

int AccessClass(uint32_t openmode) {
  switch (openmode & kAccessBits) {
    case OPEN_WRITE:
      return 5;
    case OPEN_READWRITE:
    case OPEN_MSDOS:
      return 10;
    default:
      return 0;
  }
}

int DenyClass(uint32_t openmode) {
  switch (openmode & kDenyBits) {
    case DENY_MSDOS:
      return 0;
    case DENY_READ:
      return 2;
    case DENY_WRITE:
      return 3;
    case DENY_READWRITE:
      return 4;
    default:
      return 1;
  }
}

const char* AccessText(uint32_t access) {
  switch (access) {
    case OPEN_READ:
      return "OPEN_READ|";
    case OPEN_WRITE:
      return "OPEN_WRITE|";
    case OPEN_READWRITE:
      return "OPEN_READWRITE|";
    case OPEN_EXECUTE:
      return "OPEN_EXECUTE(=READ)|";
    case OPEN_MSDOS:
      return "OPEN_MSDOS(=READWRITE)|";
    default:
      return nullptr;
  }
}

const char* DenyText(uint32_t deny) {
  switch (deny) {
    case DENY_MSDOS:
      return "DENY_MSDOS";
    case DENY_READWRITE:
      return "DENY_READWRITE";
    case DENY_WRITE:
      return "DENY_WRITE";
    case DENY_READ:
      return "DENY_READ";
    case DENY_NONE:
      return "DENY_NONE";
    default:
      return nullptr;
  }
}

int CompatibilityIndex(uint32_t openmode) { return AccessClass(openmode) + DenyClass(openmode); }

}  // namespace

bool ShareModesAgree(const OpenLock& new_open, const OpenLock& held) {
  return kShareTable[CompatibilityIndex(held.openmode)][CompatibilityIndex(new_open.openmode)];
}

void WriteOpenMode(OutputStream& out, uint32_t openmode) {
  const uint32_t access = openmode & kAccessBits;
  const uint32_t deny = openmode & kDenyBits;
  const char* access_text = AccessText(access);
  if (access_text != nullptr) {
    out << access_text;
  } else {
    out << access << "(=READ)";
  }
  const char* deny_text = DenyText(deny);
  if (deny_text != nullptr) {
    out << deny_text;
  } else {
    out << deny << "(=DENY_NONE)";
  }
}

}  // namespace klv
