// Traced-call edges that the daemon meets rarely: a port out of range, a
// failed socket option and a failure without arguments.

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "charset/charset.h"
#include "foundation/failure.h"
#include "foundation/socket.h"

namespace klv {
namespace {

TEST(TracedCalls, PortOutOfRangeIsRefused) {
  SocketAddress address;
  EXPECT_TRUE(address.SetPort(65535));
  EXPECT_FALSE(address.SetPort(65536));
  EXPECT_EQ(address.Port(), 0);
}

TEST(TracedCalls, BufferSizeIsSetOrItsFailureRecorded) {
  SocketAddress address;
  address.SetLoopback();
  Socket bound;
  ASSERT_TRUE(bound.BindTo(address, SOCK_DGRAM));
  EXPECT_TRUE(bound.SetRecvBuffer(32768));
  Socket unopened;
  EXPECT_FALSE(unopened.SetRecvBuffer(32768));
  const std::string text = unopened.LastFailure().Text().Encode(charset::kIso8859_1);
  EXPECT_TRUE(text.starts_with("setsockopt(") && text.ends_with("(9) Bad file descriptor")) << text;
}

TEST(TracedCalls, FailureWithoutArgumentsStillNamesItsCall) {
  SysCallFailure failure;
  failure.Record(ENOENT, TextBuffer::FromLiteral("open"));
  EXPECT_EQ(failure.Text().Encode(charset::kIso8859_1), "open(): (2) No such file or directory");
  failure.Record(ENOENT, TextBuffer());
  EXPECT_EQ(failure.Text().Encode(charset::kIso8859_1), "(2) No such file or directory");
}

}  // namespace
}  // namespace klv
