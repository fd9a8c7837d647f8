#include "foundation/ref_string.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace klv {

namespace {

// Room given to every body built from existing bytes: the NUL and six more.
constexpr uint32_t kFreshRoom = 7;

// Capacity for `bytes` bytes: a sixth more and 16 bytes of room, rounded down
// to a multiple of 16, so that a string built piece by piece is copied a
// number of times that grows only with the logarithm of its length.
uint32_t GrownCapacity(uint32_t bytes) { return (bytes + bytes / 6 + 16) & ~uint32_t{15}; }

const char kEmptyText[] = "";

}  // namespace

RefString::RefString(const char* bytes, uint32_t count) : body_(NewBody(bytes, count)) {}

RefString::RefString(const char* text)
    : body_(NewBody(text, static_cast<uint32_t>(std::strlen(text)))) {}

RefString::RefString(const RefString& other) : body_(other.body_) {
  if (body_ != nullptr) ++body_->references;
}

RefString::RefString(RefString&& other) noexcept : body_(other.body_) { other.body_ = nullptr; }

RefString& RefString::operator=(const RefString& other) {
  // Counting the new body first keeps self-assignment from freeing it.
  Body* body = other.body_;
  if (body != nullptr) ++body->references;
  Release();
  body_ = body;
  return *this;
}

RefString& RefString::operator=(RefString&& other) noexcept {
  if (this != &other) {
    Release();
    body_ = other.body_;
    other.body_ = nullptr;
  }
  return *this;
}

RefString::~RefString() { Release(); }

const char* RefString::Text() const { return body_ != nullptr ? body_->buffer : kEmptyText; }

void RefString::Append(const char* bytes, uint32_t count) {
  if (count == 0) return;
  MakeUnique();
  Body* body = body_;
  if (body->capacity <= body->length + count) {
    // The bytes may be this string's own (appending it to itself); find them
    // again in the reallocated buffer.
    const std::less_equal<const char*> in_order;
    const bool own =
        in_order(body->buffer, bytes) && in_order(bytes + count, body->buffer + body->length);
    const size_t offset = own ? static_cast<size_t>(bytes - body->buffer) : 0;
    body->capacity = GrownCapacity(body->length + count + 1);
    body->buffer = static_cast<char*>(std::realloc(body->buffer, body->capacity));
    if (own) bytes = body->buffer + offset;
  }
  std::memcpy(body->buffer + body->length, bytes, count);
  body->length += count;
  body->buffer[body->length] = '\0';
}

void RefString::Append(const char* text) { Append(text, static_cast<uint32_t>(std::strlen(text))); }

bool RefString::Equals(const RefString& other) const {
  if (body_ == other.body_) return true;
  return Equals(std::string_view(other.Text(), other.Length()));
}

bool RefString::Equals(std::string_view bytes) const {
  return Length() == bytes.size() && std::memcmp(Text(), bytes.data(), bytes.size()) == 0;
}

RefString::Body* RefString::NewBody(const char* bytes, uint32_t count) {
  Body* body = new Body;
  body->length = count;
  body->capacity = count + kFreshRoom;
  body->buffer = static_cast<char*>(std::malloc(body->capacity));
  if (count > 0) std::memcpy(body->buffer, bytes, count);
  body->buffer[count] = '\0';
  body->references = 1;
  return body;
}

void RefString::Release() {
  if (body_ == nullptr) return;
  assert(body_->references > 0);
  if (--body_->references == 0) {
    std::free(body_->buffer);
    delete body_;
  }
  body_ = nullptr;
}

void RefString::MakeUnique() {
  if (body_ == nullptr) {
    body_ = NewBody(kEmptyText, 0);
  } else if (body_->references > 1) {
    Body* copy = NewBody(body_->buffer, body_->length);
    Release();
    body_ = copy;
  }
}

}  // namespace klv
