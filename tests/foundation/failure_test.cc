#include "foundation/failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace klv {

namespace {

std::string Latin1(const TextBuffer& text) { return text.Encode(26); }

TEST(Failure, NewFailureTakesCurrentErrno) {
  errno = EIO;
  const Failure failure;
  EXPECT_EQ(failure.ErrorNumber(), EIO);
  EXPECT_TRUE(failure.Message().IsEmpty());
  EXPECT_TRUE(failure.Arguments().IsEmpty());
  errno = ENOENT;
  const Failure with_message(TextBuffer::FromLiteral("! (0 <= port 70000 < 65536)"));
  EXPECT_EQ(with_message.ErrorNumber(), ENOENT);
}

TEST(Failure, TextIsTheMessage) {
  Failure failure(TextBuffer::FromLiteral("port out of range"));
  EXPECT_EQ(Latin1(failure.Text()), "port out of range");
  failure.Record(EINVAL, TextBuffer::FromLiteral("replaced"));
  EXPECT_EQ(Latin1(failure.Text()), "replaced");
  EXPECT_EQ(failure.ErrorNumber(), EINVAL);
}

TEST(Failure, RecordSharesArgumentText) {
  const TextBuffer arguments = TextBuffer::FromLiteral("3,127.0.0.1:5000");
  SysCallFailure failure;
  failure.Record(EADDRINUSE, "bind", arguments);
  EXPECT_EQ(arguments.References(), 2u);
  EXPECT_EQ(failure.ErrorNumber(), 98);
  EXPECT_EQ(Latin1(failure.Message()), "bind");
  EXPECT_EQ(Latin1(failure.Arguments()), "3,127.0.0.1:5000");
}

TEST(SysCallFailure, TextNamesCallArgumentsAndError) {
  SysCallFailure failure;
  failure.Record(EADDRINUSE, "bind", TextBuffer::FromLiteral("3,127.0.0.1:5000"));
  EXPECT_EQ(Latin1(FailureText(failure)), "bind(3,127.0.0.1:5000): (98) Address already in use");
  const Failure& base = failure;
  EXPECT_EQ(Latin1(base.Text()), "bind(3,127.0.0.1:5000): (98) Address already in use");
}

TEST(SysCallFailure, EmptyArgumentsKeepParentheses) {
  SysCallFailure failure;
  failure.Record(EBADF, "close", TextBuffer());
  EXPECT_EQ(Latin1(failure.Text()), "close(): (9) Bad file descriptor");
}

TEST(SysCallFailure, EmptyNameWithArguments) {
  SysCallFailure failure;
  failure.Record(EAGAIN, "", TextBuffer::FromLiteral("4"));
  EXPECT_EQ(Latin1(failure.Text()), "(4): (11) Resource temporarily unavailable");
}

TEST(SysCallFailure, NoNameNoArgumentsBeginsWithNumber) {
  SysCallFailure failure;
  failure.Record(ENOENT, "", TextBuffer());
  EXPECT_EQ(Latin1(failure.Text()), "(2) No such file or directory");
}

TEST(SysCallFailure, LaterRecordReplacesEarlier) {
  SysCallFailure failure;
  failure.Record(EBADF, "read", TextBuffer::FromLiteral("7,<address>,10"));
  failure.Record(EPIPE, "write", TextBuffer::FromLiteral("8,<address>,3"));
  EXPECT_EQ(Latin1(failure.Text()), "write(8,<address>,3): (32) Broken pipe");
}

}  // namespace

}  // namespace klv
