// libklvlock for C++: a header-only wrapper over the C interface of klvlock.h.
// A Session owns one klvlock_session and closes it when destroyed; every
// request is one method that returns the error code and the reply together.
// Nothing here throws; an event handler that throws ends the program.
//
//   klvlock::Session session(port, /*session_id=*/getpid(), "alpha");
//   if (session.Error() != KLVLOCK_OK) return;
//   klvlock::Result open = session.Open({10, 20}, /*clientfid=*/1,
//                                       KLVLOCK_OPEN_READ | KLVLOCK_DENY_WRITE);
//   if (open.Ok() && open.reply.status == KLVLOCK_STATUS_DONE) { ... }
#ifndef KLVLOCK_HPP_
#define KLVLOCK_HPP_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "klvlock.h"

namespace klvlock {

// The error code of a call and, when it is KLVLOCK_OK, the reply.
struct Result {
  int error = KLVLOCK_OK;
  klvlock_reply reply = {};

  bool Ok() const { return error == KLVLOCK_OK; }
  // True when the call succeeded and the daemon granted or did the request.
  bool Done() const { return Ok() && reply.status == KLVLOCK_STATUS_DONE; }
  const char* ErrorText() const { return klvlock_strerror(error); }
};

// The optional parts of an open.
struct OpenOptions {
  bool oplock = false;  // ask for an opportunistic lock
  uint32_t waitid = 0;  // the wait id of an earlier open that had to wait
  std::string path;     // the file's path name, for the daemon's report
};

using EventHandler = std::function<void(const klvlock_event&)>;

class Session {
 public:
  static constexpr int kDefaultTimeoutMs = 2000;

  // Opens a session with the daemon at 127.0.0.1:`daemon_port`; Error()
  // tells whether it worked.
  Session(uint16_t daemon_port, uint32_t session_id, const std::string& name)
      : error_(klvlock_create(daemon_port, session_id, name.c_str(), &handle_)) {}
  ~Session() { klvlock_destroy(handle_); }
  Session(Session&& other) noexcept
      : handle_(std::exchange(other.handle_, nullptr)),
        error_(other.error_),
        handler_(std::move(other.handler_)) {}
  Session& operator=(Session&& other) noexcept {
    std::swap(handle_, other.handle_);
    std::swap(error_, other.error_);
    std::swap(handler_, other.handler_);
    return *this;
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // KLVLOCK_OK when the session was opened, else why not.
  int Error() const { return error_; }
  klvlock_session* Handle() const { return handle_; }
  int Fd() const { return klvlock_fd(handle_); }
  uint16_t LocalPort() const { return klvlock_local_port(handle_); }

  // Blocking calls, one per request (see klvlock.h for time-outs and resends).
  Result Open(klvlock_file file, uint32_t clientfid, uint32_t openmode,
              const OpenOptions& options = {}, int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_open(handle_, file, clientfid, openmode, options.oplock ? 1 : 0,
                          options.waitid, options.path.c_str(), timeout_ms, reply);
    });
  }
  Result Lock(klvlock_file file, uint32_t clientfid, uint32_t offset, uint32_t length,
              uint32_t locktype = KLVLOCK_LOCK_EXCLUSIVE, int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_lock(handle_, file, clientfid, offset, length, locktype, timeout_ms, reply);
    });
  }
  Result Unlock(klvlock_file file, uint32_t clientfid, uint32_t offset, uint32_t length,
                int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_unlock(handle_, file, clientfid, offset, length, timeout_ms, reply);
    });
  }
  Result Close(klvlock_file file, uint32_t clientfid, int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_close(handle_, file, clientfid, timeout_ms, reply);
    });
  }
  Result ReleaseOplock(klvlock_file file, uint32_t clientfid, int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_oplock_release(handle_, file, clientfid, timeout_ms, reply);
    });
  }
  Result ClientEnd(int timeout_ms = kDefaultTimeoutMs) {
    return Run(
        [&](klvlock_reply* reply) { return klvlock_client_end(handle_, timeout_ms, reply); });
  }
  Result Text(const std::string& text, int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_text(handle_, text.c_str(), timeout_ms, reply);
    });
  }
  Result Noop(int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) { return klvlock_noop(handle_, timeout_ms, reply); });
  }
  // The reply's version field holds the daemon's version.
  Result Version(int timeout_ms = kDefaultTimeoutMs) {
    return Run([&](klvlock_reply* reply) {
      return klvlock_version(handle_, timeout_ms, &reply->version);
    });
  }
  // Any request, blocking.
  Result Call(const klvlock_request& request, int timeout_ms = kDefaultTimeoutMs) {
    return Run(
        [&](klvlock_reply* reply) { return klvlock_call(handle_, &request, timeout_ms, reply); });
  }

  // Non-blocking form: send now, the reply comes as an event.
  int Submit(const klvlock_request& request, uint32_t* tag, int timeout_ms = kDefaultTimeoutMs) {
    return klvlock_submit(handle_, &request, timeout_ms, tag);
  }
  // Reads what has arrived; the number of events delivered or an error.
  int Process() { return klvlock_process(handle_); }
  int NextTimeout() const { return klvlock_next_timeout(handle_); }
  // Waits up to `timeout_ms` for an event; KLVLOCK_OK once one came.
  int Wait(int timeout_ms) { return klvlock_wait(handle_, timeout_ms); }
  // The oldest queued event, when no handler is set; false when none.
  bool NextEvent(klvlock_event* event) { return klvlock_next_event(handle_, event) == KLVLOCK_OK; }

  // Sets the event handler (an empty one queues events instead). It runs
  // inside the call that read the event, as klvlock.h says.
  void SetEventHandler(EventHandler handler) {
    if (!handler) {
      handler_.reset();
      klvlock_set_callback(handle_, nullptr, nullptr);
      return;
    }
    handler_ = std::make_unique<EventHandler>(std::move(handler));
    klvlock_set_callback(handle_, &Session::Trampoline, handler_.get());
  }

 private:
  template <typename Call>
  static Result Run(Call call) {
    Result result;
    result.error = call(&result.reply);
    return result;
  }
  static void Trampoline(const klvlock_event* event, void* user) noexcept {
    (*static_cast<EventHandler*>(user))(*event);
  }

  klvlock_session* handle_ = nullptr;
  int error_ = KLVLOCK_OK;
  std::unique_ptr<EventHandler> handler_;
};

}  // namespace klvlock

#endif  // KLVLOCK_HPP_
