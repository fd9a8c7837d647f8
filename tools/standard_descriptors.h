#ifndef KLV_TOOLS_STANDARD_DESCRIPTORS_H_
#define KLV_TOOLS_STANDARD_DESCRIPTORS_H_

#include <fcntl.h>

namespace klv {

// Opens /dev/null on each of descriptors 0 to 2 that is closed, so that no
// socket made later becomes standard input or output by accident.
inline void GuardStandardDescriptors() {
  // open takes the lowest free descriptor, which is `fd` once those below are open.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) open("/dev/null", O_RDWR);
  }
}

}  // namespace klv

#endif  // KLV_TOOLS_STANDARD_DESCRIPTORS_H_
