#include "tests/support/wire_bytes.h"

#include <cstdio>

namespace klv {

namespace wire {

std::string Word(uint32_t value) {
  std::string bytes(4, '\0');
  bytes[0] = static_cast<char>(value & 0xFF);
  bytes[1] = static_cast<char>((value >> 8) & 0xFF);
  bytes[2] = static_cast<char>((value >> 16) & 0xFF);
  bytes[3] = static_cast<char>((value >> 24) & 0xFF);
  return bytes;
}

std::string Words(std::initializer_list<uint32_t> values) {
  std::string bytes;
  for (const uint32_t value : values) bytes += Word(value);
  return bytes;
}

uint32_t WordAt(const std::string& bytes, size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < 4) return 0;
  const auto byte = [&](size_t index) {
    return static_cast<uint32_t>(static_cast<unsigned char>(bytes[offset + index]));
  };
  return byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
}

std::string HeadBytes(const RequestHead& head) {
  return Words({head.code, head.tag, head.session, head.clientfid, head.filekey_hi, head.filekey_lo,
                head.waitid});
}

std::string OpenBytes(RequestHead head, uint32_t openmode, uint32_t oplockwanted,
                      const std::string& clientname, const std::string& path) {
  head.code = kOpen;
  std::string name = clientname.substr(0, 16);
  name.resize(16, '\0');
  return HeadBytes(head) + Words({openmode, oplockwanted}) + name + path + std::string(1, '\0');
}

std::string LockBytes(RequestHead head, uint32_t offset, uint32_t length, uint32_t locktype) {
  head.code = kLock;
  return HeadBytes(head) + Words({offset, length, locktype});
}

std::string UnlockBytes(RequestHead head, uint32_t offset, uint32_t length) {
  head.code = kUnlock;
  return HeadBytes(head) + Words({offset, length});
}

std::string TextBytes(RequestHead head, const std::string& text) {
  head.code = kText;
  return HeadBytes(head) + text + std::string(1, '\0');
}

std::string BareBytes(uint32_t code, RequestHead head) {
  head.code = code;
  return HeadBytes(head);
}

std::string ProbeBytes(RequestHead head, uint32_t version, uint32_t wantreply) {
  head.code = kProbe;
  return HeadBytes(head) + Words({version, wantreply});
}

ReplyHead ReadReplyHead(const std::string& bytes) {
  return ReplyHead{WordAt(bytes, 0), WordAt(bytes, 4), WordAt(bytes, 8), WordAt(bytes, 12)};
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  std::string pair;
  for (const char digit : hex) {
    if (digit == ' ') continue;
    pair += digit;
    if (pair.size() < 2) continue;
    bytes += static_cast<char>(std::stoul(pair, nullptr, 16));
    pair.clear();
  }
  return bytes;
}

std::string Hex(const std::string& bytes) {
  std::string text;
  char pair[8];
  for (size_t index = 0; index < bytes.size(); ++index) {
    snprintf(pair, sizeof pair, index == 0 ? "%02x" : " %02x",
             static_cast<unsigned>(static_cast<unsigned char>(bytes[index])));
    text += pair;
  }
  return text;
}

}  // namespace wire

}  // namespace klv
