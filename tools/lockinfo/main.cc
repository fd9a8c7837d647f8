// lockinfo: prints the status report of a running klvlockd, as it stands, as
// JSON or as metrics for a text-file collector.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/status_probe.h"
#include "tools/lockinfo/report_parser.h"
#include "tools/lockinfo/report_writers.h"

namespace klv {

namespace {

// The exit status of a wrong command line, which the probe form does not have.
constexpr int kUsageError = 2;
constexpr const char* kPortVariable = "_klvlockd_status";

constexpr const char* kUsage =
    "Usage: lockinfo [--json | --metrics] [PORT]\n"
    "       lockinfo --help | --version\n";

constexpr const char* kHelp =
    "\n"
    "Prints the status report of the klvlockd lock daemon whose status port on\n"
    "127.0.0.1 is PORT; without PORT, the port in $_klvlockd_status, which the\n"
    "daemon's start-up status line sets.\n"
    "\n"
    "  --json      the report as one JSON object\n"
    "  --metrics   client counts and totals in the Prometheus text format\n"
    "  --help      this text\n"
    "  --version   the version\n"
    "\n"
    "Exit status: 0 done, 2 wrong command line, 10 not a valid port number,\n"
    "11 no local TCP socket, 12 the daemon could not be contacted, 13 reading\n"
    "the report failed or what came was not a status report.\n";

enum class Format { kText, kJson, kMetrics };

struct Options {
  Format format = Format::kText;
  const char* port = nullptr;
};

int UsageError(const std::string& message) {
  fprintf(stderr, "lockinfo: %s\n%s", message.c_str(), kUsage);
  return kUsageError;
}

// Reads the command line into `options`; answers -1 to go on, or the exit
// status when there is nothing more to do.
int ReadArguments(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
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
    } else if (argument.size() > 1 && argument[0] == '-') {
      return UsageError("unknown option " + argument);
    } else if (options->port != nullptr) {
      return UsageError("more than one port given");
    } else {
      options->port = argv[i];
    }
  }
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

const char* FailureText(int status) {
  switch (status) {
    case kNoLocalSocket:
      return "cannot make a local TCP socket";
    case kNoContact:
      return "cannot contact klvlockd";
    default:
      return "error reading from klvlockd";
  }
}

// Writes the report in the chosen format; the status is that of the probe form.
int WriteReport(const std::string& text, Format format, uint16_t port) {
  StatusReport report;
  std::string error;
  if (format == Format::kText) {
    fwrite(text.data(), 1, text.size(), stdout);
  } else if (!ParseStatusReport(text, &report, &error)) {
    fprintf(stderr, "lockinfo: what klvlockd at 127.0.0.1:%u sent is not a status report: %s\n",
            port, error.c_str());
    if (format == Format::kMetrics) fputs(UnreachableMetrics().c_str(), stdout);
    return kReadFailed;
  } else {
    fputs((format == Format::kJson ? ReportJson(report) : ReportMetrics(report)).c_str(), stdout);
  }
  fflush(stdout);
  return kProbeDone;
}

// The whole program: reads the command line, fetches the report and prints it.
int Run(int argc, char** argv) {
  Options options;
  const int done = ReadArguments(argc, argv, &options);
  if (done >= 0) return done;
  const bool from_environment = options.port == nullptr;
  if (from_environment) options.port = getenv(kPortVariable);
  if (options.port == nullptr || options.port[0] == '\0') {
    return UsageError("no port given, and $_klvlockd_status is not set");
  }
  const uint16_t port = CheckedPort(options.port, from_environment);
  if (port == 0) return kNotAPort;
  std::string text;
  std::string failure;
  const ProbeStatus status = FetchStatusReport(port, &text, &failure);
  if (status == kProbeDone) return WriteReport(text, options.format, port);
  fprintf(stderr, "lockinfo: %s at 127.0.0.1:%u: %s\n", FailureText(status), port, failure.c_str());
  if (options.format == Format::kMetrics) fputs(UnreachableMetrics().c_str(), stdout);
  return status;
}

}  // namespace

}  // namespace klv

int main(int argc, char** argv) { return klv::Run(argc, argv); }
