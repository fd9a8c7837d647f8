#include "foundation/socket.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace klv {

namespace {

constexpr socklen_t kAddressLength = sizeof(sockaddr_in);  // 16
constexpr uint32_t kPortLimit = 65536;
// Answered by GetRecvBuffer and GetSendBuffer when the question fails.
constexpr int kDefaultBufferSize = 4096;

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

// "fd,SOL_SOCKET(1),SO_RCVBUF(8),(char*)(int size),4": level and option are
// written as the numbers the platform gives them.
TextBuffer OptionArguments(int fd, const char* option_name, int option, int value) {
  TextBuilder arguments;
  arguments << fd << ",SOL_SOCKET(" << SOL_SOCKET << ")," << option_name << "(" << option
            << "),(char*)(int " << static_cast<unsigned>(value) << ")," << unsigned{sizeof(int)};
  return arguments.Text();
}

}  // namespace

SocketAddress::SocketAddress() {
  std::memset(&address_, 0, sizeof address_);
  address_.sin_family = AF_INET;
}

SocketAddress::SocketAddress(const sockaddr& raw) {
  static_assert(sizeof(sockaddr) == sizeof(sockaddr_in));
  std::memcpy(&address_, &raw, sizeof address_);
  address_.sin_family = AF_INET;
}

void SocketAddress::SetLoopback() {
  address_.sin_family = AF_INET;
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

bool SocketAddress::SetPort(uint32_t port) {
  if (port < kPortLimit) {
    address_.sin_port = htons(static_cast<uint16_t>(port));
    return true;
  }
  address_.sin_port = 0;
  return false;
}

uint16_t SocketAddress::Port() const { return ntohs(address_.sin_port); }

bool SocketAddress::IsAnyAddress() const { return address_.sin_addr.s_addr == htonl(INADDR_ANY); }

OutputStream& operator<<(OutputStream& out, const SocketAddress& address) {
  if (address.IsAnyAddress()) {
    out << "*";
  } else {
    // The address bytes stand in network order: most significant first.
    const unsigned char* host = address.Bytes() + offsetof(sockaddr_in, sin_addr);
    char text[32];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", host[0], host[1], host[2], host[3]);
    out << text;
  }
  return out << ":" << unsigned{address.Port()};
}

bool Socket::Create(int type) {
  if (fd_ >= 0) Close();
  fd_ = socket(AF_INET, type, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP);
  if (fd_ >= 0) return true;
  const int error = errno;
  TextBuilder arguments;
  arguments << type;
  RecordFailure(error, "socket", arguments.Text());
  return false;
}

bool Socket::BindTo(const SocketAddress& address, int type) {
  if (!Create(type)) return false;
  if (bind(fd_, address.Raw(), kAddressLength) == 0) return true;
  const int error = errno;
  TextBuilder arguments;
  arguments << fd_ << "," << address;
  RecordFailure(error, "bind", arguments.Text());
  return false;
}

bool Socket::Connect(const SocketAddress& address) {
  int result;
  do {
    result = connect(fd_, address.Raw(), kAddressLength);
  } while (result < 0 && WouldBlock(errno));
  if (result == 0) return true;
  const int error = errno;
  TextBuilder arguments;
  arguments << fd_ << "," << address;
  RecordFailure(error, "connect", arguments.Text());
  return false;
}

bool Socket::Listen(unsigned backlog) {
  if (listen(fd_, static_cast<int>(backlog)) == 0) return true;
  const int error = errno;
  TextBuilder arguments;
  arguments << fd_ << "," << backlog;
  RecordFailure(error, "listen", arguments.Text());
  return false;
}

bool Socket::GetSockName(SocketAddress* address) {
  sockaddr_in name;
  socklen_t length = kAddressLength;
  if (getsockname(fd_, reinterpret_cast<sockaddr*>(&name), &length) == 0) {
    *address = SocketAddress(*reinterpret_cast<const sockaddr*>(&name));
    return true;
  }
  const int error = errno;
  TextBuilder arguments;
  arguments << fd_ << ",<address>," << unsigned{length};
  RecordFailure(error, "getsockname", arguments.Text());
  return false;
}

bool Socket::Accept(int listen_fd) {
  if (fd_ >= 0) Close();
  do {
    fd_ = accept(listen_fd, nullptr, nullptr);
  } while (fd_ < 0 && WouldBlock(errno));
  if (fd_ >= 0) return true;
  const int error = errno;
  TextBuilder arguments;
  arguments << listen_fd << ",0,0";
  RecordFailure(error, "accept", arguments.Text());
  return false;
}

bool Socket::SetRecvBuffer(int size) { return SetBufferSize(SO_RCVBUF, "SO_RCVBUF", size); }

bool Socket::SetSendBuffer(int size) { return SetBufferSize(SO_SNDBUF, "SO_SNDBUF", size); }

int Socket::GetRecvBuffer() { return BufferSize(SO_RCVBUF); }

int Socket::GetSendBuffer() { return BufferSize(SO_SNDBUF); }

bool Socket::SetBufferSize(int option, const char* option_name, int size) {
  if (setsockopt(fd_, SOL_SOCKET, option, &size, sizeof size) == 0) return true;
  const int error = errno;
  RecordFailure(error, "setsockopt", OptionArguments(fd_, option_name, option, size));
  return false;
}

int Socket::BufferSize(int option) {
  int size = 0;
  socklen_t length = sizeof size;
  if (getsockopt(fd_, SOL_SOCKET, option, &size, &length) < 0) return kDefaultBufferSize;
  return size;
}

TransferStatus Socket::RecvFrom(void* buffer, size_t length, long* count, SocketAddress* from) {
  socklen_t from_length = kAddressLength;
  const long result = recvfrom(fd_, buffer, length, 0, from->MutableRaw(), &from_length);
  const int error = errno;
  const TransferStatus status = StatusOf(result, length, error, count);
  if (status == TransferStatus::kFailed) {
    TextBuilder arguments;
    arguments << fd_ << ",<address>," << static_cast<long>(length) << ",0,struct sockaddr_in*,int*("
              << unsigned{from_length} << ")";
    RecordFailure(error, "recvfrom", arguments.Text());
  }
  return status;
}

TransferStatus Socket::SendTo(const void* buffer, size_t length, long* count,
                              const SocketAddress& to) {
  const long result = sendto(fd_, buffer, length, 0, to.Raw(), kAddressLength);
  const int error = errno;
  const TransferStatus status = StatusOf(result, length, error, count);
  if (status == TransferStatus::kFailed) {
    TextBuilder arguments;
    arguments << fd_ << ",<address>," << static_cast<long>(length) << "," << to << ","
              << unsigned{kAddressLength};
    RecordFailure(error, "sendto", arguments.Text());
  }
  return status;
}

}  // namespace klv
