#include "tools/klvlockctl/request_runner.h"

#include <chrono>
#include <string>

namespace klv {

namespace {

using std::to_string;

// "open fid=1", "end": how a reply line begins.
std::string Subject(const Command& command) {
  std::string subject = VerbName(command.verb);
  if (command.request.code == KLVLOCK_REQ_OPEN || command.request.code == KLVLOCK_REQ_LOCK ||
      command.request.code == KLVLOCK_REQ_UNLOCK || command.request.code == KLVLOCK_REQ_CLOSE ||
      command.request.code == KLVLOCK_REQ_OPLOCK_RELEASE) {
    subject += " fid=" + to_string(command.request.clientfid);
  }
  return subject;
}

// What the reply says, in one or two words.
std::string Outcome(const klvlock_reply& reply) {
  switch (reply.status) {
    case KLVLOCK_STATUS_DONE:
      if (reply.code == KLVLOCK_REQ_OPEN)
        return "granted oplock=" + to_string(reply.oplock_granted);
      if (reply.code == KLVLOCK_REQ_LOCK) return "granted";
      if (reply.code == KLVLOCK_REQ_VERSION) return to_string(reply.version);
      return "done";
    case KLVLOCK_STATUS_CONFLICT:
      return "conflict";
    case KLVLOCK_STATUS_NOT_FOUND:
      return "not-found";
    case KLVLOCK_STATUS_UNKNOWN:
      return "unknown";
    case KLVLOCK_STATUS_WAIT:
      return "wait id=" + to_string(reply.value);
    default:
      return "status=" + to_string(reply.status);
  }
}

std::string Failure(int error) {
  if (error == KLVLOCK_ETIMEDOUT) return "no reply";
  if (error == KLVLOCK_EUNREACHABLE) return "unreachable";
  return std::string("error: ") + klvlock_strerror(error);
}

std::array<uint32_t, 3> FidOf(const klvlock_request& request) {
  return {request.file.hi, request.file.lo, request.clientfid};
}

}  // namespace

ExitStatus ExitStatusOf(int error) {
  return error == KLVLOCK_ETIMEDOUT || error == KLVLOCK_EUNREACHABLE ? kExitNoReply
                                                                     : kExitFailure;
}

RequestRunner::RequestRunner(klvlock::Session* session, Settings settings, FILE* out, FILE* err)
    : session_(session), settings_(settings), out_(out), err_(err) {
  session_->SetEventHandler([this](const klvlock_event& event) { PrintEvent(event); });
}

bool RequestRunner::RunLine(const std::string& line, int line_number) {
  Command command;
  std::string error;
  if (!ParseRequestLine(line, &command, &error)) {
    fprintf(err_, "klvlockctl: line %d: %s\n", line_number, error.c_str());
    fflush(err_);
    return Note(kExitUsage);
  }
  switch (command.verb) {
    case Verb::kNone:
      return true;
    case Verb::kWait:
      Wait(command.wait_ms);
      return true;
    default:
      return Call(command, line_number);
  }
}

void RequestRunner::EndSession() {
  if (!sent_since_end_) return;
  Command end;
  end.verb = Verb::kEnd;
  end.request.code = KLVLOCK_REQ_CLIENT_END;
  Call(end, 0);
}

void RequestRunner::ReadSession() {
  const int result = session_->Process();
  if (result < 0) PrintLine(std::string("session: ") + Failure(result));
}

bool RequestRunner::Call(const Command& command, int line_number) {
  klvlock_request request = command.request;
  request.path = command.path.c_str();
  request.text = command.text.c_str();
  WarnIfNotOpen(command, line_number);
  sent_since_end_ = request.code != KLVLOCK_REQ_CLIENT_END;
  const klvlock::Result result = session_->Call(request, settings_.timeout_ms);
  if (!result.Ok()) {
    PrintLine(Subject(command) + ": " + Failure(result.error));
    return Note(ExitStatusOf(result.error));
  }
  PrintLine(Subject(command) + ": " + Outcome(result.reply));
  if (result.reply.status == KLVLOCK_STATUS_DONE) NoteDone(request);
  return result.reply.status == KLVLOCK_STATUS_DONE || Note(kExitRefused);
}

void RequestRunner::WarnIfNotOpen(const Command& command, int line_number) {
  const uint32_t code = command.request.code;
  if ((code != KLVLOCK_REQ_LOCK && code != KLVLOCK_REQ_UNLOCK) ||
      open_fids_.contains(FidOf(command.request))) {
    return;
  }
  fprintf(err_,
          "klvlockctl: line %d: warning: fid=%u file=%u:%u has no open in this session; the "
          "daemon never releases such a lock on its own\n",
          line_number, command.request.clientfid, command.request.file.hi, command.request.file.lo);
  fflush(err_);
}

void RequestRunner::NoteDone(const klvlock_request& request) {
  if (request.code == KLVLOCK_REQ_OPEN) open_fids_.insert(FidOf(request));
  if (request.code == KLVLOCK_REQ_CLOSE) open_fids_.erase(FidOf(request));
  if (request.code == KLVLOCK_REQ_CLIENT_END) open_fids_.clear();
}

void RequestRunner::Wait(int wait_ms) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
  for (Clock::time_point now = Clock::now(); now < deadline; now = Clock::now()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    const int result = session_->Wait(static_cast<int>(left));
    if (result != KLVLOCK_OK && result != KLVLOCK_ETIMEDOUT) {
      PrintLine(std::string("session: ") + Failure(result));
      return;
    }
  }
}

void RequestRunner::PrintEvent(const klvlock_event& event) {
  switch (event.kind) {
    case KLVLOCK_EVENT_OPLOCK_BREAK:
      PrintLine("break file=" + to_string(event.file.hi) + ":" + to_string(event.file.lo) +
                " fid=" + to_string(event.clientfid) + " session=" + to_string(event.session));
      return;
    case KLVLOCK_EVENT_OPEN_RETRY:
      PrintLine("retry id=" + to_string(event.waitid) + " session=" + to_string(event.session));
      return;
    case KLVLOCK_EVENT_PROBE:
      PrintLine("probe answered");
      return;
    default:  // replies come back to the blocking calls, never as events here
      return;
  }
}

void RequestRunner::PrintLine(const std::string& line) {
  fprintf(out_, "%s\n", line.c_str());
  fflush(out_);
}

bool RequestRunner::Note(ExitStatus status) {
  if (status == kExitRefused && !settings_.strict) return true;
  if (status > status_) status_ = status;
  return !settings_.strict;
}

}  // namespace klv
