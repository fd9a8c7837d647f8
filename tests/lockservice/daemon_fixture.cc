#include "tests/lockservice/daemon_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "foundation/output_stream.h"
#include "tests/support/process_tools.h"

namespace klv {

void DaemonTest::SetUp() {
  char pattern[] = "/tmp/klv-lockservice-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  log_directory_ = pattern;
  daemon_ = std::make_unique<LockManagerDaemon>(0, RefString(log_directory_.c_str()));
  SocketAddress address;
  address.SetLoopback();
  address.SetPort(0);
  ASSERT_TRUE(udp_.BindTo(address, SOCK_DGRAM));
  daemon_->SetUdpSocket(&udp_);
}

void DaemonTest::TearDown() {
  daemon_.reset();  // closes the logs
  for (auto& client : clients_) close(client->fd);
  unlink((log_directory_ + "/errlock.log").c_str());
  unlink((log_directory_ + "/journal.log").c_str());
  rmdir(log_directory_.c_str());
}

TestClient& DaemonTest::AddClient() {
  auto client = std::make_unique<TestClient>();
  client->fd = socket(AF_INET, SOCK_DGRAM, 0);
  EXPECT_GE(client->fd, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(client->fd, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
  socklen_t length = sizeof local;
  EXPECT_EQ(getsockname(client->fd, reinterpret_cast<sockaddr*>(&local), &length), 0);
  client->address = SocketAddress(*reinterpret_cast<sockaddr*>(&local));
  clients_.push_back(std::move(client));
  return *clients_.back();
}

void DaemonTest::Send(TestClient& client, const std::string& datagram) {
  daemon_->Dispatch(client.address, reinterpret_cast<const unsigned char*>(datagram.data()),
                    datagram.size());
}

std::string DaemonTest::Receive(TestClient& client) {
  pollfd ready{client.fd, POLLIN, 0};
  if (poll(&ready, 1, kReceiveMs) != 1) return "";
  char buffer[2048];
  const ssize_t count = recv(client.fd, buffer, sizeof buffer, 0);
  return count > 0 ? std::string(buffer, count) : "";
}

std::string DaemonTest::Next(TestClient& client) {
  // Bounded: a daemon that did nothing but probe would end the test here.
  for (int attempt = 0; attempt < 8; ++attempt) {
    std::string datagram = Receive(client);
    const bool is_probe = datagram.size() == wire::kProbeSize &&
                          wire::WordAt(datagram, 0) == wire::kProbe &&
                          wire::WordAt(datagram, 32) == 1;
    if (!is_probe) return datagram;
    ++client.probes_answered;
    Send(client, datagram.substr(0, 32) + wire::Word(0));
  }
  return "";
}

int DaemonTest::AnswerPendingProbes(TestClient& client) {
  int answered = 0;
  while (!Silent(client) && answered < 8) {
    const std::string probe = Receive(client);
    EXPECT_EQ(wire::WordAt(probe, 0), 1000u) << wire::Hex(probe);
    Send(client, probe.substr(0, 32) + wire::Word(0));
    ++answered;
  }
  client.probes_answered += answered;
  return answered;
}

std::string DaemonTest::ClientRow(const std::string& name_field, const char* state,
                                  uint32_t session, const TestClient& client) {
  return "  " + name_field + " " + state + std::to_string(session) +
         "    127.0.0.1:" + std::to_string(client.address.Port()) + "\n";
}

std::string DaemonTest::Exchange(TestClient& client, const std::string& request) {
  Send(client, request);
  return Next(client);
}

bool DaemonTest::Silent(TestClient& client) {
  pollfd ready{client.fd, POLLIN, 0};
  return poll(&ready, 1, kSilenceMs) == 0;
}

std::string DaemonTest::Report() {
  TextBuilder builder;
  daemon_->WriteStatusReport(builder);
  const RefString text = builder.Bytes();
  const std::string report(text.Text(), text.Length());
  return report.substr(report.find('\n') + 1);
}

std::string DaemonTest::Totals() {
  const std::string report = Report();
  const size_t start = report.rfind('\n', report.size() - 2);
  return report.substr(start + 1);
}

std::string DaemonTest::ErrorLog() {
  return process_tools::ReadFileFrom(log_directory_ + "/errlock.log", 0);
}

}  // namespace klv
