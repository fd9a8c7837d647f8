// The C interface: checks the handle, turns every exception that the standard
// library might raise into an error code, and hands the rest to ClientSession.
#include "klvlock.h"

#include <memory>
#include <new>

#include "session.h"

using klv::ClientSession;

struct klvlock_session {
  std::unique_ptr<ClientSession> impl;
};

namespace {

// Runs `body`, which returns an error code; nothing escapes the boundary.
template <typename Body>
int Guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return KLVLOCK_ENOMEM;
  } catch (...) {
    return KLVLOCK_EINTERNAL;
  }
}

// Like Guarded, for calls that read the socket: refused without a session
// and from inside an event handler.
template <typename Body>
int Reading(klvlock_session* session, Body body) noexcept {
  if (session == nullptr) return KLVLOCK_EINVAL;
  if (session->impl->InCallback()) return KLVLOCK_EBUSY;
  return Guarded([&] { return body(*session->impl); });
}

klvlock_request FileRequest(uint32_t code, klvlock_file file, uint32_t clientfid) {
  klvlock_request request = {};
  request.code = code;
  request.file = file;
  request.clientfid = clientfid;
  return request;
}

}  // namespace

extern "C" {

int klvlock_create(uint16_t daemon_port, uint32_t session_id, const char* name,
                   klvlock_session** session) {
  if (session == nullptr) return KLVLOCK_EINVAL;
  return Guarded([&] {
    auto handle = std::make_unique<klvlock_session>();
    const int result = ClientSession::Create(daemon_port, session_id, name, &handle->impl);
    if (result == KLVLOCK_OK) *session = handle.release();
    return result;
  });
}

int klvlock_destroy(klvlock_session* session) {
  if (session == nullptr) return KLVLOCK_OK;
  if (session->impl->InCallback()) return KLVLOCK_EBUSY;
  delete session;
  return KLVLOCK_OK;
}

int klvlock_fd(const klvlock_session* session) {
  return session == nullptr ? KLVLOCK_EINVAL : session->impl->Fd();
}

uint16_t klvlock_local_port(const klvlock_session* session) {
  return session == nullptr ? 0 : session->impl->LocalPort();
}

void klvlock_set_callback(klvlock_session* session, klvlock_event_fn fn, void* user) {
  if (session != nullptr) session->impl->SetCallback(fn, user);
}

int klvlock_call(klvlock_session* session, const klvlock_request* request, int timeout_ms,
                 klvlock_reply* reply) {
  if (request == nullptr) return KLVLOCK_EINVAL;
  return Reading(session, [&](ClientSession& s) { return s.Call(*request, timeout_ms, reply); });
}

int klvlock_open(klvlock_session* session, klvlock_file file, uint32_t clientfid, uint32_t openmode,
                 int oplock, uint32_t waitid, const char* path, int timeout_ms,
                 klvlock_reply* reply) {
  klvlock_request request = FileRequest(KLVLOCK_REQ_OPEN, file, clientfid);
  request.openmode = openmode;
  request.oplock = oplock != 0 ? 1 : 0;
  request.waitid = waitid;
  request.path = path;
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_lock(klvlock_session* session, klvlock_file file, uint32_t clientfid, uint32_t offset,
                 uint32_t length, uint32_t locktype, int timeout_ms, klvlock_reply* reply) {
  klvlock_request request = FileRequest(KLVLOCK_REQ_LOCK, file, clientfid);
  request.offset = offset;
  request.length = length;
  request.locktype = locktype;
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_unlock(klvlock_session* session, klvlock_file file, uint32_t clientfid, uint32_t offset,
                   uint32_t length, int timeout_ms, klvlock_reply* reply) {
  klvlock_request request = FileRequest(KLVLOCK_REQ_UNLOCK, file, clientfid);
  request.offset = offset;
  request.length = length;
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_close(klvlock_session* session, klvlock_file file, uint32_t clientfid, int timeout_ms,
                  klvlock_reply* reply) {
  const klvlock_request request = FileRequest(KLVLOCK_REQ_CLOSE, file, clientfid);
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_oplock_release(klvlock_session* session, klvlock_file file, uint32_t clientfid,
                           int timeout_ms, klvlock_reply* reply) {
  const klvlock_request request = FileRequest(KLVLOCK_REQ_OPLOCK_RELEASE, file, clientfid);
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_client_end(klvlock_session* session, int timeout_ms, klvlock_reply* reply) {
  const klvlock_request request = FileRequest(KLVLOCK_REQ_CLIENT_END, {}, 0);
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_text(klvlock_session* session, const char* text, int timeout_ms, klvlock_reply* reply) {
  klvlock_request request = FileRequest(KLVLOCK_REQ_TEXT, {}, 0);
  request.text = text;
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_noop(klvlock_session* session, int timeout_ms, klvlock_reply* reply) {
  const klvlock_request request = FileRequest(KLVLOCK_REQ_NOOP, {}, 0);
  return klvlock_call(session, &request, timeout_ms, reply);
}

int klvlock_version(klvlock_session* session, int timeout_ms, uint32_t* version) {
  if (version == nullptr) return KLVLOCK_EINVAL;
  const klvlock_request request = FileRequest(KLVLOCK_REQ_VERSION, {}, 0);
  klvlock_reply reply = {};
  const int result = klvlock_call(session, &request, timeout_ms, &reply);
  if (result == KLVLOCK_OK) *version = reply.version;
  return result;
}

int klvlock_submit(klvlock_session* session, const klvlock_request* request, int timeout_ms,
                   uint32_t* tag) {
  if (session == nullptr || request == nullptr) return KLVLOCK_EINVAL;
  return Guarded([&] { return session->impl->Submit(*request, timeout_ms, tag); });
}

int klvlock_process(klvlock_session* session) {
  return Reading(session, [](ClientSession& s) { return s.Process(); });
}

int klvlock_next_timeout(const klvlock_session* session) {
  return session == nullptr ? -1 : session->impl->NextTimeout();
}

int klvlock_wait(klvlock_session* session, int timeout_ms) {
  return Reading(session, [&](ClientSession& s) { return s.Wait(timeout_ms); });
}

int klvlock_next_event(klvlock_session* session, klvlock_event* event) {
  if (session == nullptr) return KLVLOCK_EINVAL;
  return session->impl->NextEvent(event);
}

const char* klvlock_strerror(int error) {
  switch (error) {
    case KLVLOCK_OK:
      return "success";
    case KLVLOCK_EINVAL:
      return "invalid argument";
    case KLVLOCK_ESYSTEM:
      return "a system call failed";
    case KLVLOCK_ETIMEDOUT:
      return "no reply from the lock daemon in time";
    case KLVLOCK_EUNREACHABLE:
      return "the lock daemon's port is unreachable";
    case KLVLOCK_ENOMEM:
      return "out of memory";
    case KLVLOCK_EBUSY:
      return "not allowed inside an event callback";
    case KLVLOCK_EAGAIN:
      return "no event queued";
    case KLVLOCK_EINTERNAL:
      return "internal error in the library";
    default:
      return "unknown error";
  }
}

}  // extern "C"
