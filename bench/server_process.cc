#include "bench/server_process.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace klv::bench {

namespace {

std::string ReadProcFile(pid_t pid, const char* name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

// Fields 14 and 15 of /proc/PID/stat; the command name (field 2) may hold
// blanks, so counting starts after its closing parenthesis.
double ServerProcess::CpuSeconds() const {
  if (pid_ == 0) return 0;
  const std::string stat = ReadProcFile(pid_, "stat");
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return 0;
  std::istringstream fields(stat.substr(name_end + 2));
  std::string field;
  unsigned long long ticks = 0;
  for (int number = 3; number <= 15 && fields >> field; ++number) {
    if (number >= 14) ticks += std::stoull(field);
  }
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

uint64_t ServerProcess::ResidentBytes() const {
  if (pid_ == 0) return 0;
  std::istringstream fields(ReadProcFile(pid_, "statm"));
  uint64_t size = 0;
  uint64_t resident = 0;
  fields >> size >> resident;
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace klv::bench
