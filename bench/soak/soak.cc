// Soak of the running daemon: hundreds of sessions, each on a UDP socket of
// its own on 127.0.0.1, send random opens, locks, unlocks, closes, oplock
// releases and client ends for a bounded time, answer probes, give oplocks
// back when asked and retry the opens that waited. Checks that every request
// is answered, that no two sessions ever hold conflicting grants, that the
// status report's totals match the sessions' models at the end, and that the
// daemon's resident memory stays flat once the working set is steady.
//
//   soak [--seconds N] [--clients N] [--files N]
//   soak --identities N   memory held for N client entries (new session ids)
//
// Prints its figures; exits 0 when every check held.
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench/soak/soak_client.h"
#include "lockservice/file_entry.h"
#include "lockservice/share_modes.h"
#include "protocol/report_layout.h"
#include "tests/support/daemon_process.h"
#include "tests/support/wire_bytes.h"

namespace klv::soak {

namespace {

constexpr int kMostInFlight = 64;  // the daemon's receive buffer holds a few hundred
constexpr auto kReplyWait = std::chrono::seconds(2);
constexpr auto kDrainTime = std::chrono::seconds(10);

struct Options {
  int seconds = 5;
  uint32_t clients = 300;
  uint32_t files = 200;
  uint32_t identities = 0;
};

// The resident size of `pid` in kB, from /proc.
long ResidentKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// InErrors and RcvbufErrors of the kernel's UDP counters: every datagram
// that a full or failing receiver dropped on this machine.
long UdpReceiveErrors() {
  std::ifstream snmp("/proc/net/snmp");
  std::vector<std::string> names, values;
  for (std::string line; std::getline(snmp, line);) {
    if (line.rfind("Udp: ", 0) != 0) continue;
    std::istringstream fields(line);
    std::vector<std::string>& row = names.empty() ? names : values;
    for (std::string field; fields >> field;) row.push_back(field);
  }
  long errors = 0;
  for (size_t i = 0; i < names.size() && i < values.size(); ++i) {
    if (names[i] == "InErrors" || names[i] == "RcvbufErrors")
      errors += std::atol(values[i].c_str());
  }
  return errors;
}

class Soak {
 public:
  Soak(DaemonProcess* daemon, const Options& options) : daemon_(daemon), options_(options) {
    for (uint32_t i = 0; i < options.clients; ++i) {
      clients_.push_back(
          std::make_unique<SoakClient>(daemon->UdpPort(), 1000 + i, options.files, i));
    }
  }

  bool Run();

 private:
  void Pass(bool random_work);
  void Handle(SoakClient* client, const std::string& datagram);
  void CheckGrant(const Request& request, uint32_t oplock_granted);
  void Violation(const std::string& what);
  bool CompareTotals();
  bool Quiet() const;

  DaemonProcess* daemon_;
  Options options_;
  std::vector<std::unique_ptr<SoakClient>> clients_;
  std::vector<pollfd> polled_;
  int in_flight_ = 0;
  long sent_ = 0, answered_ = 0, lost_ = 0, violations_ = 0;
};

bool Soak::Run() {
  for (auto& client : clients_) polled_.push_back({client->Udp().Fd(), POLLIN, 0});
  const long errors_before = UdpReceiveErrors();
  const auto start = Clock::now();
  const auto end = start + std::chrono::seconds(options_.seconds);
  std::vector<long> resident;
  auto next_sample = start;
  while (Clock::now() < end) {
    Pass(true);
    if (Clock::now() >= next_sample) {
      resident.push_back(ResidentKb(daemon_->Pid()));
      next_sample += std::chrono::seconds(1);
    }
  }
  while (!Quiet() && Clock::now() < end + kDrainTime) Pass(false);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long udp_errors = UdpReceiveErrors() - errors_before;

  printf("soak: %u sessions, %u files, %.0f s: %ld requests (%.0f/s), %ld answered, %ld lost\n",
         options_.clients, options_.files, seconds, sent_, sent_ / seconds, answered_, lost_);
  printf("soak: conflicting grants or unexpected answers: %ld\n", violations_);
  printf("soak: UDP receive errors on this machine meanwhile: %ld%s\n", udp_errors,
         udp_errors > 0 && lost_ == 0 ? " (none of ours was lost: other processes)" : "");
  bool flat = true;
  if (resident.size() >= 6) {  // the first third warms up
    const size_t third = resident.size() / 3;
    const long steady = *std::max_element(resident.begin() + third, resident.begin() + 2 * third);
    const long last = *std::max_element(resident.begin() + 2 * third, resident.end());
    printf("soak: VmRSS kB: first %ld, steady %ld, last third %ld\n", resident.front(), steady,
           last);
    flat = last <= steady + steady / 10 + 256;
  }
  const bool totals = CompareTotals();
  const bool passed = lost_ == 0 && violations_ == 0 && totals && flat && sent_ > 0;
  printf("soak: %s\n", passed ? "PASS" : "FAIL");
  return passed;
}

// Sends what is due while the daemon has room, then takes what arrived.
void Soak::Pass(bool random_work) {
  for (auto& client : clients_) {
    if (in_flight_ >= kMostInFlight) break;
    if (client->SendNext(random_work)) ++in_flight_, ++sent_;
  }
  if (poll(polled_.data(), polled_.size(), 5) > 0) {
    for (size_t i = 0; i < polled_.size(); ++i) {
      if ((polled_[i].revents & POLLIN) == 0) continue;
      std::string datagram;
      while (clients_[i]->Udp().Receive(&datagram, 0)) Handle(clients_[i].get(), datagram);
    }
  }
  const auto overdue = Clock::now() - kReplyWait;
  for (auto& client : clients_) {
    if (!client->Busy() || client->Outstanding().sent > overdue) continue;
    client->Abandon();
    --in_flight_;
    ++lost_;
  }
}

void Soak::Handle(SoakClient* client, const std::string& datagram) {
  uint32_t status = 0;
  uint32_t oplock_granted = 0;
  const Request* request = client->Take(datagram, &status, &oplock_granted);
  if (request == nullptr) return;
  --in_flight_;
  ++answered_;
  const bool may_refuse = request->kind == Kind::kOpen || request->kind == Kind::kLock;
  const bool may_wait = request->kind == Kind::kOpen;
  if (status == wire::kDone) {
    CheckGrant(*request, oplock_granted);
    client->Grant(*request, oplock_granted);
  } else if (!(may_refuse && status == wire::kConflict) && !(may_wait && status == wire::kWait)) {
    Violation("request kind " + std::to_string(static_cast<int>(request->kind)) + " answered " +
              std::to_string(status));
  }
}

// Whatever the models hold the daemon held at once; a grant must agree with
// all of it, and an oplock goes only to an open that found the file unopened.
void Soak::CheckGrant(const Request& request, uint32_t oplock_granted) {
  const OpenLock open{{}, request.mode, request.fid};
  const RecordLock range{.offset = request.offset,
                         .length = request.length,
                         .clientfid = request.fid,
                         .shared = request.shared};
  for (const auto& other : clients_) {
    for (const HeldOpen& held : other->Opens()) {
      if (request.kind != Kind::kOpen || held.file != request.file) continue;
      if (!ShareModesAgree(open, OpenLock{{}, held.mode, held.fid})) Violation("share conflict");
      if (oplock_granted == 1) Violation("oplock granted on an open file");
    }
    for (const HeldRange& held : other->Ranges()) {
      if (request.kind != Kind::kLock || held.file != request.file) continue;
      const RecordLock other_range{
          .offset = held.offset, .length = held.length, .clientfid = held.fid, .shared = held.shared};
      if (RangesConflict(range, other_range)) {
        Violation("range conflict");
      }
    }
  }
}

void Soak::Violation(const std::string& what) {
  if (violations_++ < 10) printf("soak: violation: %s\n", what.c_str());
}

bool Soak::Quiet() const {
  for (const auto& client : clients_) {
    if (client->Busy() || client->HasDueWork()) return false;
  }
  return true;
}

// The report's last line against the sum of the models.
bool Soak::CompareTotals() {
  size_t opens = 0, ranges = 0, oplocks = 0;
  for (const auto& client : clients_) {
    opens += client->Opens().size();
    ranges += client->Ranges().size();
    oplocks += client->Oplocks().size();
  }
  std::string report;
  if (!daemon_->ReadStatusReport(&report)) return false;
  const std::string totals = report.substr(report.rfind(klv::report::kFilesLabel) + 1);
  char expected[128];
  snprintf(expected, sizeof expected, "OpenLocks: %zu RecordLocks: %zu OpLocks: %zu\n", opens,
           ranges, oplocks);
  printf("soak: report %s", totals.c_str());
  printf("soak: model  %s", expected);
  return totals.ends_with(expected);
}

// Opens and closes a file under `count` new session ids, so that each leaves
// an empty client entry, and reports what the daemon's resident size grew by.
int MeasureIdentities(DaemonProcess* daemon, uint32_t count) {
  UdpClient client(daemon->UdpPort());
  const long before = ResidentKb(daemon->Pid());
  std::string reply;
  long lost = 0;
  for (uint32_t session = 1; session <= count; session += 50) {
    for (uint32_t s = session; s < session + 50; ++s) {
      char name[16];
      snprintf(name, sizeof name, "PC-%09u", s);  // 12 bytes, a typical machine name
      client.Send(wire::OpenBytes({.session = s, .clientfid = 1}, 0x40, 0, name, "/f"));
      client.Send(wire::BareBytes(wire::kClose, {.session = s, .clientfid = 1}));
    }
    for (int i = 0; i < 100; ++i) lost += client.Receive(&reply) ? 0 : 1;
  }
  const long after = ResidentKb(daemon->Pid());
  const double per_entry = (after - before) * 1024.0 / count;
  printf(
      "identities: %u client entries, VmRSS %ld -> %ld kB, %.0f bytes each, "
      "a million: %.0f MB; %ld replies lost\n",
      count, before, after, per_entry, per_entry * 1e6 / (1024 * 1024), lost);
  return lost == 0 ? 0 : 1;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const long value = std::atol(argv[i + 1]);
    if (strcmp(argv[i], "--seconds") == 0)
      options->seconds = static_cast<int>(value);
    else if (strcmp(argv[i], "--clients") == 0)
      options->clients = static_cast<uint32_t>(value);
    else if (strcmp(argv[i], "--files") == 0)
      options->files = static_cast<uint32_t>(value);
    else if (strcmp(argv[i], "--identities") == 0)
      options->identities = static_cast<uint32_t>(value);
    else
      return false;
  }
  return argc % 2 == 1 && options->clients > 0 && options->files > 0;
}

}  // namespace

}  // namespace klv::soak

int main(int argc, char** argv) {
  using namespace klv::soak;
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    fprintf(stderr, "usage: soak [--seconds N] [--clients N] [--files N] | --identities N\n");
    return 2;
  }
  klv::DaemonProcess daemon;
  if (!daemon.Start()) {
    fprintf(stderr, "soak: the daemon did not start: %s\n", daemon.LastError().c_str());
    return 1;
  }
  if (options.identities > 0) return MeasureIdentities(&daemon, options.identities);
  Soak soak(&daemon, options);
  return soak.Run() ? 0 : 1;
}
