#include "foundation/text_buffer.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "charset/charset.h"

namespace klv {

namespace {

// Capacity for a content of `bytes`: a sixth more and 16 bytes of room,
// rounded down to a multiple of 16.
uint32_t GrownCapacity(uint32_t bytes) { return (bytes + bytes / 6 + 16) & ~uint32_t{15}; }

}  // namespace

TextBuffer::TextBuffer(const TextBuffer& other) : body_(other.body_) {
  if (body_ != nullptr) ++body_->references;
}

TextBuffer::TextBuffer(TextBuffer&& other) noexcept : body_(other.body_) { other.body_ = nullptr; }

TextBuffer& TextBuffer::operator=(const TextBuffer& other) {
  // Taking the reference first makes assigning a text to itself harmless.
  Body* body = other.body_;
  if (body != nullptr) ++body->references;
  Release();
  body_ = body;
  return *this;
}

TextBuffer& TextBuffer::operator=(TextBuffer&& other) noexcept {
  if (this != &other) {
    Release();
    body_ = other.body_;
    other.body_ = nullptr;
  }
  return *this;
}

TextBuffer::~TextBuffer() { Release(); }

TextBuffer TextBuffer::Decode(const char* bytes, uint32_t count, int charset_id) {
  const std::u16string units = charset::Decode(charset_id, std::string_view(bytes, count));
  TextBuffer text;
  if (units.empty()) return text;
  const uint32_t length = static_cast<uint32_t>(units.size() * sizeof(char16_t));
  text.SetLength(length);
  std::memcpy(text.body_->data, units.data(), length);
  return text;
}

TextBuffer TextBuffer::FromLiteral(const char* literal) {
  return Decode(literal, static_cast<uint32_t>(std::strlen(literal)), charset::kUtf8);
}

TextBuffer TextBuffer::FromBytes(const RefString& bytes) {
  return Decode(bytes.Text(), bytes.Length(), charset::kIso8859_1);
}

std::string TextBuffer::Encode(int charset_id) const {
  if (IsEmpty()) return std::string();
  return charset::Encode(charset_id, ToU16String());
}

RefString TextBuffer::ToRefString() const {
  const std::string bytes = Encode(charset::kIso8859_1);
  return RefString(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::u16string TextBuffer::ToU16String() const {
  std::u16string units(Length() / sizeof(char16_t), u'\0');
  if (!units.empty()) std::memcpy(units.data(), body_->data, units.size() * sizeof(char16_t));
  return units;
}

void TextBuffer::SetLength(uint32_t bytes) {
  MakeUnique();
  if (bytes >= body_->capacity) {
    body_->capacity = GrownCapacity(bytes);
    body_->data = static_cast<char*>(std::realloc(body_->data, body_->capacity));
  }
  body_->length = bytes;
}

void TextBuffer::Append(const TextBuffer& other) {
  if (other.IsEmpty()) return;
  // Holding the other body keeps it alive and intact when it is our own.
  const TextBuffer source = other;
  AppendBytes(source.body_->data, source.body_->length);
}

void TextBuffer::AppendBytes(const char* bytes, uint32_t count) {
  const uint32_t old_length = Length();
  SetLength(old_length + count);
  std::memcpy(body_->data + old_length, bytes, count);
}

void TextBuffer::Release() {
  if (body_ == nullptr) return;
  assert(body_->references > 0);
  if (body_->references-- == 1) {
    std::free(body_->data);
    delete body_;
  }
  body_ = nullptr;
}

void TextBuffer::MakeUnique() {
  if (body_ == nullptr) {
    body_ = new Body{1, 0, 0, nullptr};
    return;
  }
  if (body_->references == 1) return;
  Body* copy = new Body{1, body_->length, GrownCapacity(body_->length), nullptr};
  copy->data = static_cast<char*>(std::malloc(copy->capacity));
  if (body_->length != 0) std::memcpy(copy->data, body_->data, body_->length);
  Release();
  body_ = copy;
}

}  // namespace klv
