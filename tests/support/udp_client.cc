#include "tests/support/udp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

sockaddr_in Loopback(uint16_t port) { return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}}; }

}  // namespace

UdpClient::UdpClient(uint16_t daemon_port)
    : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), daemon_port_(daemon_port) {
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
}

UdpClient::~UdpClient() { close(fd_); }

bool UdpClient::SendTo(uint16_t port, const std::string& bytes) {
  const sockaddr_in daemon = Loopback(port);
  return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&daemon),
                sizeof daemon) == static_cast<ssize_t>(bytes.size());
}

bool UdpClient::Receive(std::string* datagram, int timeout_ms) {
  pollfd ready = {fd_, POLLIN, 0};
  char buffer[65536];
  const ssize_t received =
      poll(&ready, 1, timeout_ms) == 1 ? recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT) : -1;
  if (received >= 0) datagram->assign(buffer, received);
  return received >= 0;
}

// Bounded: a daemon that did nothing but probe would end the wait after a
// hundred probes.
bool UdpClient::ReceiveAnsweringProbes(std::string* datagram, int timeout_ms) {
  for (int probes = 0; probes < 100 && Receive(datagram, timeout_ms); ++probes) {
    if (datagram->size() != wire::kProbeSize || wire::WordAt(*datagram, 32) != 1) return true;
    Send(datagram->substr(0, 32) + wire::Word(0));
  }
  return false;
}

bool UdpClient::Exchange(const std::string& request, std::string* reply, int timeout_ms) {
  return Send(request) && Receive(reply, timeout_ms);
}

}  // namespace klv
