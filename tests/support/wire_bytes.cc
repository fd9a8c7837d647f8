#include "tests/support/wire_bytes.h"

#include <cstdio>

namespace klv {

namespace wire {

std::string Word(uint32_t value) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::string Words(std::initializer_list<uint32_t> values) {
  std::string bytes;
  for (const uint32_t value : values) bytes += Word(value);
  return bytes;
}

uint32_t WordAt(const std::string& bytes, size_t offset) {
  uint32_t word = 0;
  for (size_t index = 4; index-- > 0 && offset + 4 <= bytes.size();) {
    word = word << 8 | static_cast<unsigned char>(bytes[offset + index]);
  }
  return word;
}

std::string HeadBytes(const RequestHead& head) {
  return Words({head.code, head.tag, head.session, head.clientfid, head.filekey_hi, head.filekey_lo,
                head.waitid});
}

std::string OpenBytes(RequestHead head, uint32_t openmode, uint32_t oplockwanted,
                      const std::string& clientname, const std::string& path) {
  std::string name = clientname.substr(0, 16);
  name.resize(16, '\0');
  return BareBytes(kOpen, head) + Words({openmode, oplockwanted}) + name + path +
         std::string(1, '\0');
}

std::string Hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char pair[4];
    snprintf(pair, sizeof pair, "%02x ", static_cast<unsigned char>(byte));
    text += pair;
  }
  return text;
}

}  // namespace wire

}  // namespace klv
