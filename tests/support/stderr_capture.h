#ifndef KLV_TESTS_SUPPORT_STDERR_CAPTURE_H_
#define KLV_TESTS_SUPPORT_STDERR_CAPTURE_H_

#include <string>

namespace klv {

// Collects what this process writes to standard error (descriptor 2) between
// its construction and Text(), through a temporary file put in its place.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Restores standard error and returns what was written to it; later calls
  // return the same text.
  std::string Text();

 private:
  int saved_fd_ = -1;
  std::string path_;
  std::string text_;
};

}  // namespace klv

#endif  // KLV_TESTS_SUPPORT_STDERR_CAPTURE_H_
