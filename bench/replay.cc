// klv_replay: sends one pseudo-random but repeatable mix of every request to
// a running daemon from several client sockets and prints everything the
// clients receive and a status report now and then, with the clients' ports
// replaced by their numbers and the report's time stamp line dropped. Two
// builds of the daemon that behave alike print the same text:
//
//   klv_replay UDP_PORT STATUS_PORT [SEED] [REQUESTS] [OFFSETS] [FILES] > run.txt
//
// Ranges start below OFFSETS (default 200); a large value leaves many ranges
// held on each file, and so does a small number of FILES (default 12).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench/loopback.h"
#include "bench/report_reader.h"
#include "tests/support/wire_bytes.h"

namespace klv::bench {

namespace {

constexpr int kClients = 5;
constexpr int kReplyWaitMs = 500;
const char* const kNames[] = {"PC1", "", "exactly15chars_", "a name of twenty chars", "PC\xe9"};
const char* const kPaths[] = {"", "/share/a", "/share/b c", "/x"};
const uint32_t kModes[] = {0x00, 0x40, 0x42, 0x31, 0x20, 0x10, 0x03, 0x0F, 0x70, 0x07, 0x41};

class Replay {
 public:
  Replay(uint16_t port, uint16_t status_port, uint32_t seed, uint32_t offsets, uint32_t files)
      : status_port_(status_port), offsets_(offsets), files_(files), random_(seed) {
    for (int index = 0; index < kClients; ++index) {
      fds_.push_back(ConnectLoopback(SOCK_DGRAM, port));
      sockaddr_in address = {};
      socklen_t length = sizeof address;
      getsockname(fds_.back(), reinterpret_cast<sockaddr*>(&address), &length);
      ports_.push_back(std::to_string(ntohs(address.sin_port)));
    }
  }

  void Run(int requests) {
    for (int number = 1; number <= requests; ++number) {
      Step(number);
      if (number % 250 == 0) PrintReport();
    }
    PrintReport();
  }

 private:
  uint32_t Pick(uint32_t count) { return static_cast<uint32_t>(random_() % count); }

  void Step(uint32_t tag) {
    const int client = static_cast<int>(Pick(kClients));
    wire::RequestHead head = {.tag = tag,
                              .session = 1 + Pick(2),
                              .clientfid = 1 + Pick(4),
                              .filekey_hi = Pick(2),
                              .filekey_lo = Pick((files_ + 1) / 2)};
    std::string request;
    const uint32_t kind = Pick(100);
    if (kind < 25) {
      if (Pick(4) == 0 && !wait_ids_.empty()) head.waitid = wait_ids_[Pick(wait_ids_.size())];
      request = wire::OpenBytes(head, kModes[Pick(std::size(kModes))], Pick(2), kNames[Pick(5)],
                                kPaths[Pick(4)]);
    } else if (kind < 55) {
      const uint32_t offset = Pick(8) == 0 ? 0xFFFFFFF0u : Pick(offsets_);
      const uint32_t length = Pick(60);
      const uint32_t locktypes[] = {0, 1, 3, 0, 1, 4};
      request = wire::LockBytes(head, offset, length, locktypes[Pick(6)]);
      ranges_.push_back({offset, length});
    } else if (kind < 75) {
      // Mostly a range locked before, by whichever client.
      Range range = {Pick(8) == 0 ? 0xFFFFFFF0u : Pick(offsets_), Pick(60)};
      if (Pick(4) != 0 && !ranges_.empty()) range = ranges_[Pick(ranges_.size())];
      request = wire::UnlockBytes(head, range.offset, range.length);
    } else if (kind < 85) {
      request = wire::BareBytes(wire::kClose, head);
    } else if (kind < 92) {
      request = wire::BareBytes(wire::kOplockRelease, head);
    } else if (kind < 94) {
      request = wire::BareBytes(wire::kClientEnd, head);
    } else if (kind < 96) {
      // An answer form gets no reply: a no-op behind it ends the wait.
      const uint32_t wantreply = Pick(2);
      request = wire::ProbeBytes(head, wire::kVersion, wantreply);
      if (wantreply == 0) request_after_ = wire::BareBytes(wire::kNoop, head);
    } else {
      const uint32_t codes[] = {wire::kNoop, wire::kText, 77};
      request = wire::BareBytes(codes[Pick(3)], head);
    }
    printf("> c%d %s\n", client, wire::Hex(request).c_str());
    send(fds_[client], request.data(), request.size(), 0);
    if (!request_after_.empty())
      send(fds_[client], request_after_.data(), request_after_.size(), 0);
    request_after_.clear();
    Collect(client, tag);
  }

  // Everything the request brought: its reply (or a short wait when none
  // comes) and what reached the other clients meanwhile.
  void Collect(int client, uint32_t tag) {
    pollfd ready = {fds_[client], POLLIN, 0};
    while (poll(&ready, 1, kReplyWaitMs) == 1) {
      if (Receive(client) == tag) break;
    }
    for (int other = 0; other < kClients; ++other) {
      pollfd waiting = {fds_[other], POLLIN, 0};
      while (poll(&waiting, 1, 0) == 1) Receive(other);
    }
  }

  // Prints one datagram; answers a probe at once. Returns the tag.
  uint32_t Receive(int client) {
    char data[2048];
    const ssize_t size = recv(fds_[client], data, sizeof data, 0);
    if (size <= 0) return 0;
    const std::string datagram(data, static_cast<size_t>(size));
    printf("< c%d %s\n", client, wire::Hex(datagram).c_str());
    const uint32_t code = wire::WordAt(datagram, 0);
    if (code == 1 && wire::WordAt(datagram, 8) == wire::kWait) {
      wait_ids_.push_back(wire::WordAt(datagram, 12));
    }
    if (code == wire::kProbe && wire::WordAt(datagram, 32) == 1) {
      std::string answer = datagram;
      answer.replace(32, 4, wire::Word(0));
      send(fds_[client], answer.data(), answer.size(), 0);
    }
    return wire::WordAt(datagram, 4);
  }

  void PrintReport() {
    std::string report;
    ReadReport(status_port_, &report);
    report.erase(0, report.find('\n') + 1);  // the time stamp
    for (int index = 0; index < kClients; ++index) {
      const std::string port = ":" + ports_[index] + "\n";
      for (size_t at = report.find(port); at != std::string::npos; at = report.find(port, at)) {
        report.replace(at, port.size(), ":c" + std::to_string(index) + "\n");
      }
    }
    printf("report\n%s", report.c_str());
  }

  struct Range {
    uint32_t offset;
    uint32_t length;
  };

  uint16_t status_port_;
  uint32_t offsets_;
  uint32_t files_;
  std::mt19937 random_;
  std::vector<int> fds_;
  std::vector<std::string> ports_;
  std::vector<uint32_t> wait_ids_;
  std::string request_after_;
  std::vector<Range> ranges_;
};

}  // namespace

}  // namespace klv::bench

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "Usage: klv_replay UDP_PORT STATUS_PORT [SEED] [REQUESTS]\n");
    return 2;
  }
  klv::bench::Replay replay(static_cast<uint16_t>(atoi(argv[1])),
                            static_cast<uint16_t>(atoi(argv[2])),
                            argc > 3 ? static_cast<uint32_t>(atoi(argv[3])) : 1,
                            argc > 5 ? static_cast<uint32_t>(atoi(argv[5])) : 200,
                            argc > 6 ? static_cast<uint32_t>(atoi(argv[6])) : 12);
  replay.Run(argc > 4 ? atoi(argv[4]) : 3000);
  return 0;
}
