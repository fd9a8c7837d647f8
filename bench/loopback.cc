#include "bench/loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace klv::bench {

int ConnectLoopback(int type, uint16_t port) {
  const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace klv::bench
