#include "tests/support/udp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int MillisecondsLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

}  // namespace

UdpClient::UdpClient(uint16_t daemon_port) : daemon_port_(daemon_port) {
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(fd_);
    fd_ = -1;
    return;
  }
  port_ = ntohs(address.sin_port);
}

UdpClient::~UdpClient() {
  if (fd_ >= 0) close(fd_);
}

bool UdpClient::SendTo(uint16_t port, const std::string& bytes) {
  const sockaddr_in daemon = Loopback(port);
  const ssize_t sent = sendto(fd_, bytes.data(), bytes.size(), 0,
                              reinterpret_cast<const sockaddr*>(&daemon), sizeof daemon);
  return sent == static_cast<ssize_t>(bytes.size());
}

bool UdpClient::Receive(std::string* datagram, int timeout_ms) {
  pollfd ready = {fd_, POLLIN, 0};
  if (poll(&ready, 1, timeout_ms) != 1) return false;
  char buffer[65536];
  const ssize_t received = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
  if (received < 0) return false;
  datagram->assign(buffer, static_cast<size_t>(received));
  return true;
}

bool UdpClient::ReceiveAnsweringProbes(std::string* datagram, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Receive(datagram, MillisecondsLeft(deadline))) {
    const bool is_probe = datagram->size() >= wire::kProbeSize &&
                          wire::WordAt(*datagram, 0) == wire::kProbe &&
                          wire::WordAt(*datagram, 32) == 1;
    if (!is_probe) return true;
    std::string answer = datagram->substr(0, wire::kProbeSize);
    answer.replace(32, 4, wire::Word(0));
    Send(answer);
    ++probes_answered_;
  }
  return false;
}

bool UdpClient::ReceivesNothing(int timeout_ms) {
  std::string datagram;
  return !Receive(&datagram, timeout_ms);
}

bool UdpClient::Exchange(const std::string& request, std::string* reply, int timeout_ms) {
  return Send(request) && Receive(reply, timeout_ms);
}

}  // namespace klv
