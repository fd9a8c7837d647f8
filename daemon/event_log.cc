#include "daemon/event_log.h"

#include <cstdio>
#include <cstdlib>

#include "foundation/output_stream.h"
#include "foundation/text_buffer.h"
#include "foundation/time_stamp.h"

namespace klv {

namespace {

constexpr const char kErrorLogName[] = "/errlock.log";
constexpr const char kEventLogName[] = "/journal.log";

// Opens `directory` + `name` for appending; `path` receives the full path.
FILE* OpenForAppending(const RefString& directory, const char* name, RefString* path) {
  *path = directory;
  path->Append(name);
  return fopen(path->Text(), "a");
}

void CloseFile(FILE** file) {
  if (*file == nullptr) return;
  fclose(*file);
  *file = nullptr;
}

}  // namespace

EventLog::EventLog(const RefString& directory) : directory_(directory) {}

EventLog::~EventLog() { CloseLogs(); }

void EventLog::OpenLogs() {
  if (error_log_ != nullptr || event_log_ != nullptr) CloseLogs();

  RefString path;
  error_log_ = OpenForAppending(directory_, kErrorLogName, &path);
  if (error_log_ == nullptr) {
    TextBuilder message;
    message << "Failed to open error log file: " << path;
    Error("locking/open/errorlog", message, Severity::kFatal);
  }
  event_log_ = OpenForAppending(directory_, kEventLogName, &path);
  if (event_log_ == nullptr) {
    TextBuilder message;
    message << "Failed to open event log file: " << path;
    Error("locking/open/eventlog", message, Severity::kFatal);
  }
  Event(RefString("locking/process/start"), RefString(kBanner));
}

void EventLog::CloseLogs() {
  CloseFile(&error_log_);
  CloseFile(&event_log_);
}

void EventLog::WriteStopEventAndClose() {
  Event(RefString("locking/process/stop"), RefString(kBanner));
  CloseLogs();
}

void EventLog::Event(const RefString& id, const RefString& message) {
  if (event_log_ == nullptr) return;
  FileStream out(event_log_);
  out << TimeStamp::Now() << "\t" << id << "\t" << message << "\n";
  out.Flush();
}

void EventLog::Error(const char* id, const TextBuilder& message, Severity severity) {
  WriteErrorRecord(stderr, id, message);
  if (error_log_ != nullptr) WriteErrorRecord(error_log_, id, message);
  if (severity != Severity::kFatal) return;
  if (on_fatal_error_ != nullptr) on_fatal_error_(*this);
  abort();
}

RefString EventLog::ErrorHeader(const char* id) {
  TextBuilder head;
  head << "\n" << TimeStamp::Now() << "\t" << id << "\t" << kBanner << "\n\n";
  return head.Bytes();
}

int EventLog::ErrorLogFd() const { return error_log_ == nullptr ? -1 : fileno(error_log_); }

// The head is built afresh for each destination, so the copies of one record
// carry the time of their own writing.
void EventLog::WriteErrorRecord(FILE* file, const char* id, const TextBuilder& message) {
  FileStream out(file);
  out << ErrorHeader(id) << message.Text() << "\n";
  out.Flush();
}

}  // namespace klv
