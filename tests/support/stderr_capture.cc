#include "tests/support/stderr_capture.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "tests/support/process_tools.h"

namespace klv {

StderrCapture::StderrCapture() {
  char pattern[] = "/tmp/klv-stderr-XXXXXX";
  const int fd = mkstemp(pattern);
  path_ = pattern;
  fflush(stderr);
  saved_fd_ = dup(2);
  dup2(fd, 2);
  close(fd);
}

StderrCapture::~StderrCapture() {
  Text();
  unlink(path_.c_str());
}

std::string StderrCapture::Text() {
  if (saved_fd_ < 0) return text_;
  fflush(stderr);
  dup2(saved_fd_, 2);
  close(saved_fd_);
  saved_fd_ = -1;
  text_ = process_tools::ReadFileFrom(path_, 0);
  return text_;
}

}  // namespace klv
