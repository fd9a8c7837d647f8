#ifndef KLV_FOUNDATION_REF_STRING_H_
#define KLV_FOUNDATION_REF_STRING_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace klv {

// A byte string with a shared, reference-counted body and copy-on-write.
// Copying a handle never copies bytes; a body is duplicated only when a holder
// that shares it is about to change it. The bytes are arbitrary (NULs allowed)
// and the body always keeps a NUL after the last byte. A null handle is the
// empty string and owns no body. The one copy-on-write body of the library:
// TextBuffer keeps its 16-bit units in a RefString too. Not thread-safe: the
// count is a plain integer.
class RefString {
 public:
  RefString() = default;
  // New body: capacity count + 7, the bytes copied, a NUL behind them.
  RefString(const char* bytes, uint32_t count);
  explicit RefString(std::string_view bytes)
      : RefString(bytes.data(), static_cast<uint32_t>(bytes.size())) {}
  // From a NUL-terminated text; the length is taken with strlen.
  explicit RefString(const char* text);
  RefString(const RefString& other);
  RefString(RefString&& other) noexcept;
  RefString& operator=(const RefString& other);
  RefString& operator=(RefString&& other) noexcept;
  ~RefString();

  uint32_t Length() const { return body_ ? body_->length : 0; }
  // The bytes, NUL-terminated; never null (a static empty text for a null handle).
  const char* Text() const;
  bool IsEmpty() const { return Length() == 0; }

  // Appends `count` bytes, which may be this string's own. Grows, when they
  // do not fit, to n + n / 6 + 16 bytes rounded down to a multiple of 16, n
  // being the new length with its NUL.
  void Append(const char* bytes, uint32_t count);
  void Append(const char* text);

  // Same body, or same length and same bytes.
  bool Equals(const RefString& other) const;
  // The same bytes as `bytes`.
  bool Equals(std::string_view bytes) const;
  bool operator==(const RefString& other) const { return Equals(other); }

 private:
  struct Body {
    uint32_t length;
    uint32_t capacity;
    char* buffer;
    uint32_t references;
  };

  static Body* NewBody(const char* bytes, uint32_t count);
  void Release();
  // Runs before every change: gives a null handle an empty body of its own and
  // a shared body a private copy.
  void MakeUnique();

  Body* body_ = nullptr;
};

}  // namespace klv

#endif  // KLV_FOUNDATION_REF_STRING_H_
