#include "lockservice/lock_request.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

namespace klv {

namespace {

// Where a string field of the datagram lies: {offset, length}.
using Place = std::pair<uint32_t, uint32_t>;

// The name field: up to the first NUL, at most 16 bytes, fewer when the
// datagram ends inside the field.
Place NameAt(const unsigned char* data, size_t size, size_t offset) {
  if (size <= offset) return {0, 0};
  const size_t available = std::min(size - offset, request::kClientNameSize);
  const void* nul = memchr(data + offset, 0, available);
  const size_t length =
      nul == nullptr ? available : static_cast<const unsigned char*>(nul) - (data + offset);
  return {static_cast<uint32_t>(offset), static_cast<uint32_t>(length)};
}

// A NUL-terminated string; without a NUL before the end it reads as empty.
Place StringAt(const unsigned char* data, size_t size, size_t offset) {
  if (size <= offset) return {0, 0};
  const void* nul = memchr(data + offset, 0, size - offset);
  if (nul == nullptr) return {0, 0};
  const size_t length = static_cast<const unsigned char*>(nul) - (data + offset);
  return {static_cast<uint32_t>(offset), static_cast<uint32_t>(length)};
}

}  // namespace

// Reads the datagram at the offsets of protocol/wire.h without ever passing
// its end: a word that does not lie wholly inside reads as 0, a string
// without its NUL as empty. The text of REQ_TEXT is carried and ignored, so it
// is not read.
void LockRequest::Decode(const unsigned char* data, size_t size) {
  const auto word = [data, size](size_t offset) { return ReadWord(data, size, offset); };
  clientname_ = path_ = Span();
  code_ = word(request::kCode);
  tag_ = word(request::kTag);
  session_ = word(request::kSession);
  clientfid_ = word(request::kClientfid);
  filekey_hi_ = word(request::kFilekeyHi);
  filekey_lo_ = word(request::kFilekeyLo);
  waitid_ = word(request::kWaitId);
  switch (code_) {
    case REQ_OPEN:
      openmode_ = word(request::kOpenMode);
      oplockwanted_ = word(request::kOplockWanted);
      std::tie(clientname_.at, clientname_.length) = NameAt(data, size, request::kClientName);
      std::tie(path_.at, path_.length) = StringAt(data, size, request::kPath);
      break;
    case REQ_LOCK:
      offset_ = word(request::kOffset);
      length_ = word(request::kLength);
      locktype_ = word(request::kLockType);
      break;
    case REQ_UNLOCK:
      offset_ = word(request::kOffset);
      length_ = word(request::kLength);
      break;
    case REQ_PROBE:
      version_ = word(request::kVersion);
      wantreply_ = word(request::kWantReply);
      break;
    default:
      break;
  }
  wire_ = {reinterpret_cast<const char*>(data), size};
  encoded_size_ = 0;
  needs_encoding_ = false;
}

std::string_view LockRequest::Bytes() {
  if (needs_encoding_) Encode();
  if (encoded_size_ != 0) return {reinterpret_cast<const char*>(encoded_), encoded_size_};
  return wire_;
}

// Only the head and a probe's body are ever encoded: the daemon sends no
// other request.
void LockRequest::Encode() {
  clientname_ = path_ = Span();
  wire_ = {};
  encoded_size_ = code_ == REQ_PROBE ? request::kProbeSize : request::kHeadSize;
  WriteWord(encoded_, request::kCode, code_);
  WriteWord(encoded_, request::kTag, tag_);
  WriteWord(encoded_, request::kSession, session_);
  WriteWord(encoded_, request::kClientfid, clientfid_);
  WriteWord(encoded_, request::kFilekeyHi, filekey_hi_);
  WriteWord(encoded_, request::kFilekeyLo, filekey_lo_);
  WriteWord(encoded_, request::kWaitId, waitid_);
  if (code_ == REQ_PROBE) {
    WriteWord(encoded_, request::kVersion, version_);
    WriteWord(encoded_, request::kWantReply, wantreply_);
  }
  needs_encoding_ = false;
}

std::string_view LockReply::Bytes() {
  if (needs_encoding_) Encode();
  return {reinterpret_cast<const char*>(bytes_), reply::LengthFor(code_)};
}

void LockReply::SetStatus(ReplyStatus status) {
  status_ = status;
  needs_encoding_ = true;
}

void LockReply::SetValue(uint32_t value) {
  value_ = value;
  needs_encoding_ = true;
}

void LockReply::SetBreak(uint32_t filekey_hi, uint32_t filekey_lo, uint32_t clientfid,
                         uint32_t session) {
  SetBodyWord(0, filekey_hi);
  SetBodyWord(1, filekey_lo);
  SetBodyWord(2, clientfid);
  SetBodyWord(3, session);
}

void LockReply::SetBodyWord(int index, uint32_t word) {
  body_[index] = word;
  needs_encoding_ = true;
}

// The bytes start zeroed, so bytes that no field covers are 0; the half word
// of REPLY_HALFWORD stays 0, since no whole body word fits.
void LockReply::Encode() {
  const size_t length = reply::LengthFor(code_);
  memset(bytes_, 0, sizeof bytes_);
  WriteWord(bytes_, reply::kCode, code_);
  WriteWord(bytes_, reply::kTag, tag_);
  WriteWord(bytes_, reply::kStatus, static_cast<uint32_t>(status_));
  WriteWord(bytes_, reply::kValue, value_);
  for (size_t offset = reply::kHeadSize; offset + 4 <= length; offset += 4) {
    WriteWord(bytes_, offset, body_[(offset - reply::kHeadSize) / 4]);
  }
  needs_encoding_ = false;
}

}  // namespace klv
