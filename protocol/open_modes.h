#ifndef KLV_PROTOCOL_OPEN_MODES_H_
#define KLV_PROTOCOL_OPEN_MODES_H_

// The open-mode word of REQ_OPEN: access in bits 0-3, deny in bits 4-6; the
// higher bits are ignored. Every access and deny value falls into one share
// class; the daemon decides an open by the classes alone.

#include <cstdint>

namespace klv {

constexpr uint32_t kAccessBits = 0x0F;
constexpr uint32_t kDenyBits = 0x70;

// One enum, so that an access and a deny value combine with "|".
enum OpenModeBits : uint32_t {
  // Access.
  OPEN_READ = 0,
  OPEN_WRITE = 1,
  OPEN_READWRITE = 2,
  OPEN_EXECUTE = 3,  // shares like OPEN_READ, as do the unnamed values 4 to 14
  OPEN_MSDOS = 15,   // shares like OPEN_READWRITE
  // Deny.
  DENY_MSDOS = 0x00,  // compatibility mode
  DENY_READWRITE = 0x10,
  DENY_WRITE = 0x20,
  DENY_READ = 0x30,
  DENY_NONE = 0x40,  // so do the unnamed values 0x50, 0x60 and 0x70
};

// The share classes, numbered so that access class + deny class is the
// index of a mode in the share table, 0 to 14.
constexpr int kReadAccess = 0;
constexpr int kWriteAccess = 5;
constexpr int kReadWriteAccess = 10;
constexpr int kDenyMsdos = 0;  // compatibility mode
constexpr int kDenyNone = 1;
constexpr int kDenyRead = 2;
constexpr int kDenyWrite = 3;
constexpr int kDenyAll = 4;
constexpr int kShareModes = 15;

constexpr int AccessClassOf(uint32_t openmode) {
  switch (openmode & kAccessBits) {
    case OPEN_WRITE:
      return kWriteAccess;
    case OPEN_READWRITE:
    case OPEN_MSDOS:
      return kReadWriteAccess;
    default:
      return kReadAccess;
  }
}

constexpr int DenyClassOf(uint32_t openmode) {
  switch (openmode & kDenyBits) {
    case DENY_MSDOS:
      return kDenyMsdos;
    case DENY_READ:
      return kDenyRead;
    case DENY_WRITE:
      return kDenyWrite;
    case DENY_READWRITE:
      return kDenyAll;
    default:
      return kDenyNone;
  }
}

// The mode's row and column in the share table.
constexpr int ShareIndex(uint32_t openmode) {
  return AccessClassOf(openmode) + DenyClassOf(openmode);
}

}  // namespace klv

#endif  // KLV_PROTOCOL_OPEN_MODES_H_
