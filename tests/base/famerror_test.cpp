#include "base/famerror.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "base/apmmodule.h"
#include "base/trace.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/syslogcapture.h"

namespace apm {
namespace base {
namespace {

using test::RecordedSdkCalls;
using test::RunWithSdk;
using test::SdkCall;
using test::SdkVariant;

std::string StrerrorText(int number) {
  char buffer[2048];
  return strerror_r(number, buffer, sizeof(buffer));
}

// Error messages go out at level 7; the log here lets everything through so that the
// capture sees them as delivered.
class FamErrorTest : public ::testing::Test {
 protected:
  void SetUp() override { setMaximumLogLevel(7); }

  test::SyslogCapture capture;
  CAPMModule* const module = GetModuleOperatingSystem();
};

TEST_F(FamErrorTest, SetErrorStripsTrailingLineBreaksFromTheStoredText) {
  FamError record;
  EXPECT_EQ(FamErrorBase::SetError(5, "text\r\n", module), 5);
  EXPECT_EQ(record.code, 5);
  EXPECT_EQ(record.message, "text");
  EXPECT_EQ(capture.Messages(7), std::vector<std::string>{"Message: SetError: 00000005 text"});
}

TEST_F(FamErrorTest, StrippingRemovesOnlyTrailingBlanksAndLineBreaks) {
  FamError record;
  FamErrorBase::SetError(static_cast<int>(0x80004005), " a \r b\t \n \r", module);
  EXPECT_EQ(record.message, " a \r b\t");
  EXPECT_EQ(capture.Messages(7), std::vector<std::string>{"Message: SetError: 80004005  a \r b\t"});
}

TEST_F(FamErrorTest, TextOfBlanksOnlyLeavesAnEmptyMessage) {
  FamError record;
  record.message = "earlier";
  EXPECT_EQ(FamErrorBase::SetError(9, "\n \r", module), 9);
  EXPECT_EQ(record.code, 9);
  EXPECT_EQ(record.message, "");
  EXPECT_EQ(capture.Messages(7), std::vector<std::string>{"Message: SetError: 00000009"});
}

TEST_F(FamErrorTest, SetErrorWithNullTextStoresEmptyMessageAndLogsNull) {
  FamError record;
  record.message = "earlier";
  EXPECT_EQ(FamErrorBase::SetError(5, nullptr, module), 5);
  EXPECT_EQ(record.code, 5);
  EXPECT_EQ(record.message, "");
  EXPECT_EQ(capture.Messages(7), std::vector<std::string>{"Message: SetError: 00000005 <NULL>"});
}

TEST_F(FamErrorTest, StringFormPassesNullForAnEmptyText) {
  FamError record;
  EXPECT_EQ(FamErrorBase::SetError(6, std::string(), module), 6);
  EXPECT_EQ(FamErrorBase::SetError(7, std::string("seven\n"), module), 7);
  EXPECT_EQ(record.message, "seven");
  EXPECT_EQ(capture.Messages(7), (std::vector<std::string>{"Message: SetError: 00000006 <NULL>",
                                                           "Message: SetError: 00000007 seven"}));
}

TEST_F(FamErrorTest, SetErrorWithoutRecordOnlyLogsAtLevel7AndReturnsTheCode) {
  EXPECT_EQ(FamErrorBase::SetError(static_cast<int>(0x80008002), "refused", module),
            static_cast<int>(0x80008002));
  std::vector<test::SyslogEntry> messages;
  for (const test::SyslogEntry& entry : capture.Entries()) {
    if (entry.call == "syslog" || entry.call == "dropped") messages.push_back(entry);
  }
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].call, "syslog");
  EXPECT_EQ(messages[0].value, 7);
  EXPECT_EQ(messages[0].text, "Message: SetError: 80008002 refused");
}

TEST_F(FamErrorTest, SilentRecordStoresTheErrorWithoutLogging) {
  FamError record(true);
  EXPECT_EQ(FamErrorBase::SetError(3, "quiet", module), 3);
  EXPECT_EQ(record.code, 3);
  EXPECT_EQ(record.message, "quiet");
  EXPECT_TRUE(capture.Messages().empty());
}

TEST_F(FamErrorTest, SetLastErrorWithENOENTStoresTheSystemCodeAndItsText) {
  FamError record;
  errno = ENOENT;
  EXPECT_EQ(FamErrorBase::SetLastError(module), static_cast<int>(0x80070002));
  EXPECT_EQ(record.code, static_cast<int>(0x80070002));
  EXPECT_EQ(record.message, StrerrorText(2));
  EXPECT_EQ(capture.Messages(7),
            std::vector<std::string>{"Message: SetError: 80070002 " + StrerrorText(2)});
}

TEST_F(FamErrorTest, SetLastErrorWithoutErrnoStoresZeroAndTheTextOfEINVAL) {
  FamError record;
  errno = 0;
  EXPECT_EQ(FamErrorBase::SetLastError(module), 0);
  EXPECT_EQ(record.code, 0);
  EXPECT_EQ(record.message, StrerrorText(EINVAL));
}

TEST_F(FamErrorTest, SetLastErrorWithNegativeErrnoPassesItOnUnchanged) {
  FamError record;
  errno = -5;
  EXPECT_EQ(FamErrorBase::SetLastError(module), -5);
  EXPECT_EQ(record.code, -5);
  EXPECT_EQ(record.message, StrerrorText(-5));
}

TEST_F(FamErrorTest, SetLastErrorKeepsOnlyTheLow16BitsOfErrno) {
  FamError record;
  errno = 0x10000 + EACCES;
  EXPECT_EQ(FamErrorBase::SetLastError(module), static_cast<int>(0x8007000D));
  EXPECT_EQ(record.message, StrerrorText(EACCES));
}

TEST_F(FamErrorTest, CodeZeroTakesTheTextOfEINVAL) {
  FamError record;
  EXPECT_EQ(FamErrorBase::SetError(0, module), 0);
  EXPECT_EQ(record.code, 0);
  EXPECT_EQ(record.message, StrerrorText(EINVAL));
}

TEST_F(FamErrorTest, SystemCodeTakesTheTextOfItsLow16Bits) {
  FamError record;
  EXPECT_EQ(FamErrorBase::SetError(static_cast<int>(0x80070005), module),
            static_cast<int>(0x80070005));
  EXPECT_EQ(record.message, StrerrorText(EIO));
  // Bits 16 to 28 decide; the bits above them do not.
  FamErrorBase::SetError(0x00070002, module);
  EXPECT_EQ(record.message, StrerrorText(ENOENT));
  FamErrorBase::SetError(static_cast<int>(0xE007000D), module);
  EXPECT_EQ(record.message, StrerrorText(EACCES));
}

TEST_F(FamErrorTest, OtherCodesTakeTheTextOfTheCodeItself) {
  FamError record;
  FamErrorBase::SetError(ENOENT, module);
  EXPECT_EQ(record.code, ENOENT);
  EXPECT_EQ(record.message, StrerrorText(ENOENT));
  FamErrorBase::SetError(static_cast<int>(0x80004005), module);
  EXPECT_EQ(record.message, StrerrorText(static_cast<int>(0x80004005)));
  FamErrorBase::SetError(0x10070002, module);  // bits 16 to 28 hold 0x1007
  EXPECT_EQ(record.message, StrerrorText(0x10070002));
}

TEST_F(FamErrorTest, TwoNestedRecordsTheInnerIsWrittenAndPoppedTheOuterStaysUnchanged) {
  FamError outer;
  FamErrorBase::SetError(1, "outer", module);
  {
    FamError inner;
    EXPECT_EQ(FamErrorBase::SetError(2, "inner", module), 2);
    EXPECT_EQ(inner.code, 2);
    EXPECT_EQ(inner.message, "inner");
    EXPECT_EQ(outer.code, 1);
    EXPECT_EQ(outer.message, "outer");
  }
  EXPECT_EQ(outer.code, 1);
  EXPECT_EQ(outer.message, "outer");
  FamErrorBase::SetError(3, "outer again", module);
  EXPECT_EQ(outer.code, 3);
  EXPECT_EQ(outer.message, "outer again");
}

TEST_F(FamErrorTest, PopFamErrorRemovesTheTopNodeWhicheverRecordItBelongsTo) {
  FamError outer;
  auto inner = std::make_unique<FamError>();
  PopFamError();  // the inner record's node
  FamErrorBase::SetError(4, "to the outer", module);
  EXPECT_EQ(outer.code, 4);
  EXPECT_EQ(inner->code, 0);
  inner.reset();  // pops the outer record's node
  FamErrorBase::SetError(5, "to none", module);
  EXPECT_EQ(outer.code, 4);
  PopFamError();  // an empty stack stays empty
  EXPECT_EQ(capture.Messages(7).size(), 2u);
}

TEST_F(FamErrorTest, RecordsBelongToTheThreadThatMadeThem) {
  FamError mainRecord;
  int otherCode = 0;
  std::thread other([&] {
    FamError otherRecord;
    FamErrorBase::SetError(8, "other thread", module);
    otherCode = otherRecord.code;
  });
  other.join();
  EXPECT_EQ(otherCode, 8);
  EXPECT_EQ(mainRecord.code, 0);
  EXPECT_EQ(mainRecord.message, "");
}

TEST_F(FamErrorTest, StacksHaveNoLimitOfDepth) {
  std::vector<std::unique_ptr<FamError>> records;
  for (int i = 0; i < 10000; ++i) records.push_back(std::make_unique<FamError>(true));
  FamErrorBase::SetError(10, "deep", module);
  EXPECT_EQ(records.back()->code, 10);
  EXPECT_EQ(records.front()->code, 0);
  while (!records.empty()) records.pop_back();
  FamErrorBase::SetError(11, "none left", module);
  EXPECT_EQ(capture.Messages(7), std::vector<std::string>{"Message: SetError: 0000000b none left"});
}

TEST_F(FamErrorTest, LongTextIsStoredWholeAndCutInTheLog) {
  FamError record;
  const std::string text(2000, 'x');
  FamErrorBase::SetError(12, text, module);
  EXPECT_EQ(record.message, text);
  std::vector<std::string> messages = capture.Messages(7);
  ASSERT_EQ(messages.size(), 1u);
  // "SetError: 0000000c " and the text fill 1023 bytes; "Message: " then cuts again.
  EXPECT_EQ(messages[0], ("Message: SetError: 0000000c " + text).substr(0, 1023));
}

TEST_F(FamErrorTest, SetErrorArgsFormatsTheTextIntoTheRecord) {
  FamError record;
  EXPECT_EQ(FamError::SetErrorArgs(static_cast<int>(0x80004005), "code %d of %s\n", 7, "x"),
            static_cast<int>(0x80004005));
  EXPECT_EQ(record.code, static_cast<int>(0x80004005));
  EXPECT_EQ(record.message, "code 7 of x");
}

TEST_F(FamErrorTest, SetErrorArgsCutsTheTextAt1023Characters) {
  FamError record;
  FamError::SetErrorArgs(1, "%s-tail", std::string(1100, 'y').c_str());
  EXPECT_EQ(record.message, std::string(1023, 'y'));
}

TEST_F(FamErrorTest, TraitFormsStoreLikeTheBaseForms) {
  FamError record;
  EXPECT_EQ(FamError::SetError(13, "with traits \n"), 13);
  EXPECT_EQ(record.message, "with traits");
  EXPECT_EQ(FamError::SetError(14, std::string()), 14);
  EXPECT_EQ(record.message, "");
  errno = EACCES;
  EXPECT_EQ(FamError::SetLastError(), static_cast<int>(0x8007000D));
  EXPECT_EQ(record.message, StrerrorText(EACCES));
  EXPECT_EQ(_FamError<_apm_traits_none>::SetError(15, "no module"), 15);
  EXPECT_EQ(record.message, "no module");
}

TEST(FamErrorEvents, SetErrorReportsTheStrippedTextToTheModule) {
  RunWithSdk(SdkVariant::Full, [] {
    FamError record;
    EXPECT_EQ(FamError::SetError(5, "text\r\n"), 5);
    std::vector<SdkCall> registered = RecordedSdkCalls("APMRegisterModule");
    ASSERT_EQ(registered.size(), 1u);
    EXPECT_EQ(registered[0].arguments, (std::vector<std::string>{"Operating System", "101"}));
    std::vector<SdkCall> events = RecordedSdkCalls("APMEventStr");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].arguments,
              (std::vector<std::string>{"101", std::to_string(0x10001000), "60", "16",
                                        "SetError: 00000005 text"}));
  });
}

TEST(FamErrorEvents, SetErrorReportsEvenWithoutARecord) {
  RunWithSdk(SdkVariant::Full, [] {
    FamErrorBase::SetError(6, nullptr, GetModuleOperatingSystem());
    std::vector<SdkCall> events = RecordedSdkCalls("APMEventStr");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].arguments.back(), "SetError: 00000006 <NULL>");
  });
}

TEST(FamErrorEvents, SetErrorWithoutModuleReportsNoEvent) {
  RunWithSdk(SdkVariant::Full, [] {
    FamError record;
    FamErrorBase::SetError(5, "text", nullptr);
    EXPECT_EQ(record.message, "text");
    EXPECT_TRUE(RecordedSdkCalls("APMEventStr").empty());
  });
}

}  // namespace
}  // namespace base
}  // namespace apm
