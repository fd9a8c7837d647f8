#ifndef KLV_FOUNDATION_SOCKET_H_
#define KLV_FOUNDATION_SOCKET_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "foundation/descriptor.h"
#include "foundation/failure.h"
#include "foundation/output_stream.h"

namespace klv {

// An IPv4 socket address: the 16 bytes of a sockaddr_in (family AF_INET in
// host order, port and address in network order, 8 zero bytes) and the
// failure of the last port setting, if any.
class SocketAddress {
 public:
  // Family AF_INET, address 0.0.0.0, port 0.
  SocketAddress();
  // Copies the 16 bytes of `raw` and forces the family to AF_INET.
  explicit SocketAddress(const sockaddr& raw);

  void SetLoopback();  // 127.0.0.1
  // Ports 0 to 65535 are stored; any other stores 0 and answers false.
  bool SetPort(uint32_t port);
  uint16_t Port() const;  // host order
  bool IsAnyAddress() const;

  const sockaddr* Raw() const { return reinterpret_cast<const sockaddr*>(&address_); }
  sockaddr* MutableRaw() { return reinterpret_cast<sockaddr*>(&address_); }
  // The 16 bytes as they stand.
  const unsigned char* Bytes() const { return reinterpret_cast<const unsigned char*>(&address_); }

 private:
  sockaddr_in address_;
};

// The address text: "a.b.c.d" ("*" for 0.0.0.0), ":" and the port in host order.
OutputStream& operator<<(OutputStream& out, const SocketAddress& address);

// A socket. Every operation makes one system call (or a short fixed sequence)
// and records its failure as Descriptor does.
class Socket : public Descriptor {
 public:
  Socket() = default;
  explicit Socket(int fd) : Descriptor(fd) {}

  // Closes an open descriptor first, then socket(AF_INET, type, TCP for
  // SOCK_STREAM and UDP otherwise).
  bool Create(int type);
  // Creates a socket of `type` (SOCK_DGRAM or SOCK_STREAM) and binds it to
  // `address` in one attempt, without SO_REUSEADDR.
  bool BindTo(const SocketAddress& address, int type);
  // connect(2), repeated at once while it fails with EAGAIN.
  bool Connect(const SocketAddress& address);
  bool Listen(unsigned backlog);
  bool GetSockName(SocketAddress* address);
  // Closes an open descriptor first, then accept(listen_fd, null, null),
  // repeated at once while it fails with EAGAIN.
  bool Accept(int listen_fd);
  bool SetRecvBuffer(int size);
  bool SetSendBuffer(int size);
  // The buffer sizes; 4096 when the call fails (nothing recorded).
  int GetRecvBuffer();
  int GetSendBuffer();
  // recvfrom(2) with flags 0. kComplete leaves `count` untouched: the caller
  // takes the length it asked for.
  TransferStatus RecvFrom(void* buffer, size_t length, long* count, SocketAddress* from);
  // sendto(2) with flags 0 and address length 16; `count` as for RecvFrom.
  TransferStatus SendTo(const void* buffer, size_t length, long* count, const SocketAddress& to);

 private:
  // setsockopt of a SOL_SOCKET buffer size, recorded when it fails.
  bool SetBufferSize(int option, const char* option_name, int size);
  // getsockopt of a SOL_SOCKET buffer size; 4096 when it fails.
  int BufferSize(int option);
};

}  // namespace klv

#endif  // KLV_FOUNDATION_SOCKET_H_
