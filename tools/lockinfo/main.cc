// lockinfo: prints the status report of a running klvlockd, as it stands, as
// JSON or as metrics for a text-file collector, once or every few seconds; or
// what a cluster of daemons holds, read from their etcd.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "cluster/cluster_config.h"
#include "tools/lockinfo/cluster_fetch.h"
#include "tools/lockinfo/cluster_view.h"
#include "tools/lockinfo/report_fetch.h"
#include "tools/lockinfo/report_parser.h"
#include "tools/lockinfo/report_writers.h"
#include "tools/standard_descriptors.h"

namespace klv {

namespace {

// Exit statuses beyond those of the fetch.
constexpr int kUsageError = 2;
constexpr int kNotAPort = 10;
constexpr int kAmbiguous = 14;
constexpr const char* kPortVariable = "_klvlockd_status";

constexpr const char* kUsage =
    "Usage: lockinfo [--json | --metrics] [--timeout SECONDS] [--max-bytes BYTES]\n"
    "                [--watch SECONDS] [PORT]\n"
    "       lockinfo --cluster FILE [--json] [--timeout SECONDS] [--watch SECONDS]\n"
    "       lockinfo --help | --version\n";

constexpr const char* kHelp =
    "\n"
    "Prints the status report of the klvlockd lock daemon whose status port on\n"
    "127.0.0.1 is PORT; without PORT, the port in $_klvlockd_status, which the\n"
    "daemon's start-up status line sets.\n"
    "\n"
    "  --json               the report as one JSON object\n"
    "  --metrics            client counts and totals in the Prometheus text format\n"
    "  --timeout SECONDS    give up when the daemon sends nothing for so long\n"
    "                       (default 30)\n"
    "  --max-bytes BYTES    give up on a report longer than this (default 1073741824)\n"
    "  --watch SECONDS      print the report again every SECONDS until interrupted\n"
    "  --cluster FILE       instead of a report: the nodes of the cluster that the\n"
    "                       daemon's cluster setting FILE names, and per file what\n"
    "                       each node holds, read from the cluster's etcd\n"
    "  --help               this text\n"
    "  --version            the version\n"
    "\n"
    "Exit status: 0 done, 2 wrong command line, 10 not a valid port number,\n"
    "11 no local TCP socket, 12 the daemon could not be contacted, 13 reading\n"
    "the report failed, timed out, went past --max-bytes, or what came was not a\n"
    "whole status report, 14 a path or name with a line break makes part of the\n"
    "report ambiguous (that part is marked, and left out of the files).\n"
    "With --cluster: 2 also a bad FILE, 12 no etcd endpoint could be contacted,\n"
    "13 etcd did not answer in time or refused the read.\n";

constexpr const char* kNoPortHint =
    "lockinfo: no PORT given and $_klvlockd_status is not set; source the daemon's env file "
    "first: . /run/klvlockd/klvlockd.env (the service) or . logs/klvlockd.env (scripts/start.sh)\n";

enum class Format { kText, kJson, kMetrics };

struct Options {
  Format format = Format::kText;
  const char* port = nullptr;
  const char* cluster = nullptr;  // the cluster setting file
  bool max_bytes_given = false;
  FetchLimits limits;
  int watch_ms = 0;  // 0: print once
};

volatile sig_atomic_t stop_requested = 0;

void RequestStop(int) { stop_requested = 1; }

// SIGINT and SIGTERM set stop_requested; without SA_RESTART the waits end at
// once.
void CatchStopSignals() {
  struct sigaction action = {};
  action.sa_handler = RequestStop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int UsageError(const std::string& message) {
  fprintf(stderr, "lockinfo: %s\n%s", message.c_str(), kUsage);
  return kUsageError;
}

// Seconds from a thousandth to a day, fractions allowed, as milliseconds; 0
// when `text` is none.
int Milliseconds(const char* text) {
  if (text == nullptr || *text < '0' || *text > '9') return 0;
  char* end = nullptr;
  const double seconds = strtod(text, &end);
  if (*end != '\0' || !(seconds <= 86400)) return 0;
  return static_cast<int>(seconds * 1000);
}

// A byte count of at least 1, in digits; 0 when `text` is none.
uint64_t ByteCount(const char* text) {
  if (text == nullptr || *text < '0' || *text > '9') return 0;
  char* end = nullptr;
  errno = 0;
  const unsigned long long count = strtoull(text, &end, 10);
  return errno == 0 && *end == '\0' ? count : 0;
}

// The value of option `name` at argv[*index], as "--name VALUE" or
// "--name=VALUE"; null when argv[*index] is another option. `*missing` is
// set when the option is there without a value.
const char* OptionValue(int argc, char** argv, int* index, const char* name, bool* missing) {
  const size_t length = strlen(name);
  const char* argument = argv[*index];
  if (strncmp(argument, name, length) != 0) return nullptr;
  if (argument[length] == '=') return argument + length + 1;
  if (argument[length] != '\0') return nullptr;
  if (*index + 1 >= argc) {
    *missing = true;
    return nullptr;
  }
  return argv[++*index];
}

// Reads an option with a value; false when argv[*index] is none. A bad value
// sets *error.
bool ReadValueOption(int argc, char** argv, int* index, Options* options, std::string* error) {
  for (const char* name : {"--timeout", "--max-bytes", "--watch", "--cluster"}) {
    bool missing = false;
    const char* value = OptionValue(argc, argv, index, name, &missing);
    if (value == nullptr && !missing) continue;
    bool good = false;
    if (strcmp(name, "--cluster") == 0) {
      options->cluster = value;
      good = value != nullptr && value[0] != '\0';
    } else if (strcmp(name, "--max-bytes") == 0) {
      options->max_bytes_given = true;
      options->limits.max_bytes = ByteCount(value);
      good = options->limits.max_bytes > 0;
    } else {
      int& milliseconds =
          strcmp(name, "--timeout") == 0 ? options->limits.timeout_ms : options->watch_ms;
      milliseconds = Milliseconds(value);
      good = milliseconds > 0;
    }
    if (!good)
      *error = std::string("bad value for ") + name + (value ? std::string(": ") + value : "");
    return true;
  }
  return false;
}

// Reads the command line into `options`; answers -1 to go on, or the exit
// status when there is nothing more to do.
int ReadArguments(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    std::string error;
    if (argument == "--help") {
      printf("%s%s", kUsage, kHelp);
      return 0;
    }
    if (argument == "--version") {
      printf("lockinfo %s\n", KLV_VERSION);
      return 0;
    }
    const bool json = argument == "--json";
    if (json || argument == "--metrics") {
      if (options->format != Format::kText) return UsageError("give --json or --metrics once");
      options->format = json ? Format::kJson : Format::kMetrics;
    } else if (ReadValueOption(argc, argv, &i, options, &error)) {
      if (!error.empty()) return UsageError(error);
    } else if (argument.size() > 1 && argument[0] == '-') {
      return UsageError("unknown option " + argument);
    } else if (options->port != nullptr) {
      return UsageError("more than one port given");
    } else {
      options->port = argv[i];
    }
  }
  if (options->cluster == nullptr) return -1;
  if (options->format == Format::kMetrics) return UsageError("--cluster has no --metrics");
  if (options->port != nullptr) return UsageError("--cluster takes no port");
  if (options->max_bytes_given) return UsageError("--cluster has no --max-bytes");
  return -1;
}

// The port from the argument or the environment: 1 to 65535, digits only; 0
// when it is none (the message is written).
uint16_t CheckedPort(const char* text, bool from_environment) {
  char* end = nullptr;
  const long port = strtol(text, &end, 10);
  if (text[0] >= '0' && text[0] <= '9' && *end == '\0' && port > 0 && port < 65536) {
    return static_cast<uint16_t>(port);
  }
  fprintf(stderr, "lockinfo: %s\"%s\" is not a valid port number (1 to 65535)\n",
          from_environment ? "$_klvlockd_status " : "", text);
  return 0;
}

const char* FailureText(FetchStatus status) {
  switch (status) {
    case FetchStatus::kNoLocalSocket:
      return "cannot make a local TCP socket";
    case FetchStatus::kNoContact:
      return "cannot contact klvlockd";
    default:
      return "error reading from klvlockd";
  }
}

// Reads `text` and writes it in the chosen format; answers the exit status.
int WriteReport(const std::string& text, Format format, uint16_t port) {
  StatusReport report;
  std::string error;
  const ReportScope scope =
      format == Format::kMetrics ? ReportScope::kUnforgeable : ReportScope::kWhole;
  const ReportReading reading =
      text.empty() ? ReportReading::kNotAReport : ParseStatusReport(text, scope, &report, &error);
  if (reading == ReportReading::kNotAReport) {
    if (text.empty())
      error =
          "the daemon closed the connection without a report (are all its status children busy?)";
    fprintf(stderr,
            "lockinfo: what klvlockd at 127.0.0.1:%u sent is not a whole status report: %s\n", port,
            error.c_str());
    if (format == Format::kMetrics) fputs(UnreachableMetrics().c_str(), stdout);
    fflush(stdout);
    return static_cast<int>(FetchStatus::kReadFailed);
  }
  const std::string out = format == Format::kJson      ? ReportJson(report)
                          : format == Format::kMetrics ? ReportMetrics(report)
                                                       : ReportText(report);
  fwrite(out.data(), 1, out.size(), stdout);
  fflush(stdout);
  for (const AmbiguousStretch& stretch : report.ambiguous) {
    fprintf(stderr,
            "lockinfo: lines %zu to %zu of the report can be read in more than one way (a path "
            "holds a line break); they are not shown as files\n",
            stretch.first_line, stretch.last_line);
  }
  return reading == ReportReading::kAmbiguous ? kAmbiguous : 0;
}

// One round: fetches the report and prints it; answers the exit status.
int ShowReport(const Options& options, uint16_t port) {
  std::string text;
  std::string failure;
  const FetchStatus status = FetchReport(port, options.limits, &stop_requested, &text, &failure);
  if (status == FetchStatus::kDone) return WriteReport(text, options.format, port);
  if (status == FetchStatus::kInterrupted) return static_cast<int>(status);
  fprintf(stderr, "lockinfo: %s at 127.0.0.1:%u: %s\n", FailureText(status), port, failure.c_str());
  if (options.format == Format::kMetrics) fputs(UnreachableMetrics().c_str(), stdout);
  fflush(stdout);
  return static_cast<int>(status);
}

// One round of --cluster: reads the cluster's keys and prints them; answers
// the exit status.
int ShowCluster(const Options& options, const cluster::ClusterConfig& config) {
  ClusterView view;
  std::string failure;
  const FetchStatus status =
      FetchCluster(config, options.limits.timeout_ms, &stop_requested, &view, &failure);
  if (status == FetchStatus::kDone) {
    const std::string out = options.format == Format::kJson ? ClusterJson(view) : ClusterText(view);
    fwrite(out.data(), 1, out.size(), stdout);
  } else if (status != FetchStatus::kInterrupted) {
    fprintf(stderr, "lockinfo: %s of cluster %s: %s\n",
            status == FetchStatus::kNoContact ? "cannot contact the etcd"
                                              : "error reading the keys from the etcd",
            config.cluster.c_str(), failure.c_str());
  }
  fflush(stdout);
  return static_cast<int>(status);
}

// Shows the report every options.watch_ms until SIGINT or SIGTERM, each round
// on a cleared screen when standard output is a terminal; exits 0.
int Watch(const Options& options, const std::function<int()>& show) {
  CatchStopSignals();
  const bool terminal = isatty(STDOUT_FILENO);
  while (stop_requested == 0) {
    if (terminal) fputs("\033[H\033[2J", stdout);
    show();
    if (stop_requested == 0) poll(nullptr, 0, options.watch_ms);
  }
  return 0;
}

// lockinfo --cluster: reads the setting file, then the cluster's keys.
int RunForCluster(const Options& options) {
  if (!ClusterSupported()) {
    return UsageError("this lockinfo was built without the cluster store (libcurl, nlohmann-json)");
  }
  cluster::ClusterConfig config;
  std::string error;
  if (!cluster::ReadClusterConfig(options.cluster, &config, &error)) {
    fprintf(stderr, "lockinfo: %s\n", error.c_str());
    return kUsageError;
  }
  // Interrupted, a fetch ends at once rather than after its time-out.
  CatchStopSignals();
  if (options.watch_ms > 0) return Watch(options, [&] { return ShowCluster(options, config); });
  return ShowCluster(options, config);
}

// The whole program: reads the command line, fetches the report and prints it.
int Run(int argc, char** argv) {
  GuardStandardDescriptors();
  Options options;
  const int done = ReadArguments(argc, argv, &options);
  if (done >= 0) return done;
  if (options.cluster != nullptr) return RunForCluster(options);
  const bool from_environment = options.port == nullptr;
  if (from_environment) options.port = getenv(kPortVariable);
  if (options.port == nullptr || options.port[0] == '\0') {
    fputs(kNoPortHint, stderr);
    return kUsageError;
  }
  const uint16_t port = CheckedPort(options.port, from_environment);
  if (port == 0) return kNotAPort;
  if (options.watch_ms > 0) return Watch(options, [&] { return ShowReport(options, port); });
  return ShowReport(options, port);
}

}  // namespace

}  // namespace klv

int main(int argc, char** argv) { return klv::Run(argc, argv); }
