#include "foundation/time_stamp.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace klv {

namespace {

class TimeStampTest : public ::testing::Test {
 protected:
  void SetUp() override { UseTimeZone("UTC"); }
  void TearDown() override {
    // Leaves the one-entry cache holding a second formatted in UTC that no
    // test asks for, whatever zone the test used.
    UseTimeZone("UTC");
    Format(7, 0);
  }

  static void UseTimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  static std::string Format(uint32_t seconds, uint32_t microseconds) {
    TimeStamp stamp;
    stamp.seconds = seconds;
    stamp.microseconds = microseconds;
    TextBuilder out;
    out << stamp;
    const RefString bytes = out.Bytes();
    return std::string(bytes.Text(), bytes.Length());
  }
};

TEST_F(TimeStampTest, KnownSecondsRenderAsLocalDate) {
  EXPECT_EQ(Format(1000000000, 0), "2001/09/09 01:46:40.000");
  EXPECT_EQ(Format(1234567890, 0), "2009/02/13 23:31:30.000");
  EXPECT_EQ(Format(0, 0), "1970/01/01 00:00:00.000");
  EXPECT_EQ(Format(4294967295u, 0), "2106/02/07 06:28:15.000");
}

TEST_F(TimeStampTest, MillisecondsAreTruncated) {
  EXPECT_EQ(Format(1000000000, 999999), "2001/09/09 01:46:40.999");
  EXPECT_EQ(Format(1000000000, 1000), "2001/09/09 01:46:40.001");
  EXPECT_EQ(Format(1000000000, 999), "2001/09/09 01:46:40.000");
  EXPECT_EQ(Format(1000000000, 123456), "2001/09/09 01:46:40.123");
}

TEST_F(TimeStampTest, UnnormalisedMicrosecondsCarryIntoSeconds) {
  EXPECT_EQ(Format(1000000000, 2500000), "2001/09/09 01:46:42.500");
  EXPECT_EQ(Format(1000000000, 1000000), "2001/09/09 01:46:41.000");
}

TEST_F(TimeStampTest, SameSecondReusesFormattedDate) {
  EXPECT_EQ(Format(1000000000, 0), "2001/09/09 01:46:40.000");
  // One hour east of UTC. The cached second keeps its UTC text; the next
  // second is formatted afresh in the new zone.
  UseTimeZone("KLV-1");
  EXPECT_EQ(Format(1000000000, 250000), "2001/09/09 01:46:40.250");
  EXPECT_EQ(Format(1000000001, 0), "2001/09/09 02:46:41.000");
  EXPECT_EQ(Format(1000000001, 5000), "2001/09/09 02:46:41.005");
}

TEST_F(TimeStampTest, FormatChainsOnTheStream) {
  TimeStamp stamp;
  stamp.seconds = 1000000000;
  stamp.microseconds = 42000;
  TextBuilder out;
  FormatTimeStamp(out, stamp) << " event";
  EXPECT_EQ(out.Text().Encode(26), "2001/09/09 01:46:40.042 event");
}

TEST_F(TimeStampTest, NowIsNormalisedAndCurrent) {
  const time_t before = time(nullptr);
  const TimeStamp now = TimeStamp::Now();
  const time_t after = time(nullptr);
  EXPECT_LE(now.microseconds, 999999u);
  EXPECT_GE(static_cast<time_t>(now.seconds), before);
  // time() may read a coarser clock that trails gettimeofday a little.
  EXPECT_LE(static_cast<time_t>(now.seconds), after + 1);
}

}  // namespace

}  // namespace klv
