#include "foundation/descriptor_stream.h"

#include "charset/charset.h"

namespace klv {

DescriptorStream::DescriptorStream(Descriptor* descriptor, ProgressHook on_progress)
    : descriptor_(descriptor), on_progress_(on_progress) {
  buffer_.reserve(kChunk);
}

DescriptorStream::~DescriptorStream() { Flush(); }

void DescriptorStream::Flush() {
  size_t written = 0;
  while (!abandoned_ && written < buffer_.size()) {
    long count = 0;
    const TransferStatus status =
        descriptor_->Write(buffer_.data() + written, buffer_.size() - written, &count);
    if (status == TransferStatus::kFailed || status == TransferStatus::kEndOfFile) {
      abandoned_ = true;
      break;
    }
    if (on_progress_ != nullptr && (status == TransferStatus::kComplete || count > 0)) {
      on_progress_();
    }
    if (status == TransferStatus::kComplete) break;
    written += static_cast<size_t>(count);
  }
  buffer_.clear();
}

void DescriptorStream::Write(const TextBuffer& text) {
  const std::string bytes = text.Encode(charset::kIso8859_1);
  WriteBytes(bytes.data(), bytes.size());
}

void DescriptorStream::WriteBytes(const char* bytes, size_t count) {
  if (abandoned_) return;
  buffer_.append(bytes, count);
  if (buffer_.size() >= kChunk) Flush();
}

}  // namespace klv
