#include "base/strtools.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstring>

namespace apm {
namespace base {
namespace {

// --- Locale and character sets ---------------------------------------------------

TEST(Locale, MachineOffersTheGermanUtf8Locale) {
  // Everything non-ASCII below depends on it; the set-up script generates it.
  ASSERT_NE(std::setlocale(LC_CTYPE, "de_DE.UTF-8"), nullptr);
}

TEST(ConvertToUTF8, NullPointerGivesEmpty) { EXPECT_EQ(ConvertToUTF8(nullptr, 5), ""); }

TEST(ConvertToUTF8, EncodesNonAsciiAsUtf8) {
  EXPECT_EQ(ConvertToUTF8(L"Gr\u00fc\u00dfe \u20ac \U0001F600", 0),
            "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(ConvertToUTF8, LengthIsIgnoredTextEndsAtNul) { EXPECT_EQ(ConvertToUTF8(L"abcdef", 2), "abcdef"); }

TEST(ConvertToUTF8, SetsTheUtf8Locale) {
  std::setlocale(LC_CTYPE, "C");
  ConvertToUTF8(L"x", 1);
  EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "de_DE.UTF-8");
}

TEST(ConvertToUTF8, UnconvertibleCharacterGivesEmpty) {
  const wchar_t text[] = {L'a', static_cast<wchar_t>(0xD800), L'\0'};  // a lone surrogate
  EXPECT_EQ(ConvertToUTF8(text, 2), "");
}

TEST(ConvertToWideStr, NullPointerGivesEmpty) {
  EXPECT_EQ(ConvertToWideStr(nullptr, 3, CP_UTF8_CODEPAGE), L"");
}

TEST(ConvertToWideStr, Utf8CodePageDecodesNonAscii) {
  EXPECT_EQ(ConvertToWideStr("\xC3\xA4\xC3\xB6\xC3\xBC", 6, CP_UTF8_CODEPAGE), L"\u00e4\u00f6\u00fc");
}

TEST(ConvertToWideStr, LengthIsIgnoredTextEndsAtNul) {
  EXPECT_EQ(ConvertToWideStr("abc", 1, CP_UTF8_CODEPAGE), L"abc");
}

TEST(ConvertToWideStr, InvalidBytesGiveEmpty) {
  EXPECT_EQ(ConvertToWideStr("ab\xFF", 3, CP_UTF8_CODEPAGE), L"");
}

TEST(ConvertToWideStr, OtherCodePageLeavesTheLocaleAsItIs) {
  std::setlocale(LC_CTYPE, "C");
  ConvertToWideStr("abc", 3, 1252);
  EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
  ConvertToWideStr("abc", 3, CP_UTF8_CODEPAGE);
  EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "de_DE.UTF-8");
  ConvertToWideStr("abc", 3, 1252);
  EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "de_DE.UTF-8");
}

TEST(ConvertToWideStr, EnvironmentCodePageTakesLocaleFromEnvironment) {
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  std::setlocale(LC_CTYPE, "C");
  EXPECT_EQ(ConvertToWideStr("\xC3\xA4", 2, CP_ENVIRONMENT), L"\u00e4");
  EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "de_DE.UTF-8");
  unsetenv("LC_ALL");
}

TEST(CharToUTF8, ControlCharacterIsEmpty) {
  EXPECT_EQ(CharToUTF8(10), "");
  EXPECT_EQ(CharToUTF8(0), "");
  EXPECT_EQ(CharToUTF8(31), "");
}

TEST(CharToUTF8, SurrogateIsEmpty) {
  EXPECT_EQ(CharToUTF8(0xD800), "");
  EXPECT_EQ(CharToUTF8(0xDFFF), "");
}

TEST(CharToUTF8, NonCharactersFffeAndFfffAreEmpty) {
  EXPECT_EQ(CharToUTF8(0xFFFE), "");
  EXPECT_EQ(CharToUTF8(0xFFFF), "");
}

TEST(CharToUTF8, BeyondUnicodeIsEmpty) { EXPECT_EQ(CharToUTF8(0x110000), ""); }

TEST(CharToUTF8, EncodesOneToFourBytes) {
  EXPECT_EQ(CharToUTF8(32), " ");
  EXPECT_EQ(CharToUTF8(0x7F), "\x7F");
  EXPECT_EQ(CharToUTF8(0xE4), "\xC3\xA4");
  EXPECT_EQ(CharToUTF8(0x7FF), "\xDF\xBF");
  EXPECT_EQ(CharToUTF8(0xD7FF), "\xED\x9F\xBF");
  EXPECT_EQ(CharToUTF8(0xE000), "\xEE\x80\x80");
  EXPECT_EQ(CharToUTF8(0xFFFD), "\xEF\xBF\xBD");
  EXPECT_EQ(CharToUTF8(0x10000), "\xF0\x90\x80\x80");
}

TEST(CharToUTF8, LastCodePointHasFourBytes) { EXPECT_EQ(CharToUTF8(0x10FFFF), "\xF4\x8F\xBF\xBF"); }

// --- Case ----------------------------------------------------------------------

TEST(CaseMapping, UmlautsLowerAndUpper) {
  EXPECT_EQ(_ToLowerCase("\xC3\x84\xC3\x96\xC3\x9C"), "\xC3\xA4\xC3\xB6\xC3\xBC");  // ÄÖÜ -> äöü
  EXPECT_EQ(_ToUpperCase("\xC3\xA4\xC3\xB6\xC3\xBC"), "\xC3\x84\xC3\x96\xC3\x9C");
}

TEST(CaseMapping, CoversScriptsBeyondLatin) {
  // "ПРИВЕТ" -> "привет"
  EXPECT_EQ(_ToLowerCase("\xD0\x9F\xD0\xA0\xD0\x98\xD0\x92\xD0\x95\xD0\xA2"),
            "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82");
}

TEST(CaseMapping, AsciiAndDigits) {
  EXPECT_EQ(_ToLowerCase("ListenPort 10003"), "listenport 10003");
  EXPECT_EQ(_ToUpperCase("log_info"), "LOG_INFO");
}

TEST(CaseMapping, LoneByteFfLowersToEmpty) {
  EXPECT_EQ(_ToLowerCase("\xFF"), "");
  EXPECT_EQ(_ToLowerCase("Abc\xFF"), "");
  EXPECT_EQ(_ToUpperCase("abc\xFF"), "");
}

TEST(CompareCaseInsensitive, EqualBytesAreEqual) { EXPECT_TRUE(_CompareCaseInsensitive("Abc", "Abc")); }

TEST(CompareCaseInsensitive, DifferentCaseIsEqual) {
  EXPECT_TRUE(_CompareCaseInsensitive("LOG_Info", "log_INFO"));
  EXPECT_TRUE(_CompareCaseInsensitive("\xC3\x84Z", "\xC3\xA4z"));
}

TEST(CompareCaseInsensitive, DifferentTextIsNotEqual) {
  EXPECT_FALSE(_CompareCaseInsensitive("abc", "abd"));
  EXPECT_FALSE(_CompareCaseInsensitive("abc", "abcd"));
}

TEST(CompareCaseInsensitive, InvalidUtf8OnBothSidesIsEqualAsBothLowerToEmpty) {
  EXPECT_TRUE(_CompareCaseInsensitive("\xFF", "\xFE"));
  EXPECT_FALSE(_CompareCaseInsensitive("\xFF", "a"));
}

// --- Numbers -------------------------------------------------------------------

TEST(StringToInt, TrailingTextGivesFalseButStoresLeadingNumber) {
  unsigned int n = 0;
  EXPECT_FALSE(StringToInt("12x", n));
  EXPECT_EQ(n, 12u);
}

TEST(StringToInt, EmptyGivesFalseAndLeavesValue) {
  unsigned int n = 77;
  EXPECT_FALSE(StringToInt("", n));
  EXPECT_EQ(n, 77u);
}

TEST(StringToInt, NoDigitsGivesFalseAndStoresZero) {
  unsigned int n = 77;
  EXPECT_FALSE(StringToInt("abc", n));
  EXPECT_EQ(n, 0u);
  n = 77;
  EXPECT_FALSE(StringToInt("   ", n));
  EXPECT_EQ(n, 0u);
}

TEST(StringToInt, LeadingWhiteSpaceAndSignAreAccepted) {
  unsigned int n = 0;
  EXPECT_TRUE(StringToInt("  42", n));
  EXPECT_EQ(n, 42u);
  EXPECT_TRUE(StringToInt("+7", n));
  EXPECT_EQ(n, 7u);
  EXPECT_TRUE(StringToInt("-1", n));
  EXPECT_EQ(n, 4294967295u);
}

TEST(StringToInt, TrailingWhiteSpaceIsText) {
  unsigned int n = 0;
  EXPECT_FALSE(StringToInt("42 ", n));
  EXPECT_EQ(n, 42u);
}

TEST(StringToInt, UnsignedShortIsCutToSixteenBits) {
  unsigned short n = 0;
  EXPECT_TRUE(StringToInt("65535", n));
  EXPECT_EQ(n, 65535);
  EXPECT_TRUE(StringToInt("70000", n));
  EXPECT_EQ(n, 70000 % 65536);
}

TEST(StringToInt, UnsignedIntIsCutToThirtyTwoBits) {
  unsigned int n = 0;
  EXPECT_TRUE(StringToInt("4294967297", n));
  EXPECT_EQ(n, 1u);
}

TEST(StringToInt, LongTakesNegatives) {
  long n = 0;
  EXPECT_TRUE(StringToInt("-5", n));
  EXPECT_EQ(n, -5);
  EXPECT_TRUE(StringToInt("9223372036854775807", n));
  EXPECT_EQ(n, LONG_MAX);
}

TEST(StringToInt, UnsignedLongReadsSignedSixtyFourBits) {
  unsigned long n = 0;
  EXPECT_TRUE(StringToInt("-1", n));
  EXPECT_EQ(n, ULONG_MAX);
  // Read as signed: anything above the signed range saturates.
  EXPECT_TRUE(StringToInt("18446744073709551615", n));
  EXPECT_EQ(n, static_cast<unsigned long>(LLONG_MAX));
  EXPECT_FALSE(StringToInt("5 ", n));
  EXPECT_EQ(n, 5ul);
}

TEST(IntToString, DecimalWithMinusForNegatives) {
  EXPECT_EQ(IntToString(0), "0");
  EXPECT_EQ(IntToString(-5), "-5");
  EXPECT_EQ(IntToString(INT_MIN), "-2147483648");
  EXPECT_EQ(IntToString(LONG_MIN), "-9223372036854775808");
  EXPECT_EQ(IntToString(UINT_MAX), "4294967295");
  EXPECT_EQ(IntToString(ULONG_MAX), "18446744073709551615");
}

// --- Plain text helpers -----------------------------------------------------------

TEST(Trim, RemovesWhiteSpaceAtBothEnds) {
  std::string text = " \t a b \r\n\v\f";
  Trim(text);
  EXPECT_EQ(text, "a b");
}

TEST(Trim, OnlyWhiteSpaceBecomesEmpty) {
  std::string text = " \t\n ";
  Trim(text);
  EXPECT_EQ(text, "");
  Trim(text);
  EXPECT_EQ(text, "");
}

TEST(Trim, NonAsciiSpaceStays) {
  std::string text = "\xC2\xA0x\xC2\xA0";  // no-break spaces around x
  Trim(text);
  EXPECT_EQ(text, "\xC2\xA0x\xC2\xA0");
}

TEST(StartsWith, EmptyPrefixIsTrue) { EXPECT_TRUE(StartsWith("abc", "")); EXPECT_TRUE(StartsWith("", "")); }

TEST(StartsWith, ComparesBytes) {
  EXPECT_TRUE(StartsWith("abc", "ab"));
  EXPECT_TRUE(StartsWith("abc", "abc"));
  EXPECT_FALSE(StartsWith("ab", "abc"));
  EXPECT_FALSE(StartsWith("abc", "b"));
  EXPECT_FALSE(StartsWith("Abc", "ab"));
}

TEST(ReplaceAllOccurences, ReplacedTextIsNotScannedAgain) {
  std::string text = "aaa";
  EXPECT_EQ(ReplaceAllOccurences(text, "a", "aa"), 3u);
  EXPECT_EQ(text, "aaaaaa");
}

TEST(ReplaceAllOccurences, ReplacesFromTheLeft) {
  std::string text = "aaaa";
  EXPECT_EQ(ReplaceAllOccurences(text, "aa", "b"), 2u);
  EXPECT_EQ(text, "bb");
  text = "abab-ab";
  EXPECT_EQ(ReplaceAllOccurences(text, "ab", ""), 3u);
  EXPECT_EQ(text, "-");
}

TEST(ReplaceAllOccurences, NothingFoundCountsZero) {
  std::string text = "abc";
  EXPECT_EQ(ReplaceAllOccurences(text, "x", "y"), 0u);
  EXPECT_EQ(ReplaceAllOccurences(text, "", "y"), 0u);
  EXPECT_EQ(text, "abc");
}

// --- Base64 --------------------------------------------------------------------

std::string Encode(const std::string& data, unsigned long lineLength = 0) {
  return ConvertToBase64(data.data(), data.size(), lineLength);
}

TEST(ConvertToBase64, Rfc4648Vectors) {
  EXPECT_EQ(Encode("f"), "Zg==");
  EXPECT_EQ(Encode("fo"), "Zm8=");
  EXPECT_EQ(Encode("foo"), "Zm9v");
  EXPECT_EQ(Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(Encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(Encode("foobar"), "Zm9vYmFy");
}

TEST(ConvertToBase64, UsesPlusAndSlash) { EXPECT_EQ(Encode("\xFB\xFF\xBF"), "+/+/"); }

TEST(ConvertToBase64, NullOrEmptyGivesEmpty) {
  EXPECT_EQ(ConvertToBase64(nullptr, 10, 0), "");
  EXPECT_EQ(ConvertToBase64("abc", 0, 76), "");
}

TEST(ConvertToBase64, LineFeedAfterGroupThatReachesLineLength) {
  EXPECT_EQ(Encode(std::string(12, '\0'), 8), "AAAAAAAA\nAAAAAAAA");
  // A line length that no group boundary hits: the group that passes it ends the line.
  EXPECT_EQ(Encode(std::string(9, '\0'), 6), "AAAAAAAA\nAAAA");
}

TEST(ConvertToBase64, NoLineFeedAfterLastFullGroupWithNothingLeft) {
  EXPECT_EQ(Encode("foobar", 4), "Zm9v\nYmFy");
  EXPECT_EQ(Encode("foo", 4), "Zm9v");
}

TEST(ConvertToBase64, TailGroupFollowsLineFeedAndIsNotCounted) {
  EXPECT_EQ(Encode("foob", 4), "Zm9v\nYg==");
  EXPECT_EQ(Encode("fooba", 8), "Zm9vYmE=");
  EXPECT_EQ(Encode(std::string(7, '\0'), 8), "AAAAAAAA\nAA==");
}

TEST(ConvertToBase64, SeventySixCharacterLines) {
  std::string encoded = Encode(std::string(114, 'x'), 76);
  ASSERT_EQ(encoded.size(), 76u + 1 + 76);
  EXPECT_EQ(encoded[76], '\n');
  EXPECT_EQ(encoded.find('\n', 77), std::string::npos);
}

std::string Decode(const std::string& text) {
  unsigned long size = 0;
  ConvertFromBase64(text, nullptr, size);
  std::string out(size, '\0');
  ConvertFromBase64(text, &out[0], size);
  out.resize(size);
  return out;
}

TEST(ConvertFromBase64, LineFeedsAreSkipped) {
  EXPECT_EQ(Decode("YWJj"), "abc");
  EXPECT_EQ(Decode("YW\nJj"), "abc");
}

TEST(ConvertFromBase64, NonAlphabetBytesAndPaddingAreSkipped) {
  EXPECT_EQ(Decode("Y=W!J j"), "abc");
  EXPECT_EQ(Decode("Zm9v\r\nYmFy"), "foobar");
}

TEST(ConvertFromBase64, ShortLastGroupGivesTheBytesItsBitsComplete) {
  EXPECT_EQ(Decode("YWI="), "ab");
  EXPECT_EQ(Decode("YWI"), "ab");
  EXPECT_EQ(Decode("YQ=="), "a");
  EXPECT_EQ(Decode("YQ"), "a");
  EXPECT_EQ(Decode("Y"), "");
}

TEST(ConvertFromBase64, NullBufferCountsTheSpaceNeeded) {
  unsigned long size = 0;
  ConvertFromBase64("Zm9vYmFy", 8, nullptr, size);
  EXPECT_EQ(size, 6u);
}

TEST(ConvertFromBase64, BytesBeyondCapacityAreCountedNotStored) {
  char buffer[4] = {'-', '-', '-', '-'};
  unsigned long size = 2;
  ConvertFromBase64("YWJj", 4, buffer, size);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(std::string(buffer, 4), "ab--");
}

TEST(ConvertFromBase64, ZeroLengthGivesZero) {
  unsigned long size = 100;
  char buffer[1];
  ConvertFromBase64("YWJj", 0, buffer, size);
  EXPECT_EQ(size, 0u);
}

TEST(ConvertFromBase64, LengthLimitsTheInput) {
  char buffer[8];
  unsigned long size = sizeof(buffer);
  ConvertFromBase64("YWJjZGVm", 4, buffer, size);
  ASSERT_EQ(size, 3u);
  EXPECT_EQ(std::string(buffer, size), "abc");
}

TEST(ConvertFromBase64, RoundTripOfAllByteValues) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  EXPECT_EQ(Decode(Encode(all, 76)), all);
}

// --- URL encoding ----------------------------------------------------------------

TEST(URLencode, BlankBecomesPercent20) { EXPECT_EQ(URLencode("a b"), "a%20b"); }

TEST(URLencode, HighByteIsWidenedAsSignedChar) {
  EXPECT_EQ(URLencode("\xE4"), "%ffffffe4");
  EXPECT_EQ(URLencode("\xC3\xA4"), "%ffffffc3%ffffffa4");
}

TEST(URLencode, UnreservedCharactersPass) {
  EXPECT_EQ(URLencode("AZaz09-._~"), "AZaz09-._~");
}

TEST(URLencode, ReservedAndControlBytesAreTwoLowerCaseHexDigits) {
  EXPECT_EQ(URLencode("a/b?c=d&e+f"), "a%2fb%3fc%3dd%26e%2bf");
  EXPECT_EQ(URLencode(std::string("\x01\x7f", 2)), "%01%7f");
  EXPECT_EQ(URLencode(std::string(1, '\0')), "%00");
}

}  // namespace
}  // namespace base
}  // namespace apm
