/* libklvlock: the client library of the klvlockd lock daemon.
 *
 * A session is one UDP socket bound to 127.0.0.1 at a port of its own and
 * connected to the daemon's UDP port on 127.0.0.1, plus a 32-bit session id
 * and a client name. The daemon knows a client by the pair (sender address,
 * session id): every request of a session comes from the same address with
 * the same session id, so all its opens, oplocks and byte-range locks belong
 * to that one client. Two sessions in one process are two clients.
 *
 * Each request has a blocking call that sends it and waits for its reply,
 * and a non-blocking form for programs with their own event loop:
 * klvlock_submit() sends, klvlock_fd() is polled for input, and
 * klvlock_process() reads what has arrived and delivers replies and events.
 *
 * Whatever the form, the library answers the daemon's liveness probes by
 * itself whenever it reads the socket, also while a blocking call waits. A
 * program that leaves a session unread for more than a minute while the
 * daemon probes it is taken for dead and loses everything it holds: poll
 * klvlock_fd() or call klvlock_process() at least every few seconds.
 *
 * Nothing here throws or aborts; every call returns KLVLOCK_OK (0) or a
 * negative KLVLOCK_E* code. A session is not thread-safe: use it from one
 * thread at a time. Distinct sessions are independent.
 */
#ifndef KLVLOCK_H_
#define KLVLOCK_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KLVLOCK_BUILDING)
#define KLVLOCK_API __attribute__((visibility("default")))
#else
#define KLVLOCK_API
#endif

/* Error codes returned by the calls. */
enum {
  KLVLOCK_OK = 0,
  KLVLOCK_EINVAL = -1,       /* an argument is out of range */
  KLVLOCK_ESYSTEM = -2,      /* a system call failed; errno tells which way */
  KLVLOCK_ETIMEDOUT = -3,    /* no reply within the time-out (see below) */
  KLVLOCK_EUNREACHABLE = -4, /* nothing listens on the daemon's port */
  KLVLOCK_ENOMEM = -5,       /* out of memory */
  KLVLOCK_EBUSY = -6,        /* called from inside an event callback */
  KLVLOCK_EAGAIN = -7,       /* klvlock_next_event: no event queued */
  KLVLOCK_EINTERNAL = -8     /* an unexpected failure inside the library */
};

/* Request codes, as on the wire. */
enum {
  KLVLOCK_REQ_OPEN = 1,
  KLVLOCK_REQ_LOCK = 2,
  KLVLOCK_REQ_UNLOCK = 3,
  KLVLOCK_REQ_CLIENT_END = 4,
  KLVLOCK_REQ_TEXT = 5,
  KLVLOCK_REQ_CLOSE = 6,
  KLVLOCK_REQ_OPLOCK_RELEASE = 7,
  KLVLOCK_REQ_VERSION = 1000, /* the probe with wantreply 1, answered by the daemon */
  KLVLOCK_REQ_NOOP = 1001
};

/* The status of a reply. */
enum {
  KLVLOCK_STATUS_DONE = 0,      /* done or granted */
  KLVLOCK_STATUS_CONFLICT = 1,  /* share violation on open, range overlap on lock */
  KLVLOCK_STATUS_NOT_FOUND = 2, /* unlock of an unknown file or of a range not held */
  KLVLOCK_STATUS_UNKNOWN = 4,   /* unknown request, or oplock release of an unknown file */
  KLVLOCK_STATUS_WAIT = 5       /* the open must wait for oplock breaks; value = wait id */
};

/* Open modes: one access value ORed with one deny value. */
enum {
  KLVLOCK_OPEN_READ = 0x0,
  KLVLOCK_OPEN_WRITE = 0x1,
  KLVLOCK_OPEN_READWRITE = 0x2,
  KLVLOCK_OPEN_EXECUTE = 0x3, /* treated as read */
  KLVLOCK_OPEN_MSDOS = 0xF,   /* treated as read-write */
  KLVLOCK_DENY_MSDOS = 0x00,  /* compatibility mode */
  KLVLOCK_DENY_READWRITE = 0x10,
  KLVLOCK_DENY_WRITE = 0x20,
  KLVLOCK_DENY_READ = 0x30,
  KLVLOCK_DENY_NONE = 0x40
};

/* Byte-range lock types. */
enum { KLVLOCK_LOCK_EXCLUSIVE = 0, KLVLOCK_LOCK_SHARED = 1 };

/* The longest path or text a request carries, in bytes, without its NUL. */
#define KLVLOCK_MAX_STRING 4095
/* The client name field on the wire is this many bytes. */
#define KLVLOCK_NAME_SIZE 16

/* A file's identity: two words that the daemon compares and never reads. */
typedef struct klvlock_file {
  uint32_t hi;
  uint32_t lo;
} klvlock_file;

/* One request. Fields that a code does not use are ignored. */
typedef struct klvlock_request {
  uint32_t code;      /* KLVLOCK_REQ_* */
  uint32_t clientfid; /* the caller's number for this open of the file */
  klvlock_file file;
  uint32_t waitid;   /* open: the wait id of an earlier open that had to wait, else 0 */
  uint32_t openmode; /* open: KLVLOCK_OPEN_* | KLVLOCK_DENY_* */
  uint32_t oplock;   /* open: nonzero asks for an oplock */
  const char* path;  /* open: the file's path, or NULL */
  uint32_t offset;   /* lock, unlock: first byte of the range */
  uint32_t length;   /* lock, unlock: number of bytes */
  uint32_t locktype; /* lock: KLVLOCK_LOCK_* */
  const char* text;  /* text: carried to the daemon and dropped there; NULL is "" */
} klvlock_request;

/* A decoded reply. */
typedef struct klvlock_reply {
  uint32_t code;           /* the request's code */
  uint32_t tag;            /* the request's tag */
  uint32_t status;         /* KLVLOCK_STATUS_* */
  uint32_t value;          /* the wait id when status is KLVLOCK_STATUS_WAIT, else 0 */
  uint32_t oplock_granted; /* open: 1 when the open was given an oplock */
  uint32_t version;        /* version request: the daemon's version, 201905 */
} klvlock_reply;

/* What klvlock_process and the waiting calls deliver. */
enum {
  KLVLOCK_EVENT_REPLY = 1,        /* the reply to a submitted request */
  KLVLOCK_EVENT_LOST = 2,         /* a submitted request's time ran out: reply.code, reply.tag */
  KLVLOCK_EVENT_OPLOCK_BREAK = 3, /* give up the oplock of file/clientfid */
  KLVLOCK_EVENT_OPEN_RETRY = 4,   /* the wait waitid is over: repeat the open with it */
  KLVLOCK_EVENT_PROBE = 5         /* a liveness probe came and was answered */
};

typedef struct klvlock_event {
  int kind;            /* KLVLOCK_EVENT_* */
  klvlock_reply reply; /* REPLY, LOST */
  klvlock_file file;   /* OPLOCK_BREAK: the file whose oplock is broken */
  uint32_t clientfid;  /* OPLOCK_BREAK: the holder's clientfid */
  uint32_t session;    /* OPLOCK_BREAK: the holder's session; OPEN_RETRY: the waiter's */
  uint32_t waitid;     /* OPEN_RETRY: the wait id to repeat the open with */
} klvlock_event;

/* An event handler. It runs on the caller's thread, inside the library call
 * that read the datagram (a blocking request call, klvlock_wait or
 * klvlock_process), before that call returns. It may call klvlock_submit on
 * the session; any other call that reads the socket, and klvlock_destroy,
 * answer KLVLOCK_EBUSY there. The event is valid during the call only. */
typedef void (*klvlock_event_fn)(const klvlock_event* event, void* user);

typedef struct klvlock_session klvlock_session;

/* Opens a session with the daemon at 127.0.0.1:daemon_port. session_id is
 * the second half of the client's identity; name (at most 16 bytes, NULL
 * for none) is sent with every open. On success *session is the new handle. */
KLVLOCK_API int klvlock_create(uint16_t daemon_port, uint32_t session_id, const char* name,
                               klvlock_session** session);
/* Closes the socket and frees the session; NULL is allowed. It sends
 * nothing: end the client first (klvlock_client_end) to release at once
 * what it holds, or the daemon releases it when its probes go unanswered. */
KLVLOCK_API int klvlock_destroy(klvlock_session* session);

/* The socket to poll for input (POLLIN) in a program's own event loop. */
KLVLOCK_API int klvlock_fd(const klvlock_session* session);
/* The session's own UDP port, the other half of its identity. */
KLVLOCK_API uint16_t klvlock_local_port(const klvlock_session* session);

/* Sets the event handler (NULL to queue events for klvlock_next_event). */
KLVLOCK_API void klvlock_set_callback(klvlock_session* session, klvlock_event_fn fn, void* user);

/* Blocking form. Sends the request and waits up to timeout_ms (at least 1)
 * for its reply, which goes to *reply. Replies that arrive late for an
 * earlier call are dropped. On KLVLOCK_ETIMEDOUT the reply was lost, or the
 * request was: there is no telling which.
 *
 * Open, lock, unlock, close, oplock release and client end are sent once and
 * never repeated, since a second copy is not harmless (a repeated lock
 * conflicts with the first). After one of them timed out the caller does not
 * know what the daemon holds for it: close the clientfid (and, for an open
 * that had to wait, forget its wait id) and open again, or end the client and
 * start over. A close or client end may simply be sent again. No-op, text
 * and version are resent within the time-out, since a repetition is harmless. */
KLVLOCK_API int klvlock_call(klvlock_session* session, const klvlock_request* request,
                             int timeout_ms, klvlock_reply* reply);

/* One blocking call per request; each builds the request and calls
 * klvlock_call. */
KLVLOCK_API int klvlock_open(klvlock_session* session, klvlock_file file, uint32_t clientfid,
                             uint32_t openmode, int oplock, uint32_t waitid, const char* path,
                             int timeout_ms, klvlock_reply* reply);
KLVLOCK_API int klvlock_lock(klvlock_session* session, klvlock_file file, uint32_t clientfid,
                             uint32_t offset, uint32_t length, uint32_t locktype, int timeout_ms,
                             klvlock_reply* reply);
KLVLOCK_API int klvlock_unlock(klvlock_session* session, klvlock_file file, uint32_t clientfid,
                               uint32_t offset, uint32_t length, int timeout_ms,
                               klvlock_reply* reply);
KLVLOCK_API int klvlock_close(klvlock_session* session, klvlock_file file, uint32_t clientfid,
                              int timeout_ms, klvlock_reply* reply);
KLVLOCK_API int klvlock_oplock_release(klvlock_session* session, klvlock_file file,
                                       uint32_t clientfid, int timeout_ms, klvlock_reply* reply);
KLVLOCK_API int klvlock_client_end(klvlock_session* session, int timeout_ms, klvlock_reply* reply);
KLVLOCK_API int klvlock_text(klvlock_session* session, const char* text, int timeout_ms,
                             klvlock_reply* reply);
KLVLOCK_API int klvlock_noop(klvlock_session* session, int timeout_ms, klvlock_reply* reply);
/* Asks the daemon for its version (201905 for 2.01.905). */
KLVLOCK_API int klvlock_version(klvlock_session* session, int timeout_ms, uint32_t* version);

/* Non-blocking form. Sends the request and stores its tag in *tag (may be
 * NULL). Its reply comes later as a KLVLOCK_EVENT_REPLY with that tag, or,
 * when timeout_ms (at least 1) have passed without it, as a
 * KLVLOCK_EVENT_LOST; nothing is ever resent in this form. */
KLVLOCK_API int klvlock_submit(klvlock_session* session, const klvlock_request* request,
                               int timeout_ms, uint32_t* tag);
/* Reads every datagram that has arrived, without blocking: answers probes,
 * delivers replies and events, and reports submitted requests whose time ran
 * out. Returns the number of events delivered, or a negative error. */
KLVLOCK_API int klvlock_process(klvlock_session* session);
/* Milliseconds until the earliest submitted request times out, or -1 when
 * none is outstanding: a bound for the caller's poll. */
KLVLOCK_API int klvlock_next_timeout(const klvlock_session* session);
/* Reads and delivers as klvlock_process does, waiting up to timeout_ms (0:
 * not at all) until at least one event has been delivered. KLVLOCK_OK once
 * one was, KLVLOCK_ETIMEDOUT when none came. */
KLVLOCK_API int klvlock_wait(klvlock_session* session, int timeout_ms);

/* Takes the oldest queued event (events are queued only while no callback is
 * set; at most 1024 are kept, the oldest dropped first). KLVLOCK_EAGAIN when
 * the queue is empty; it does not read the socket. */
KLVLOCK_API int klvlock_next_event(klvlock_session* session, klvlock_event* event);

/* A fixed English text for an error code. */
KLVLOCK_API const char* klvlock_strerror(int error);

#ifdef __cplusplus
}
#endif

#endif /* KLVLOCK_H_ */
