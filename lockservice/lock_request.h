#ifndef KLV_LOCKSERVICE_LOCK_REQUEST_H_
#define KLV_LOCKSERVICE_LOCK_REQUEST_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "protocol/wire.h"

namespace klv {

// One request datagram: a head of seven words and a body that depends on the
// code. The fields are read through the getters; every setter marks the
// record for re-encoding, and Bytes() rebuilds the bytes from the fields when
// marked. The daemon itself only ever sends probes, so only the head and the
// probe's body are encoded.
class LockRequest {
 public:
  LockRequest() = default;

  // Reads `size` bytes; never reads past them. Words beyond the end read as
  // 0; a string with no NUL before the end reads as empty. The text of
  // REQ_TEXT is not kept. The request views those bytes, which must outlive
  // it or its next change.
  void Decode(const unsigned char* data, size_t size);
  // The datagram: the decoded bytes, or the head (and a probe's body)
  // encoded afresh after a change. The view lasts until the record changes
  // or goes, and a view of decoded bytes no longer than they do.
  std::string_view Bytes();

  uint32_t Code() const { return code_; }
  uint32_t Tag() const { return tag_; }
  uint32_t Session() const { return session_; }
  uint32_t Clientfid() const { return clientfid_; }
  uint32_t FilekeyHi() const { return filekey_hi_; }
  uint32_t FilekeyLo() const { return filekey_lo_; }
  uint32_t WaitId() const { return waitid_; }
  uint32_t OpenMode() const { return openmode_; }
  uint32_t OplockWanted() const { return oplockwanted_; }
  // The name and the path of REQ_OPEN, viewed in the request's bytes: they
  // last as long as Bytes() does, and read as empty once the request is
  // encoded afresh.
  std::string_view ClientName() const { return Field(clientname_); }
  std::string_view Path() const { return Field(path_); }
  uint32_t Offset() const { return offset_; }
  uint32_t Length() const { return length_; }
  uint32_t LockType() const { return locktype_; }
  uint32_t WantReply() const { return wantreply_; }

  void SetCode(uint32_t code) { Change(&code_, code); }
  void SetTag(uint32_t tag) { Change(&tag_, tag); }
  void SetSession(uint32_t session) { Change(&session_, session); }
  void SetVersion(uint32_t version) { Change(&version_, version); }
  void SetWantReply(uint32_t wantreply) { Change(&wantreply_, wantreply); }

 private:
  void Change(uint32_t* field, uint32_t value) {
    *field = value;
    needs_encoding_ = true;
  }
  void Encode();

  // Where a string field lies in the decoded bytes.
  struct Span {
    uint32_t at = 0;
    uint32_t length = 0;
  };
  // Empty once the request is encoded afresh.
  std::string_view Field(Span span) const { return wire_.substr(span.at, span.length); }

  uint32_t code_ = 0;
  uint32_t tag_ = 0;
  uint32_t session_ = 0;
  uint32_t clientfid_ = 0;
  uint32_t filekey_hi_ = 0;
  uint32_t filekey_lo_ = 0;
  uint32_t waitid_ = 0;
  uint32_t openmode_ = 0;
  uint32_t oplockwanted_ = 0;
  Span clientname_;
  Span path_;
  uint32_t offset_ = 0;
  uint32_t length_ = 0;
  uint32_t locktype_ = 0;
  uint32_t version_ = 0;
  uint32_t wantreply_ = 0;
  bool needs_encoding_ = true;
  std::string_view wire_;    // the decoded datagram
  size_t encoded_size_ = 0;  // when not 0, the bytes encoded afresh
  unsigned char encoded_[request::kProbeSize];
};

// One reply datagram, or one of the daemon's own messages: a head of four
// words (code, tag, status, value) and a body whose length follows the code.
class LockReply {
 public:
  // Status kDone, value 0, body zero.
  LockReply(uint32_t code, uint32_t tag) : code_(code), tag_(tag) {}

  // The datagram, rebuilt from the fields when one changed since the last
  // call. The view lasts until the record changes or goes.
  std::string_view Bytes();

  void SetStatus(ReplyStatus status);
  void SetValue(uint32_t value);
  // REQ_OPEN body: 1 when the open was given an oplock.
  void SetOplockGranted(uint32_t granted) { SetBodyWord(0, granted); }
  // MSG_OPLOCK_BREAK body: the file and the holder's clientfid and session.
  void SetBreak(uint32_t filekey_hi, uint32_t filekey_lo, uint32_t clientfid, uint32_t session);
  // MSG_OPEN_RETRY body: the waiting client's session.
  void SetWaiterSession(uint32_t session) { SetBodyWord(0, session); }

 private:
  static constexpr int kBodyWords = 4;

  void SetBodyWord(int index, uint32_t word);
  void Encode();

  uint32_t code_;
  uint32_t tag_;
  ReplyStatus status_ = ReplyStatus::kDone;
  uint32_t value_ = 0;
  uint32_t body_[kBodyWords] = {};
  bool needs_encoding_ = true;
  unsigned char bytes_[reply::kLongest];
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_LOCK_REQUEST_H_
