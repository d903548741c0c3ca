// CEcomm: the message queue, Init and Shutdown, registration and the module "Ecomm".
#include "ecomm/ecomm.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/fixtures/sdkstandin.h"

namespace apm {
namespace ecomm {
namespace {

using base::CRefPtr;
using test::RecordedSdkCalls;
using test::RunWithSdk;
using test::SdkVariant;

// Threads of this process. A sanitizer runtime starts a helper thread of its own
// with the first thread made, so the first call starts and joins one beforehand.
size_t CountThreads() {
  static bool settled = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)settled;
  size_t count = 0;
  DIR* tasks = opendir("/proc/self/task");
  while (dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(tasks);
  return count;
}

bool Eventually(const std::function<bool()>& predicate) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A CEcomm of its own (not the process-wide one) with its queue in reach.
class TestEcomm : public CEcomm {
 public:
  TestEcomm() : CEcomm(10) {}
  using CEcomm::messageMutex;
  using CEcomm::messageQueue;
  using CEcomm::messageTaskId;
};

// A message that notes its destruction, and may run something while it is destroyed.
class NotingMessage : public CMessage {
 public:
  NotingMessage(int number, std::vector<int>* destroyed, std::function<void()> onDestroy = nullptr)
      : number_(number), destroyed_(destroyed), onDestroy_(std::move(onDestroy)) {}
  ~NotingMessage() override {
    destroyed_->push_back(number_);
    if (onDestroy_) onDestroy_();
  }

 private:
  int number_;
  std::vector<int>* destroyed_;
  std::function<void()> onDestroy_;
};

// A message whose destruction can be waited for from another thread.
class SignallingMessage : public CMessage {
 public:
  SignallingMessage(std::mutex* mutex, std::condition_variable* changed, int* count)
      : mutex_(mutex), changed_(changed), count_(count) {}
  ~SignallingMessage() override {
    std::lock_guard<std::mutex> lock(*mutex_);
    ++*count_;
    changed_->notify_all();
  }

 private:
  std::mutex* mutex_;
  std::condition_variable* changed_;
  int* count_;
};

// An item that blocks in Execute until opened.
class GatedItem : public base::IScheduledItem {
 public:
  void Execute() override {
    std::unique_lock<std::mutex> lock(mutex_);
    started_ = true;
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool WaitStarted() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return started_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool started_ = false;
  bool open_ = false;
};

// ---- The message queue ----

TEST(CEcommMessageQueue, EmptyQueueReturnsWithoutTakingTheLock) {
  TestEcomm ecomm;
  std::atomic<bool> returned{false};
  ecomm.messageMutex.lock();
  std::thread drainer([&] {
    ecomm.ProcessMessageQueue();
    returned = true;
  });
  bool returnedWhileLocked = Eventually([&] { return returned.load(); });
  ecomm.messageMutex.unlock();
  drainer.join();
  EXPECT_TRUE(returnedWhileLocked);
}

TEST(CEcommMessageQueue, MessagesAppendedWhileTheQueueDrainsAreTakenInTheSameRunInOrder) {
  TestEcomm ecomm;
  std::vector<int> destroyed;
  bool lockFreeAtDestruction = false;
  ecomm.PostMessage(new NotingMessage(1, &destroyed, [&] {
    // Destroyed outside the lock: this thread can take it and post more.
    lockFreeAtDestruction = ecomm.messageMutex.try_lock();
    if (lockFreeAtDestruction) ecomm.messageMutex.unlock();
    ecomm.PostMessage(new NotingMessage(3, &destroyed));
    ecomm.PostMessage(new NotingMessage(4, &destroyed));
  }));
  ecomm.PostMessage(new NotingMessage(2, &destroyed));

  ecomm.ProcessMessageQueue();
  EXPECT_TRUE(lockFreeAtDestruction);
  EXPECT_EQ(destroyed, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(ecomm.messageQueue.empty());
}

TEST(CEcommMessageQueue, QueueHoldsTheOnlyReferenceUntilDrained) {
  TestEcomm ecomm;
  std::vector<int> destroyed;
  ecomm.PostMessage(new NotingMessage(1, &destroyed));
  EXPECT_TRUE(destroyed.empty());
  EXPECT_EQ(ecomm.messageQueue.size(), 1u);
  ecomm.ProcessMessageQueue();
  EXPECT_EQ(destroyed, std::vector<int>{1});
}

// ---- Init and Shutdown ----

TEST(CEcomm, InitStartsThreeWorkersAndSchedulesTheMessageQueueTask) {
  TestEcomm ecomm;
  ecomm.Init();
  EXPECT_EQ(ecomm.GetWorkerCount(), 3u);
  EXPECT_EQ(ecomm.messageTaskId, 1u);

  ecomm.Shutdown();
  EXPECT_EQ(ecomm.messageTaskId, 0u);
  EXPECT_EQ(ecomm.GetWorkerCount(), 0u);
}

// The message is posted before Init: the drain looks at the queue without the lock,
// so a poster must not run beside the task.
TEST(CEcomm, MessageQueueTaskDrainsTheQueueOfGetEcommOnePeriodAfterInit) {
  RunWithSdk(SdkVariant::Absent, [] {
    CEcomm* ecomm = GetEcomm();
    std::mutex mutex;
    std::condition_variable changed;
    int destroyed = 0;

    ecomm->PostMessage(new SignallingMessage(&mutex, &changed, &destroyed));
    auto start = std::chrono::steady_clock::now();
    ecomm->Init(50);
    {
      std::unique_lock<std::mutex> lock(mutex);
      ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return destroyed == 1; }));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    ecomm->Shutdown();
  });
}

TEST(CEcomm, ShutdownAfterAFailedBindLeavesNothingRunning) {
  RunWithSdk(SdkVariant::Absent, [] {
    size_t before = CountThreads();
    CEcomm* ecomm = GetEcomm();
    ecomm->Init();
    EXPECT_EQ(CountThreads(), before + 4);  // Three workers and the timer.

    ecomm->Shutdown();
    // A joined thread may linger in /proc for a moment after its exit.
    EXPECT_TRUE(Eventually([&] { return CountThreads() == before; }));
    EXPECT_EQ(ecomm->GetWorkerCount(), 0u);
    EXPECT_EQ(ecomm->applicationId, 0u);

    // Work handed over now is dropped: nothing starts again.
    CRefPtr<GatedItem> item(new GatedItem);
    ecomm->ScheduleOnce(item.get(), 0);
    EXPECT_EQ(CountThreads(), before);
  });
}

TEST(CEcomm, ShutdownTwiceIsHarmless) {
  RunWithSdk(SdkVariant::Full, [] {
    CEcomm* ecomm = GetEcomm();
    ecomm->Init();
    ecomm->Shutdown();
    ecomm->Shutdown();
    EXPECT_EQ(RecordedSdkCalls("APMUnregisterApplication").size(), 1u);
    EXPECT_EQ(ecomm->applicationId, 0u);
  });
}

TEST(CEcomm, ShutdownWaitsForARunningHandlerBeforeUnregistering) {
  RunWithSdk(SdkVariant::Full, [] {
    CEcomm* ecomm = GetEcomm();
    ecomm->Init();
    CRefPtr<GatedItem> handler(new GatedItem);
    ecomm->ScheduleOnce(handler.get(), 0);
    ASSERT_TRUE(handler->WaitStarted());

    std::atomic<bool> finished{false};
    std::thread stopper([&] {
      ecomm->Shutdown();
      finished = true;
    });
    // The scheduler waits for the handler; the application stays registered.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(finished);
    EXPECT_TRUE(RecordedSdkCalls("APMUnregisterApplication").empty());

    handler->Open();
    stopper.join();
    std::vector<test::SdkCall> unregistered = RecordedSdkCalls("APMUnregisterApplication");
    ASSERT_EQ(unregistered.size(), 1u);
    EXPECT_EQ(unregistered[0].arguments, std::vector<std::string>{"7"});
  });
}

TEST(CEcomm, GetEcommReservesMaxThreadsWorkers) {
  RunWithSdk(SdkVariant::Absent, [] {
    maxThreads = 12;
    CEcomm* ecomm = GetEcomm();
    EXPECT_EQ(GetEcomm(), ecomm);
    ecomm->Init();
    std::vector<CRefPtr<GatedItem>> handlers;
    for (int i = 0; i < 20; ++i) {
      handlers.emplace_back(new GatedItem);
      ecomm->ScheduleOnce(handlers.back().get(), 0);
    }
    // Twelve workers busy, eight handlers waiting for one.
    EXPECT_TRUE(Eventually([&] { return ecomm->GetIdleCount() == 12 - 20; }));
    EXPECT_EQ(ecomm->GetWorkerCount(), 12u);
    for (auto& handler : handlers) handler->Open();
    ecomm->Shutdown();
  });
}

TEST(CEcomm, MaxThreadsStartsAtOneHundred) { EXPECT_EQ(maxThreads, 100u); }

// ---- Instrumentation ----

TEST(CEcomm, RegisterRegistersTheApplicationEcomm) {
  RunWithSdk(SdkVariant::Full, [] {
    CEcomm* ecomm = GetEcomm();
    EXPECT_EQ(ecomm->applicationId, 0u);
    ecomm->Init();
    std::vector<test::SdkCall> registered = RecordedSdkCalls("APMRegisterApplication");
    ASSERT_EQ(registered.size(), 1u);
    EXPECT_EQ(registered[0].arguments,
              (std::vector<std::string>{"Norvanta kelvora", "", "Ecomm", "", "0"}));
    EXPECT_EQ(ecomm->applicationId, 7u);
    ecomm->Shutdown();
    EXPECT_EQ(ecomm->applicationId, 0u);
  });
}

TEST(CEcomm, WithoutTheLibraryTheApplicationIdStaysZero) {
  RunWithSdk(SdkVariant::Absent, [] {
    CEcomm* ecomm = GetEcomm();
    ecomm->Init();
    EXPECT_EQ(ecomm->applicationId, 0u);
    ecomm->Shutdown();
  });
}

TEST(ModuleEcomm, RegistersTheModuleEcommWithItsEightEventsLast) {
  RunWithSdk(SdkVariant::Full, [] {
    base::CAPMModule* module = GetModuleEcomm();
    EXPECT_EQ(GetModuleEcomm(), module);
    std::vector<test::SdkCall> modules = RecordedSdkCalls("APMRegisterModule");
    ASSERT_EQ(modules.size(), 1u);
    EXPECT_EQ(modules[0].arguments[0], "Ecomm");
    const std::string id = std::to_string(module->moduleId);
    EXPECT_EQ(modules[0].arguments[1], id);

    std::vector<std::vector<std::string>> expected = {
        {id, "20480", "JSON Request Start", "user;url"},
        {id, "20481", "JSON Request End", "status"},
        {id, "20482", "HTTP Request Start", "user;url"},
        {id, "20483", "HTTP Request End", "status"},
        {id, "20484", "Create Request Start", "user;url"},
        {id, "20485", "Create Request End", "status"},
        {id, "20486", "OAuth Token Request Start", "user;url"},
        {id, "20487", "OAuth Token Request End", "status"},
    };
    std::vector<test::SdkCall> events = RecordedSdkCalls("APMModuleRegisterEvent");
    ASSERT_GE(events.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(events[events.size() - expected.size() + i].arguments, expected[i]);
    }
  });
}

}  // namespace
}  // namespace ecomm
}  // namespace apm
