#include "telemetry/apmsdk.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/fixtures/sdkstandin.h"

namespace {

// How often this process has asked the dynamic linker for the instrumentation library.
std::atomic<int> sdkOpenAttempts{0};
// While set, such a request waits this long first, so that a racing caller finds the
// load lock taken.
std::atomic<int> sdkOpenDelayMicroseconds{0};

}  // namespace

// Stands in for the C library's dlopen in this executable, the shim's call included:
// counts the requests for the instrumentation library and passes every request on.
extern "C" void* dlopen(const char* file, int mode) {
  using Open = void* (*)(const char*, int);
  static const Open realOpen = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "dlopen"));
  if (file != nullptr && strcmp(file, "libkelvorasdk.so") == 0) {
    ++sdkOpenAttempts;
    if (int delay = sdkOpenDelayMicroseconds.load()) usleep(delay);
  }
  return realOpen(file, mode);
}

namespace apm {
namespace {

using test::RecordedSdkCalls;
using test::RunWithSdk;
using test::SdkCall;
using test::SdkVariant;

std::vector<std::string> Arguments(std::initializer_list<std::string> list) { return list; }

// Calls every entry once with fixed arguments.
struct EveryEntryResults {
  unsigned int application;
  unsigned int module;
  int context;
  APMContext contextRecord;
  int syncMark;
  APMParamList list;
};

EveryEntryResults CallEveryEntry() {
  EveryEntryResults results;
  results.application = APMRegisterApplication("Product", "15.3", "ecomm", "daemon", 3);
  APMUnregisterApplication(7);
  results.module = APMRegisterModule("Module A");
  APMUnregisterModule(102);
  APMModuleRegisterEvent(101, 1001, "Request", "url;status");
  memset(&results.contextRecord, 0xFF, sizeof(results.contextRecord));
  results.context = APMGetContext(&results.contextRecord, nullptr);
  APMAttachContext(7, nullptr);
  APMReleaseContext(nullptr);
  char mark[64] = {};
  results.syncMark = APMGetSyncMark(mark);
  APMSetSyncMark(nullptr);
  APMEvent(101, 20, 60, APM_EVENT_BEGIN);
  APMEventStr(101, 21, 70, APM_EVENT_END, "written");
  const uint8_t codes[2] = {APM_ARG_UINT64, APM_ARG_UINT64};
  const uint64_t values[2] = {1, 0x0203};
  APMEventArgs(101, 22, 60, APM_EVENT_SINGLE, 2, codes, values, sizeof(values));
  results.list = APMParamInit();
  APMParamAdd32(results.list, 3600);
  APMParamAddString(results.list, "3600");
  APMEventParam(101, 23, 50, APM_EVENT_SINGLE, results.list);
  APMParamFree(results.list);
  APMAttachThread(42);
  return results;
}

TEST(APMSdk, LibraryAbsentEveryEntryWorksAndReturnsZero) {
  RunWithSdk(SdkVariant::Absent, [] {
    EveryEntryResults results = CallEveryEntry();
    EXPECT_EQ(results.application, 0u);
    EXPECT_EQ(results.module, 0u);
    EXPECT_EQ(results.context, 0);
    EXPECT_EQ(results.contextRecord.high, 0u);
    EXPECT_EQ(results.contextRecord.low, 0u);
    EXPECT_EQ(results.syncMark, 0);
    EXPECT_EQ(results.list, nullptr);
    EXPECT_TRUE(RecordedSdkCalls().empty());
  });
}

TEST(APMSdk, LibraryAbsentDlopenIsTriedOnceInTheProcessLife) {
  RunWithSdk(SdkVariant::Absent, [] {
    EXPECT_EQ(sdkOpenAttempts.load(), 0);
    CallEveryEntry();
    EXPECT_EQ(sdkOpenAttempts.load(), 1);
    // Second calls go straight to the empty forms; binding anew does not look again.
    CallEveryEntry();
    void (*slot)() = nullptr;
    LoadProc(&slot, "APMEvent", reinterpret_cast<void*>(&CallEveryEntry));
    EXPECT_EQ(reinterpret_cast<void*>(slot), reinterpret_cast<void*>(&CallEveryEntry));
    EXPECT_EQ(sdkOpenAttempts.load(), 1);
  });
}

TEST(APMSdk, LibraryPresentReceivesEveryEntryWithItsArguments) {
  RunWithSdk(SdkVariant::Full, [] {
    EveryEntryResults results = CallEveryEntry();
    EXPECT_EQ(results.application, 7u);
    EXPECT_EQ(results.module, 101u);
    EXPECT_EQ(results.context, 1);
    EXPECT_EQ(results.contextRecord.high, 0x1122334455667788u);
    EXPECT_EQ(results.contextRecord.low, 0x99aabbccddeeff00u);
    EXPECT_EQ(results.syncMark, 4);
    EXPECT_NE(results.list, nullptr);

    std::vector<SdkCall> calls = RecordedSdkCalls();
    std::vector<std::pair<std::string, std::vector<std::string>>> expected = {
        {"APMRegisterApplication", Arguments({"Product", "15.3", "ecomm", "daemon", "3"})},
        {"APMUnregisterApplication", Arguments({"7"})},
        {"APMRegisterModule", Arguments({"Module A", "101"})},
        {"APMUnregisterModule", Arguments({"102"})},
        {"APMModuleRegisterEvent", Arguments({"101", "1001", "Request", "url;status"})},
        {"APMGetContext",
         Arguments({std::to_string(reinterpret_cast<uintptr_t>(&results.contextRecord)), "0"})},
        {"APMAttachContext", Arguments({"7", "0"})},
        {"APMReleaseContext", Arguments({"0"})},
        {"APMGetSyncMark", {}},  // the buffer's address is on the stack of CallEveryEntry
        {"APMSetSyncMark", Arguments({"0"})},
        {"APMEvent", Arguments({"101", "20", "60", "1"})},
        {"APMEventStr", Arguments({"101", "21", "70", "2", "written"})},
        {"APMEventArgs",
         Arguments({"101", "22", "60", "0", "2", "2,2", "01000000000000000302000000000000", "16"})},
        {"APMParamInit", {}},
        {"APMParamAdd32", Arguments({"3600"})},
        {"APMParamAddString", Arguments({"3600"})},
        {"APMEventParam", Arguments({"101", "23", "50", "0", "3600,3600"})},
        {"APMParamFree", Arguments({"3600,3600"})},
        {"APMAttachThread", Arguments({"42"})},
    };
    ASSERT_EQ(calls.size(), expected.size());
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].entry, expected[i].first);
      if (calls[i].entry != "APMGetSyncMark") {
        EXPECT_EQ(calls[i].arguments, expected[i].second) << calls[i].entry;
      }
    }
    EXPECT_EQ(sdkOpenAttempts.load(), 1);
  });
}

TEST(APMSdk, LibraryWithoutEventStrGetsEventsWhileStringEventsVanish) {
  RunWithSdk(SdkVariant::WithoutEventStr, [] {
    APMEventStr(5, 30, 60, APM_EVENT_ERROR, "lost");
    APMEvent(5, 31, 60, APM_EVENT_SINGLE);
    APMEventStr(5, 32, 60, APM_EVENT_ERROR, "lost again");
    APMEvent(5, 33, 60, APM_EVENT_END);

    std::vector<SdkCall> calls = RecordedSdkCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].entry, "APMEvent");
    EXPECT_EQ(calls[0].arguments, Arguments({"5", "31", "60", "0"}));
    EXPECT_EQ(calls[1].arguments, Arguments({"5", "33", "60", "2"}));
    EXPECT_TRUE(RecordedSdkCalls("APMEventStr").empty());
  });
}

TEST(APMSdk, LoadProcBindsToTheLibraryFunctionOrToTheFallback) {
  RunWithSdk(SdkVariant::Full, [] {
    void* fallback = reinterpret_cast<void*>(&CallEveryEntry);
    void* slot = nullptr;
    LoadProc(&slot, "APMEvent", fallback);
    void* library = dlopen("libkelvorasdk.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(slot, dlsym(library, "APMEvent"));
    dlclose(library);

    LoadProc(&slot, "APMConnect", fallback);  // a function the stand-in does not have
    EXPECT_EQ(slot, fallback);
  });
}

TEST(APMSdk, TwoThreadsCallingDifferentEntriesFirstMakeOneDlopen) {
  RunWithSdk(SdkVariant::Full, [] {
    sdkOpenDelayMicroseconds = 20000;
    std::atomic<int> ready{0};
    auto startTogether = [&ready] {
      ++ready;
      while (ready.load() < 2) {
      }
    };
    unsigned int module = 0;
    std::thread registering([&] {
      startTogether();
      module = APMRegisterModule("Racing");
    });
    std::thread reporting([&] {
      startTogether();
      APMEvent(9, 40, 60, APM_EVENT_SINGLE);
    });
    registering.join();
    reporting.join();

    EXPECT_EQ(sdkOpenAttempts.load(), 1);
    EXPECT_EQ(module, 101u);
    EXPECT_EQ(RecordedSdkCalls("APMRegisterModule").size(), 1u);
    std::vector<SdkCall> events = RecordedSdkCalls("APMEvent");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].arguments, Arguments({"9", "40", "60", "0"}));
  });
}

TEST(APMSdk, ManyThreadsBindingAtOnceAreSerialisedByTheLoadLock) {
  RunWithSdk(SdkVariant::Full, [] {
    sdkOpenDelayMicroseconds = 2000;
    constexpr int kThreads = 8;
    constexpr int kRounds = 200;
    std::atomic<int> ready{0};
    std::vector<void*> slots(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ++ready;
        while (ready.load() < kThreads) {
        }
        for (int round = 0; round < kRounds; ++round) {
          LoadProc(&slots[t], (t % 2) != 0 ? "APMEvent" : "APMEventParam", nullptr);
        }
        APMEvent(1, static_cast<unsigned int>(t), 60, APM_EVENT_SINGLE);
      });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(sdkOpenAttempts.load(), 1);
    void* library = dlopen("libkelvorasdk.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    for (int t = 0; t < kThreads; ++t) {
      EXPECT_EQ(slots[t], dlsym(library, (t % 2) != 0 ? "APMEvent" : "APMEventParam"));
    }
    dlclose(library);
    EXPECT_EQ(RecordedSdkCalls("APMEvent").size(), static_cast<size_t>(kThreads));
  });
}

}  // namespace
}  // namespace apm
