#include "base/datetime.h"

#include <gtest/gtest.h>

#include <ctime>

namespace apm {
namespace base {
namespace {

uint64_t Parse(const std::string& text) {
  Timestamp result(42);
  EXPECT_TRUE(Timestamp::parseDateTime(text, result));
  return result;
}

// 2015-03-07T10:20:30Z is Unix second 1425723630.
constexpr uint64_t k20150307T102030 = 1425723630ULL * 10000000ULL + 116444736000000000ULL;

TEST(Timestamp, UnixSecondsConvertWithTheEpochOffset) {
  EXPECT_EQ(Timestamp::kUnixEpoch, 0x19DB1DED53E8000ULL);
  EXPECT_EQ(uint64_t(Timestamp::FromUnixTime(1)), 116444736010000000ULL);
  EXPECT_EQ(uint64_t(Timestamp::FromUnixTime(1425723630)), k20150307T102030);
}

TEST(Timestamp, UnixSecondZeroMapsToZero) {
  EXPECT_EQ(uint64_t(Timestamp::FromUnixTime(0)), 0u);
}

TEST(Timestamp, NowFollowsTheClock) {
  time_t before = time(nullptr);
  uint64_t now = Timestamp::Now();
  time_t after = time(nullptr);
  EXPECT_GE(now, uint64_t(Timestamp::FromUnixTime(before)));
  EXPECT_LE(now, uint64_t(Timestamp::FromUnixTime(after)));
}

TEST(Timestamp, FullDateTimeWithFractionAddsTenthsInHundredNanoseconds) {
  EXPECT_EQ(Parse("2015-03-07T10:20:30.5"), k20150307T102030 + 5000000u);
}

TEST(Timestamp, FractionDigitsWeighDownToOneUnitAndZeroFromTheEighth) {
  EXPECT_EQ(Parse("2015-03-07T10:20:30.1234567"), k20150307T102030 + 1234567u);
  EXPECT_EQ(Parse("2015-03-07T10:20:30.123456789"), k20150307T102030 + 1234567u);
  EXPECT_EQ(Parse("2015-03-07T10:20:30.05Z"), k20150307T102030 + 500000u);
}

TEST(Timestamp, ZoneSuffixIsIgnored) {
  EXPECT_EQ(Parse("2015-03-07T10:20:30Z"), k20150307T102030);
  EXPECT_EQ(Parse("2015-03-07T10:20:30+02:00"), k20150307T102030);
  EXPECT_EQ(Parse("2015-03-07T10:20:30.5+02:00"), k20150307T102030 + 5000000u);
}

TEST(Timestamp, LoneDotAtTheEndAddsNothing) {
  EXPECT_EQ(Parse("2015-03-07T10:20:30."), k20150307T102030);
}

TEST(Timestamp, BlankSeparatorAndLeadingWhiteSpace) {
  EXPECT_EQ(Parse(" \t2015-03-07 10:20:30"), k20150307T102030);
}

TEST(Timestamp, YearAloneGivesFirstOfJanuary) {
  EXPECT_EQ(Parse("2015"), 1420070400ULL * 10000000ULL + Timestamp::kUnixEpoch);
}

TEST(Timestamp, EmptyTextGivesDefaultsNotZero) {
  const uint64_t start2008 = 1199145600ULL * 10000000ULL + Timestamp::kUnixEpoch;
  EXPECT_EQ(Parse(""), start2008);
  EXPECT_EQ(Parse("   "), start2008);
}

TEST(Timestamp, SeparatorsAreOptional) {
  EXPECT_EQ(Parse("20150307"), 1425686400ULL * 10000000ULL + Timestamp::kUnixEpoch);
  EXPECT_EQ(Parse("20150307T102030"), k20150307T102030);
}

TEST(Timestamp, MonthThirteenIsNormalisedIntoTheNextYear) {
  EXPECT_EQ(Parse("2015-13-01"), 1451606400ULL * 10000000ULL + Timestamp::kUnixEpoch);
}

TEST(Timestamp, UnixEpochTextGivesZero) {
  EXPECT_EQ(Parse("1970-01-01"), 0u);
  EXPECT_EQ(Parse("1970-01-01T00:00:00"), 0u);
}

}  // namespace
}  // namespace base
}  // namespace apm
