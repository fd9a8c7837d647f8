#ifndef KLV_LOCKSERVICE_SERIAL_IDS_H_
#define KLV_LOCKSERVICE_SERIAL_IDS_H_

#include <cstdint>

namespace klv {

// Advances `*last` to the next id that is neither 0 nor taken, and returns
// it. The counter wraps at 2^32, so after four thousand million ids an old
// one that is still in use would come round again: `in_use(id)` tells which
// to pass over. Wait ids and oplock ids come from here.
template <typename InUse>
uint32_t NextFreeId(uint32_t* last, InUse in_use) {
  do {
    ++*last;
  } while (*last == 0 || in_use(*last));
  return *last;
}

}  // namespace klv

#endif  // KLV_LOCKSERVICE_SERIAL_IDS_H_
