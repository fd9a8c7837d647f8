#include "foundation/output_stream.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

namespace klv {

namespace {

std::string BytesOf(const RefString& bytes) { return std::string(bytes.Text(), bytes.Length()); }

// Everything written to `file` so far.
std::string Contents(FILE* file) {
  std::fflush(file);
  std::rewind(file);
  std::string contents;
  char buffer[512];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) contents.append(buffer, got);
  return contents;
}

TEST(TextBuilder, WritesChain) {
  TextBuilder out;
  out << "count " << 3u << ", " << TextBuffer::FromLiteral("text") << "\n";
  EXPECT_EQ(BytesOf(out.Bytes()), "count 3, text\n");
  EXPECT_EQ(out.Text().Characters(), 14u);
}

TEST(TextBuilder, NumberWriters) {
  TextBuilder out;
  out << 0 << " " << -5 << " " << INT_MIN << " " << INT_MAX;
  EXPECT_EQ(BytesOf(out.Bytes()), "0 -5 -2147483648 2147483647");
  out.Clear();
  out << 7u << " " << UINT_MAX;
  EXPECT_EQ(BytesOf(out.Bytes()), "7 4294967295");
  out.Clear();
  out << -9L << " " << LONG_MIN << " " << 18446744073709551615UL;
  EXPECT_EQ(BytesOf(out.Bytes()), "-9 -9223372036854775808 18446744073709551615");
}

TEST(TextBuilder, ClearTruncatesButEarlierTextStays) {
  TextBuilder out;
  out << "first";
  const TextBuffer earlier = out.Text();
  out.Clear();
  EXPECT_TRUE(out.Text().IsEmpty());
  out << "second";
  EXPECT_EQ(BytesOf(out.Bytes()), "second");
  EXPECT_EQ(earlier.Encode(26), "first");
}

TEST(TextBuilder, ClearOnEmptyBuilder) {
  TextBuilder out;
  out.Clear();
  out.Flush();
  out.Prepare();
  EXPECT_TRUE(out.Text().IsEmpty());
}

TEST(TextBuilder, CallersTextOutlivesBuilder) {
  TextBuffer kept = TextBuffer::FromLiteral("head: ");
  {
    TextBuilder out(&kept);
    out << "body " << 42;
  }
  EXPECT_EQ(kept.Encode(26), "head: body 42");
  EXPECT_EQ(kept.References(), 1u);
}

TEST(TextBuilder, ClearTruncatesCallersText) {
  TextBuffer kept = TextBuffer::FromLiteral("old");
  TextBuilder out(&kept);
  out.Clear();
  out << "new";
  EXPECT_EQ(kept.Encode(26), "new");
}

TEST(TextBuilder, ByteStringsComeBackUnchanged) {
  const char raw[] = {'p', '\xE9', '\0', '\xFF', '/', '\x80'};
  const RefString name(raw, sizeof raw);
  TextBuilder out;
  out << "[" << name << "]";
  EXPECT_EQ(BytesOf(out.Bytes()), std::string("[p\xE9\0\xFF/\x80]", 8));
}

TEST(FileStream, WritesLatin1Bytes) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  const char raw[] = {'/', 'd', '\xE9', '\xFF'};
  {
    FileStream out(file);
    out << "path " << RefString(raw, sizeof raw) << " " << -1 << "\n";
    out.Clear();  // nothing to discard in a file
    out.Flush();
  }
  EXPECT_EQ(Contents(file), "path /d\xE9\xFF -1\n");
  std::fclose(file);
}

TEST(FileStream, ConvertsWithItsCharset) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  FileStream out(file, 29);
  out << "caf\xC3\xA9";
  EXPECT_EQ(Contents(file), "caf\xC3\xA9");
  std::fclose(file);
}

TEST(FileStream, LeavesFileOpen) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  {
    FileStream out(file);
    out << "one ";
  }
  ASSERT_GE(std::fputs("two", file), 0);
  EXPECT_EQ(Contents(file), "one two");
  EXPECT_EQ(std::fclose(file), 0);
}

}  // namespace

}  // namespace klv
