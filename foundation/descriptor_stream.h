#ifndef KLV_FOUNDATION_DESCRIPTOR_STREAM_H_
#define KLV_FOUNDATION_DESCRIPTOR_STREAM_H_

#include <cstddef>
#include <string>

#include "foundation/descriptor.h"
#include "foundation/output_stream.h"

namespace klv {

// Writes text as bytes (ISO 8859-1, id 26) to a descriptor that it does not
// own, a chunk at a time, so that a long text is never held whole. Each chunk
// goes out with the descriptor's Write in a loop over the part not yet
// written: a partial transfer (or a would-block, which moves nothing) moves on
// by what moved and writes the rest at once; a whole transfer ends the loop.
// A failure or end of file abandons the rest of the text without a word: what
// is written afterwards is dropped. Each write that moves bytes calls the
// progress hook, when one is given.
class DescriptorStream : public OutputStream {
 public:
  using ProgressHook = void (*)();

  explicit DescriptorStream(Descriptor* descriptor, ProgressHook on_progress = nullptr);
  // Writes what is still buffered.
  ~DescriptorStream() override;
  DescriptorStream(const DescriptorStream&) = delete;
  DescriptorStream& operator=(const DescriptorStream&) = delete;

  void Flush() override;
  void Write(const TextBuffer& text) override;
  void WriteBytes(const char* bytes, size_t count) override;

 private:
  static constexpr size_t kChunk = 1 << 18;

  Descriptor* descriptor_;
  ProgressHook on_progress_;
  std::string buffer_;
  bool abandoned_ = false;
};

}  // namespace klv

#endif  // KLV_FOUNDATION_DESCRIPTOR_STREAM_H_
