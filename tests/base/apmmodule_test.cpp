#include "base/apmmodule.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fixtures/sdkstandin.h"

namespace apm {
namespace base {
namespace {

using test::RecordedSdkCalls;
using test::RunWithSdk;
using test::SdkCall;
using test::SdkVariant;

std::vector<CAPMModule*> announced;
void Announce(CAPMModule& module) { announced.push_back(&module); }

TEST(CAPMModule, RegistersItsNameAndCallsTheCallbackWithItself) {
  RunWithSdk(SdkVariant::Full, [] {
    CAPMModule module("Test Module", Announce);
    EXPECT_EQ(module.moduleId, 101u);
    EXPECT_EQ(announced, std::vector<CAPMModule*>{&module});
    std::vector<SdkCall> calls = RecordedSdkCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].entry, "APMRegisterModule");
    EXPECT_EQ(calls[0].arguments, (std::vector<std::string>{"Test Module", "101"}));
  });
}

TEST(CAPMModule, DestructorUnregistersTheModule) {
  RunWithSdk(SdkVariant::Full, [] {
    { CAPMModule first("First", nullptr); }
    { CAPMModule second("Second", nullptr); }
    std::vector<SdkCall> calls = RecordedSdkCalls("APMUnregisterModule");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].arguments, std::vector<std::string>{"101"});
    EXPECT_EQ(calls[1].arguments, std::vector<std::string>{"102"});
  });
}

TEST(CAPMModule, WithoutTheLibraryTheIdIsZeroAndTheCallbackStillRuns) {
  RunWithSdk(SdkVariant::Absent, [] {
    CAPMModule module("Test Module", Announce);
    EXPECT_EQ(module.moduleId, 0u);
    EXPECT_EQ(announced, std::vector<CAPMModule*>{&module});
  });
}

TEST(CAPMModule, OperatingSystemModuleIsMadeOnceOnFirstUse) {
  RunWithSdk(SdkVariant::Full, [] {
    EXPECT_TRUE(RecordedSdkCalls().empty());
    CAPMModule* module = GetModuleOperatingSystem();
    EXPECT_EQ(GetModuleOperatingSystem(), module);
    EXPECT_EQ(GetModuleOperatingSystemBase(), module);
    EXPECT_EQ(module->moduleId, 101u);
    std::vector<SdkCall> calls = RecordedSdkCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].arguments, (std::vector<std::string>{"Operating System", "101"}));
  });
}

}  // namespace
}  // namespace base
}  // namespace apm
