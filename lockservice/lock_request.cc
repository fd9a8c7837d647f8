#include "lockservice/lock_request.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

namespace klv {

namespace {

// Request layout, little-endian 32-bit words:
//   head      0 code  4 tag  8 session  12 clientfid  16 filekey_hi  20 filekey_lo
//             24 waitid
//   REQ_OPEN    28 openmode  32 oplockwanted  36 clientname (16 bytes, ends at
//               the first NUL or after 16 bytes)  52 path (NUL-terminated)
//   REQ_LOCK    28 offset  32 length  36 locktype
//   REQ_UNLOCK  28 offset  32 length
//   REQ_TEXT    28 text (NUL-terminated; carried and ignored, so not read)
//   REQ_PROBE   28 version  32 wantreply
//
// Reads a datagram at those offsets without ever passing its end: a word that
// does not lie wholly inside reads as 0, a string without its NUL as empty.
class WireReader {
 public:
  WireReader(const unsigned char* data, size_t size) : data_(data), size_(size) {}

  uint32_t WordAt(size_t offset) const {
    if (size_ < offset + 4) return 0;
    uint32_t word;
    memcpy(&word, data_ + offset, sizeof word);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    return word;
  }

  // The name field: up to the first NUL, at most 16 bytes, fewer when the
  // datagram ends inside the field. Answers where its bytes lie.
  std::pair<uint32_t, uint32_t> NameAt(size_t offset) const {
    if (size_ <= offset) return {0, 0};
    const size_t available = std::min(size_ - offset, kClientNameSize);
    const void* nul = memchr(data_ + offset, 0, available);
    const size_t length =
        nul == nullptr ? available : static_cast<const unsigned char*>(nul) - (data_ + offset);
    return {static_cast<uint32_t>(offset), static_cast<uint32_t>(length)};
  }

  // A NUL-terminated string; without a NUL before the end it reads as empty.
  std::pair<uint32_t, uint32_t> StringAt(size_t offset) const {
    if (size_ <= offset) return {0, 0};
    const void* nul = memchr(data_ + offset, 0, size_ - offset);
    if (nul == nullptr) return {0, 0};
    const size_t length = static_cast<const unsigned char*>(nul) - (data_ + offset);
    return {static_cast<uint32_t>(offset), static_cast<uint32_t>(length)};
  }

 private:
  const unsigned char* data_;
  size_t size_;
};

void PutWord(char* buffer, size_t offset, uint32_t word) {
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
  memcpy(buffer + offset, &word, sizeof word);
}

}  // namespace

void LockRequest::Decode(const unsigned char* data, size_t size) {
  const WireReader reader(data, size);
  clientname_ = path_ = Span();
  code_ = reader.WordAt(0);
  tag_ = reader.WordAt(4);
  session_ = reader.WordAt(8);
  clientfid_ = reader.WordAt(12);
  filekey_hi_ = reader.WordAt(16);
  filekey_lo_ = reader.WordAt(20);
  waitid_ = reader.WordAt(24);
  switch (code_) {
    case REQ_OPEN:
      openmode_ = reader.WordAt(28);
      oplockwanted_ = reader.WordAt(32);
      std::tie(clientname_.at, clientname_.length) = reader.NameAt(36);
      std::tie(path_.at, path_.length) = reader.StringAt(36 + kClientNameSize);
      break;
    case REQ_LOCK:
      offset_ = reader.WordAt(28);
      length_ = reader.WordAt(32);
      locktype_ = reader.WordAt(36);
      break;
    case REQ_UNLOCK:
      offset_ = reader.WordAt(28);
      length_ = reader.WordAt(32);
      break;
    case REQ_PROBE:
      version_ = reader.WordAt(28);
      wantreply_ = reader.WordAt(32);
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
  if (encoded_size_ != 0) return {encoded_, encoded_size_};
  return wire_;
}

void LockRequest::Encode() {
  clientname_ = path_ = Span();
  wire_ = {};
  encoded_size_ = code_ == REQ_PROBE ? kProbeSize : kRequestHeadSize;
  char* buffer = encoded_;
  const uint32_t head[] = {code_, tag_, session_, clientfid_, filekey_hi_, filekey_lo_, waitid_};
  for (size_t i = 0; i < 7; ++i) PutWord(buffer, 4 * i, head[i]);
  if (code_ == REQ_PROBE) {
    PutWord(buffer, 28, version_);
    PutWord(buffer, 32, wantreply_);
  }
  needs_encoding_ = false;
}

// Reply layout, little-endian 32-bit words:
//   head                0 code  4 tag  8 status  12 value
//   REQ_OPEN            16 oplockgranted
//   MSG_OPLOCK_BREAK    16 filekey_hi  20 filekey_lo  24 holder's clientfid
//                       28 holder's session
//   MSG_OPEN_RETRY      16 the waiter's session
//   REPLY_HALFWORD      16 one 16-bit word
// The bytes start zeroed, so bytes no field covers are 0.
size_t LockReply::LengthFor(uint32_t code) {
  switch (code) {
    case REQ_OPEN:
    case MSG_OPEN_RETRY:
      return kReplyHeadSize + 4;
    case MSG_OPLOCK_BREAK:
      return kReplyHeadSize + 16;
    case REPLY_HALFWORD:
      return kReplyHeadSize + 2;
    default:
      return kReplyHeadSize;
  }
}

std::string_view LockReply::Bytes() {
  if (needs_encoding_) Encode();
  return {bytes_, LengthFor(code_)};
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

void LockReply::Encode() {
  const size_t length = LengthFor(code_);
  char* buffer = bytes_;
  memset(buffer, 0, sizeof bytes_);
  PutWord(buffer, 0, code_);
  PutWord(buffer, 4, tag_);
  PutWord(buffer, 8, static_cast<uint32_t>(status_));
  PutWord(buffer, 12, value_);
  // The half word of REPLY_HALFWORD stays 0: no whole body word fits.
  for (size_t offset = kReplyHeadSize; offset + 4 <= length; offset += 4) {
    PutWord(buffer, offset, body_[(offset - kReplyHeadSize) / 4]);
  }
  needs_encoding_ = false;
}

}  // namespace klv
