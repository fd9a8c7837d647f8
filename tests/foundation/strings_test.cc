// The byte string's copies share until one changes, and time stamps are
// written as local time to the millisecond, truncated.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/time_stamp.h"

namespace klv {

namespace {

std::string Bytes(const RefString& text) { return std::string(text.Text(), text.Length()); }

TEST(RefString, CopiesAreIndependentOnceChanged) {
  RefString original("abc");
  RefString copy = original;
  copy.Append("d\0e", 3);
  copy.Append(copy.Text(), copy.Length());  // its own bytes, moved by the growth
  EXPECT_EQ(Bytes(original), "abc");
  EXPECT_EQ(Bytes(copy), std::string("abcd\0eabcd\0e", 12));
  EXPECT_TRUE(original == RefString("abc", 3) && RefString() == RefString(""));
  EXPECT_FALSE(original == RefString("abd") || original == copy);
}

TEST(TimeStamp, WrittenAsLocalTimeWithTruncatedMilliseconds) {
  setenv("TZ", "UTC", 1);
  tzset();
  const struct {
    uint32_t seconds, microseconds;
    const char* text;
  } kCases[] = {{1000000000, 999999, "2001/09/09 01:46:40.999"},
                {1000000000, 1000, "2001/09/09 01:46:40.001"},
                {1000000000, 999, "2001/09/09 01:46:40.000"},
                {1000000001, 4000, "2001/09/09 01:46:41.004"},
                {1000000000, 2500000, "2001/09/09 01:46:42.500"},  // not normalised
                {7, 0, "1970/01/01 00:00:07.000"}};
  for (const auto& c : kCases) {
    TextBuilder out;
    out << TimeStamp{c.seconds, c.microseconds};
    EXPECT_EQ(Bytes(out.Bytes()), c.text);
  }
  EXPECT_LE(TimeStamp::Now().microseconds, 999999u);
}

}  // namespace

}  // namespace klv
