#ifndef KLV_DAEMON_EVENT_LOG_H_
#define KLV_DAEMON_EVENT_LOG_H_

#include <cstdio>

#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "protocol/version.h"

namespace klv {

// Whether an error ends the process.
enum class Severity { kRecoverable, kFatal };

// The daemon's two append-only logs in its log directory: "/errlock.log"
// receives error records, "/journal.log" one tab-separated line per event.
// Every error record is also written to standard error, so that a failure
// before the logs are open is still seen. The one daemon object owns the one
// EventLog; every record is written whole and flushed at once. Every error of
// the running daemon comes here, and a fatal one goes on, after its record,
// to the handler that the entry function installed.
class EventLog {
 public:
  // Ends the process after a fatal error; it does not return.
  using FatalErrorHandler = void (*)(EventLog& log);

  // `directory` is used as it stands: the file names, which begin with "/",
  // are appended to it.
  explicit EventLog(const RefString& directory);
  // Closes both logs without writing anything.
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  // Opens (or reopens) both logs for appending and writes the event
  // "locking/process/start". A log that cannot be opened is a fatal error:
  // the process exits with status 1.
  void OpenLogs();
  // Closes the error log, then the event log.
  void CloseLogs();
  // Writes the event "locking/process/stop", then closes both logs.
  void WriteStopEventAndClose();
  // Appends "time\tid\tmessage\n" to the event log; nothing when it is closed.
  void Event(const RefString& id, const RefString& message);
  // Writes the error record (error head, message, "\n") to standard error and,
  // when open, to the error log. kFatal then hands the log to the fatal-error
  // handler and does not return.
  void Error(const char* id, const TextBuilder& message, Severity severity);
  // Installs what a fatal error does once its record is written. Without one,
  // a fatal error aborts the process.
  void SetFatalErrorHandler(FatalErrorHandler handler) { on_fatal_error_ = handler; }

  // "\n", time stamp, "\t", id, "\t", banner, "\n\n".
  static RefString ErrorHeader(const char* id);

  // The descriptor of the error log, -1 while it is closed.
  int ErrorLogFd() const;

 private:
  void WriteErrorRecord(FILE* file, const char* id, const TextBuilder& message);

  RefString directory_;
  FILE* error_log_ = nullptr;
  FILE* event_log_ = nullptr;
  FatalErrorHandler on_fatal_error_ = nullptr;
};

}  // namespace klv

#endif  // KLV_DAEMON_EVENT_LOG_H_
