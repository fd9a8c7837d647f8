#ifndef KLV_TESTS_SUPPORT_PROCESS_TOOLS_H_
#define KLV_TESTS_SUPPORT_PROCESS_TOOLS_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/daemon_process.h"

namespace klv {

// The process and file chores under DaemonProcess and RunKlvlockd. Every wait
// is bounded.
namespace process_tools {

// The klvlockd binary under test.
const char* KlvlockdPath();

// Makes this process the reaper of its orphaned descendants, once, so that it
// can wait for a daemon whose starting process has exited.
void BecomeSubreaper();

// Whether the started program may fork.
enum class Forking { kAllowed, kFails };

// Starts klvlockd with `arguments`, standard input /dev/null, standard output
// `out_fd` and standard error `err_fd` (closed when `err_fd` is -1); -1 when
// fork fails. With
// Forking::kFails a system-call filter makes every fork of the program fail
// with EAGAIN (threads still start).
pid_t SpawnKlvlockd(const std::vector<std::string>& arguments, int out_fd, int err_fd,
                    Forking forking = Forking::kAllowed);

// Reaps `pid` if it has ended: kStillRunning when it has not.
ProcessEnd PollEnd(pid_t pid);
// Waits up to `timeout_ms` for `pid` to end.
ProcessEnd WaitForEnd(pid_t pid, int timeout_ms);

// Reads `fd` until end of file or until `timeout_ms` have passed.
std::string ReadUntilEnd(int fd, int timeout_ms);
// Reads two descriptors at once until both reach end of file or the time is
// up, so that neither writer can block on a full pipe.
void ReadBothUntilEnd(int out_fd, std::string* out, int err_fd, std::string* err, int timeout_ms);

// The size of a file, 0 when it does not exist.
size_t FileSize(const std::string& path);
// The file's bytes from `offset` on; empty when it does not exist.
std::string ReadFileFrom(const std::string& path, size_t offset);

}  // namespace process_tools

}  // namespace klv

#endif  // KLV_TESTS_SUPPORT_PROCESS_TOOLS_H_
