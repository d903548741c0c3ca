// Scheduler: immediate and timed items, the growing worker pool, the timer walk
// under a controlled clock, and Stop.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/scheduler.h"

namespace apm {
namespace base {
namespace {

constexpr uint64_t kMillisecond = 1000;
constexpr uint64_t kSecond = 1000000;

uint64_t RealNowMicroseconds() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * kSecond + now.tv_usec;
}

// Polls `predicate` every millisecond for up to ten seconds.
bool Eventually(const std::function<bool()>& predicate) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Names of this process's threads. A sanitizer runtime starts a helper thread of
// its own with the first thread made, so the first call starts and joins one
// beforehand.
std::vector<std::string> ThreadNames() {
  static bool settled = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)settled;
  std::vector<std::string> names;
  DIR* tasks = opendir("/proc/self/task");
  while (dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string name;
    std::getline(comm, name);
    names.push_back(name);
  }
  closedir(tasks);
  return names;
}

size_t CountThreadsNamed(const std::string& name) {
  std::vector<std::string> names = ThreadNames();
  return std::count(names.begin(), names.end(), name);
}

std::string OwnThreadName() {
  std::ifstream comm("/proc/thread-self/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

// A clock that stands still until the test moves it. The timer thread's sleeps
// are short real waits, after which it reads this clock again; each sleep is
// counted, so that a test can wait for a full walk of the timer list.
class FakeClock : public SchedulerClock {
 public:
  explicit FakeClock(uint64_t start) : now_(start) {}

  uint64_t Now() override { return now_; }

  void WaitUntil(ConditionVariable& condition, uint64_t wakeTime) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      wakeTimes_.push_back(wakeTime);
    }
    walked_.notify_all();
    condition.WaitUntil(RealNowMicroseconds() + kMillisecond);
  }

  void Set(uint64_t now) { now_ = now; }
  void Advance(uint64_t delta) { now_ += delta; }

  // Returns once the timer thread has walked its list with the time as it is now.
  void WaitForWalk() {
    std::unique_lock<std::mutex> lock(mutex_);
    size_t target = wakeTimes_.size() + 2;
    ASSERT_TRUE(walked_.wait_for(lock, std::chrono::seconds(10), [&] { return wakeTimes_.size() >= target; }));
  }

  uint64_t LastWakeTime() {
    std::lock_guard<std::mutex> lock(mutex_);
    return wakeTimes_.empty() ? 0 : wakeTimes_.back();
  }

 private:
  std::atomic<uint64_t> now_;
  std::mutex mutex_;
  std::condition_variable walked_;
  std::vector<uint64_t> wakeTimes_;
};

// An item that records its runs and, if gated, blocks in Execute until opened.
class RecordingItem : public IScheduledItem {
 public:
  explicit RecordingItem(bool gated = false) : open_(!gated) {}

  void Execute() override {
    if (onExecute) onExecute();
    std::unique_lock<std::mutex> lock(mutex_);
    ++started_;
    ++active_;
    maxActive_ = std::max(maxActive_, active_);
    threads_.push_back(Thread::GetCurrentTID());
    names_.push_back(OwnThreadName());
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_; });
    --active_;
    ++finished_;
    changed_.notify_all();
  }

  void Cancel() override {
    ++cancelCalls;
    IScheduledItem::Cancel();
  }

  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

  bool WaitStarted(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return started_ >= count; });
  }
  bool WaitFinished(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return finished_ >= count; });
  }

  int started() {
    std::lock_guard<std::mutex> lock(mutex_);
    return started_;
  }
  int maxActive() {
    std::lock_guard<std::mutex> lock(mutex_);
    return maxActive_;
  }
  std::vector<uint32_t> threads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
  }
  std::vector<std::string> names() {
    std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }

  std::function<void()> onExecute;  // Runs on the worker first, outside the item's lock.
  std::atomic<int> cancelCalls{0};

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_;
  int started_ = 0;
  int finished_ = 0;
  int active_ = 0;
  int maxActive_ = 0;
  std::vector<uint32_t> threads_;
  std::vector<std::string> names_;
};

// ---- Immediate items ----

TEST(Scheduler, ScheduleOnceWithoutDelayReturnsAtOnceAndRunsOnAWorker) {
  Scheduler scheduler(10);
  ASSERT_TRUE(scheduler.Start(3));
  CRefPtr<RecordingItem> item(new RecordingItem(true));

  scheduler.ScheduleOnce(item.get(), 0);
  // Still blocked in Execute on the worker: the call did not wait for it.
  ASSERT_TRUE(item->WaitStarted(1));
  EXPECT_NE(item->threads()[0], Thread::GetCurrentTID());
  EXPECT_FALSE(scheduler.FindTimerItem(item.get()));

  item->Open();
  ASSERT_TRUE(item->WaitFinished(1));
  scheduler.Stop();
  EXPECT_EQ(item->started(), 1);
}

TEST(Scheduler, ScheduleOnceWithoutDelayGetsNoIdAndNeverEntersTheTimerList) {
  // No workers and no room for any: the test takes the task itself.
  Scheduler scheduler(0);
  ASSERT_TRUE(scheduler.Start(0));
  CRefPtr<RecordingItem> item(new RecordingItem);

  unsigned int id = 77;
  scheduler.ScheduleNewTask(item.get(), 0, id, 0, true);
  EXPECT_EQ(id, 77u);
  EXPECT_FALSE(scheduler.FindTimerItem(item.get()));
  EXPECT_EQ(scheduler.GetWorkerCount(), 0u);

  CRefPtr<ScheduledItem> task;
  ASSERT_TRUE(scheduler.GetNextTask(task));
  EXPECT_EQ(task->id, 0u);
  EXPECT_EQ(task->item.get(), item.get());
  EXPECT_TRUE(task->once);
  EXPECT_EQ(task->runCount, 0u);
  scheduler.Stop();
}

TEST(Scheduler, WorkersAreNamedIdleAndExecutingAndTheTimerScheduler) {
  Scheduler scheduler(10);
  ASSERT_TRUE(scheduler.Start(3));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 3; }));
  EXPECT_EQ(CountThreadsNamed("Idle Worker"), 3u);
  EXPECT_TRUE(Eventually([&] { return CountThreadsNamed("Scheduler") == 1; }));

  CRefPtr<RecordingItem> item(new RecordingItem);
  scheduler.ScheduleOnce(item.get(), 0);
  ASSERT_TRUE(item->WaitFinished(1));
  // The kernel keeps 15 characters of a thread name.
  EXPECT_EQ(item->names()[0], std::string("Executing Worker").substr(0, 15));

  scheduler.Stop();
  EXPECT_TRUE(Eventually([&] { return CountThreadsNamed("Idle Worker") == 0; }));
  EXPECT_TRUE(Eventually([&] { return CountThreadsNamed("Scheduler") == 0; }));
}

// ---- The pool ----

TEST(Scheduler, StartWithZeroOrFewerWorkersCreatesNone) {
  Scheduler scheduler(10);
  ASSERT_TRUE(scheduler.Start(-1));
  EXPECT_EQ(scheduler.GetWorkerCount(), 0u);
  EXPECT_EQ(scheduler.GetIdleCount(), 0);

  // The first task finds no idle worker and makes one.
  CRefPtr<RecordingItem> item(new RecordingItem);
  scheduler.ScheduleOnce(item.get(), 0);
  ASSERT_TRUE(item->WaitFinished(1));
  EXPECT_EQ(scheduler.GetWorkerCount(), 1u);
  scheduler.Stop();
}

TEST(Scheduler, StartWhileRunningReturnsTrueAndAddsNothing) {
  Scheduler scheduler(10);
  ASSERT_TRUE(scheduler.Start(2));
  EXPECT_TRUE(scheduler.Start(5));
  EXPECT_EQ(scheduler.GetWorkerCount(), 2u);
  scheduler.Stop();
}

TEST(Scheduler, TenTasksToThreeSleepingWorkersGrowThePoolUntilIdleCountIsPositive) {
  Scheduler scheduler(100);
  ASSERT_TRUE(scheduler.Start(3));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 3; }));

  std::vector<CRefPtr<RecordingItem>> items;
  for (int i = 0; i < 10; ++i) {
    items.emplace_back(new RecordingItem(true));
    scheduler.ScheduleOnce(items.back().get(), 0);
  }
  // Tasks 3 to 10 each found no idle capacity and made one worker: 11 in all, ten
  // busy and one waiting.
  for (auto& busy : items) ASSERT_TRUE(busy->WaitStarted(1));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 1; }));
  EXPECT_EQ(scheduler.GetWorkerCount(), 11u);

  for (auto& busy : items) busy->Open();
  for (auto& busy : items) ASSERT_TRUE(busy->WaitFinished(1));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 11; }));
  EXPECT_EQ(scheduler.GetWorkerCount(), 11u);
  scheduler.Stop();
}

TEST(Scheduler, PoolStopsGrowingAtItsLimitAndTasksWaitInTheQueue) {
  Scheduler scheduler(5);
  ASSERT_TRUE(scheduler.Start(3));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 3; }));

  std::vector<CRefPtr<RecordingItem>> items;
  for (int i = 0; i < 10; ++i) {
    items.emplace_back(new RecordingItem(true));
    scheduler.ScheduleOnce(items.back().get(), 0);
  }
  // Five workers, five tasks running, five queued: idleCount 5 - 10.
  auto running = [&] {
    int count = 0;
    for (auto& busy : items) count += busy->started();
    return count;
  };
  ASSERT_TRUE(Eventually([&] { return running() == 5; }));
  EXPECT_EQ(scheduler.GetIdleCount(), -5);
  EXPECT_EQ(scheduler.GetWorkerCount(), 5u);

  for (auto& busy : items) busy->Open();
  for (auto& busy : items) ASSERT_TRUE(busy->WaitFinished(1));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 5; }));
  EXPECT_EQ(scheduler.GetWorkerCount(), 5u);
  scheduler.Stop();
}

// ---- Stop ----

TEST(Scheduler, ScheduleTaskAfterStopDropsTheTaskAndLeavesIdleCount) {
  Scheduler scheduler(10);
  ASSERT_TRUE(scheduler.Start(3));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 3; }));
  scheduler.Stop();
  int32_t idleAfterStop = scheduler.GetIdleCount();

  CRefPtr<RecordingItem> item(new RecordingItem);
  CRefPtr<ScheduledItem> record(new ScheduledItem(item.get()));
  scheduler.ScheduleTask(record.get());
  scheduler.ScheduleOnce(item.get(), 0);

  EXPECT_EQ(scheduler.GetIdleCount(), idleAfterStop);
  EXPECT_EQ(scheduler.GetWorkerCount(), 0u);
  // Nobody but this test holds the record: it was not queued.
  EXPECT_EQ(record->AddRef(), 2u);
  record->Release();
  EXPECT_EQ(item->started(), 0);
}

TEST(Scheduler, StopTwiceTheSecondDoesNothingAndTheSchedulerCanStartAgain) {
  Scheduler scheduler(10);
  ASSERT_TRUE(scheduler.Start(3));
  scheduler.Stop();
  scheduler.Stop();
  EXPECT_EQ(scheduler.GetWorkerCount(), 0u);
  EXPECT_TRUE(Eventually([&] { return CountThreadsNamed("Scheduler") == 0; }));

  ASSERT_TRUE(scheduler.Start(1));
  CRefPtr<RecordingItem> item(new RecordingItem);
  scheduler.ScheduleOnce(item.get(), 0);
  ASSERT_TRUE(item->WaitFinished(1));
  scheduler.Stop();
}

TEST(Scheduler, StopCancelsTimedItemsDropsQueuedTasksAndWaitsForRunningOnes) {
  Scheduler scheduler(1);
  ASSERT_TRUE(scheduler.Start(1));
  ASSERT_TRUE(Eventually([&] { return scheduler.GetIdleCount() == 1; }));

  CRefPtr<RecordingItem> runningItem(new RecordingItem(true));
  CRefPtr<RecordingItem> queuedItem(new RecordingItem);
  CRefPtr<RecordingItem> timedItem(new RecordingItem);
  CRefPtr<RecordingItem> cancelledItem(new RecordingItem);
  scheduler.ScheduleOnce(runningItem.get(), 0);
  ASSERT_TRUE(runningItem->WaitStarted(1));
  scheduler.ScheduleOnce(queuedItem.get(), 0);  // The only worker is busy: it waits.
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(timedItem.get(), 3600000, id, 0);
  scheduler.ScheduleEveryMilliseconds(cancelledItem.get(), 3600000, id, 0);
  cancelledItem->cancelled = true;

  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    scheduler.Stop();
    stopped = true;
  });
  ASSERT_TRUE(Eventually([&] { return timedItem->cancelled.load(); }));
  EXPECT_EQ(timedItem->cancelCalls, 1);
  EXPECT_EQ(cancelledItem->cancelCalls, 0);
  EXPECT_FALSE(stopped);  // Waiting for the running task.

  runningItem->Open();
  stopper.join();
  EXPECT_EQ(runningItem->started(), 1);
  EXPECT_EQ(queuedItem->started(), 0);
  EXPECT_FALSE(queuedItem->cancelled);
  EXPECT_EQ(queuedItem->cancelCalls, 0);
  EXPECT_EQ(timedItem->started(), 0);
  EXPECT_FALSE(scheduler.FindTimerItem(timedItem.get()));
}

TEST(Scheduler, DestructorStopsAndJoinsEveryThread) {
  size_t before = ThreadNames().size();
  CRefPtr<RecordingItem> item(new RecordingItem);
  {
    Scheduler scheduler(10);
    ASSERT_TRUE(scheduler.Start(3));
    unsigned int id = 0;
    scheduler.ScheduleEveryMilliseconds(item.get(), 3600000, id, 0);
    EXPECT_EQ(ThreadNames().size(), before + 4);
  }
  // A joined thread may linger in /proc for a moment after its exit.
  EXPECT_TRUE(Eventually([&] { return ThreadNames().size() == before; }));
  EXPECT_EQ(item->cancelCalls, 1);
}

// ---- The timer list ----

class TimedScheduler : public ::testing::Test {
 protected:
  static constexpr uint64_t kStart = 1700000000ull * kSecond;

  TimedScheduler() : clock(kStart), scheduler(10, &clock) {}
  void SetUp() override { ASSERT_TRUE(scheduler.Start(2)); }
  void TearDown() override { scheduler.Stop(); }

  FakeClock clock;
  Scheduler scheduler;
};

TEST_F(TimedScheduler, ScheduleOnceWithDelayEntersTheTimerListAndLeavesItWhenHandedOver) {
  CRefPtr<RecordingItem> item(new RecordingItem);
  std::atomic<bool> listedWhileRunning{true};
  item->onExecute = [&] { listedWhileRunning = static_cast<bool>(scheduler.FindTimerItem(item.get())); };

  scheduler.ScheduleOnce(item.get(), 500);
  CRefPtr<ScheduledItem> record = scheduler.FindTimerItem(item.get());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->id, 1u);
  EXPECT_TRUE(record->once);
  EXPECT_EQ(record->interval, 500 * kMillisecond);
  EXPECT_EQ(record->lastTime, kStart);
  EXPECT_EQ(record->nextTime, kStart + 500 * kMillisecond);

  clock.Advance(499 * kMillisecond);
  clock.WaitForWalk();
  EXPECT_TRUE(scheduler.FindTimerItem(item.get()));
  EXPECT_EQ(item->started(), 0);

  clock.Advance(1 * kMillisecond);
  ASSERT_TRUE(item->WaitFinished(1));
  EXPECT_FALSE(listedWhileRunning);
  EXPECT_FALSE(scheduler.FindTimerItem(item.get()));

  clock.Advance(10 * kSecond);
  clock.WaitForWalk();
  EXPECT_EQ(item->started(), 1);
}

TEST_F(TimedScheduler, PeriodicItemFirstRunsOnePeriodAfterSchedulingOrAfterTheGivenDelay) {
  CRefPtr<RecordingItem> periodic(new RecordingItem);
  CRefPtr<RecordingItem> delayed(new RecordingItem);
  unsigned int periodicId = 0, delayedId = 0;
  scheduler.ScheduleEveryMilliseconds(periodic.get(), 1000, periodicId, 0);
  scheduler.ScheduleEveryMilliseconds(delayed.get(), 1000, delayedId, 200);
  EXPECT_EQ(periodicId, 1u);
  EXPECT_EQ(delayedId, 2u);
  EXPECT_EQ(scheduler.FindTimerItem(periodic.get())->nextTime, kStart + kSecond);
  EXPECT_EQ(scheduler.FindTimerItem(delayed.get())->nextTime, kStart + 200 * kMillisecond);

  clock.Advance(200 * kMillisecond);
  ASSERT_TRUE(delayed->WaitFinished(1));
  clock.WaitForWalk();
  EXPECT_EQ(periodic->started(), 0);

  clock.Advance(800 * kMillisecond);
  ASSERT_TRUE(periodic->WaitFinished(1));
  ASSERT_TRUE(Eventually([&] { return !scheduler.FindTimerItem(periodic.get())->running; }));
  clock.Advance(1000 * kMillisecond);
  ASSERT_TRUE(periodic->WaitFinished(2));
  EXPECT_EQ(scheduler.FindTimerItem(periodic.get())->runCount, 2u);
}

TEST_F(TimedScheduler, PeriodicItemLongerThanItsIntervalRunsBackToBackAtMostAndCountsSkips) {
  CRefPtr<RecordingItem> item(new RecordingItem(true));
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(item.get(), 100, id, 0);

  clock.Advance(100 * kMillisecond);
  ASSERT_TRUE(item->WaitStarted(1));
  for (int tick = 1; tick <= 3; ++tick) {
    clock.Advance(100 * kMillisecond);
    clock.WaitForWalk();
  }
  CRefPtr<ScheduledItem> record = scheduler.FindTimerItem(item.get());
  EXPECT_EQ(record->skipCount, 3u);
  EXPECT_EQ(record->runCount, 1u);
  EXPECT_EQ(record->nextTime, kStart + 500 * kMillisecond);  // Counted from the last tick.
  EXPECT_EQ(item->started(), 1);

  item->Open();
  ASSERT_TRUE(item->WaitFinished(1));
  ASSERT_TRUE(Eventually([&] { return !scheduler.FindTimerItem(item.get())->running; }));
  // The missed ticks are not made up for: one run at the next tick.
  clock.Advance(100 * kMillisecond);
  ASSERT_TRUE(item->WaitFinished(2));
  clock.WaitForWalk();
  record = scheduler.FindTimerItem(item.get());
  EXPECT_EQ(record->runCount, 2u);
  EXPECT_EQ(record->skipCount, 3u);
  EXPECT_EQ(item->started(), 2);
  EXPECT_EQ(item->maxActive(), 1);
}

TEST_F(TimedScheduler, LateTickCountsTheNextRunFromNowWithoutABurst) {
  CRefPtr<RecordingItem> item(new RecordingItem);
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(item.get(), 100, id, 0);

  clock.Advance(350 * kMillisecond);
  ASSERT_TRUE(item->WaitFinished(1));
  clock.WaitForWalk();
  CRefPtr<ScheduledItem> record = scheduler.FindTimerItem(item.get());
  EXPECT_EQ(record->lastTime, kStart + 350 * kMillisecond);
  EXPECT_EQ(record->nextTime, kStart + 450 * kMillisecond);
  EXPECT_EQ(item->started(), 1);
}

TEST_F(TimedScheduler, WithNoTimedItemsTheTimerWakesEverySixtySeconds) {
  clock.WaitForWalk();
  EXPECT_EQ(clock.LastWakeTime(), kStart + 60 * kSecond);
  clock.Advance(60 * kSecond);
  clock.WaitForWalk();
  EXPECT_EQ(clock.LastWakeTime(), kStart + 120 * kSecond);
}

TEST_F(TimedScheduler, TimerSleepsUntilTheEarliestItemButNeverLongerThanSixtySeconds) {
  CRefPtr<RecordingItem> hourly(new RecordingItem);
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(hourly.get(), 3600000, id, 0);
  clock.WaitForWalk();
  EXPECT_EQ(clock.LastWakeTime(), kStart + 60 * kSecond);

  CRefPtr<RecordingItem> soon(new RecordingItem);
  scheduler.ScheduleEveryMilliseconds(soon.get(), 5000, id, 0);
  clock.WaitForWalk();
  EXPECT_EQ(clock.LastWakeTime(), kStart + 5 * kSecond);
}

TEST_F(TimedScheduler, ClockSetBackReschedulesEachItemOneIntervalFromTheNewTime) {
  CRefPtr<RecordingItem> item(new RecordingItem);
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(item.get(), 1000, id, 0);

  uint64_t earlier = kStart - 3600 * kSecond;
  clock.Set(earlier);
  clock.WaitForWalk();
  CRefPtr<ScheduledItem> record = scheduler.FindTimerItem(item.get());
  EXPECT_EQ(record->lastTime, earlier);
  EXPECT_EQ(record->nextTime, earlier + kSecond);
  EXPECT_EQ(record->runCount, 0u);
  EXPECT_EQ(clock.LastWakeTime(), earlier + kSecond);
  EXPECT_EQ(item->started(), 0);  // Not fired...

  clock.Advance(999 * kMillisecond);
  clock.WaitForWalk();
  EXPECT_EQ(item->started(), 0);
  clock.Advance(1 * kMillisecond);  // ...and not stuck for an hour.
  ASSERT_TRUE(item->WaitFinished(1));
}

TEST(SchedulerClockWrap, TimesCompareAcrossWrapAround) {
  uint64_t start = UINT64_MAX - 500 * kMillisecond;
  FakeClock clock(start);
  Scheduler scheduler(10, &clock);
  ASSERT_TRUE(scheduler.Start(1));
  CRefPtr<RecordingItem> item(new RecordingItem);
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(item.get(), 1000, id, 0);
  EXPECT_EQ(scheduler.FindTimerItem(item.get())->nextTime, start + kSecond);  // Wrapped past 0.

  clock.WaitForWalk();
  EXPECT_EQ(item->started(), 0);
  EXPECT_EQ(clock.LastWakeTime(), start + kSecond);
  clock.Advance(kSecond);
  ASSERT_TRUE(item->WaitFinished(1));
  scheduler.Stop();
}

TEST_F(TimedScheduler, UnscheduleItemRemovesTheItemAndLetsARunInProgressFinish) {
  CRefPtr<RecordingItem> item(new RecordingItem(true));
  unsigned int id = 0;
  scheduler.ScheduleEveryMilliseconds(item.get(), 100, id, 0);
  clock.Advance(100 * kMillisecond);
  ASSERT_TRUE(item->WaitStarted(1));

  scheduler.UnscheduleItem(9999);  // Unknown: ignored.
  EXPECT_TRUE(scheduler.FindTimerItem(item.get()));
  scheduler.UnscheduleItem(id);
  EXPECT_FALSE(scheduler.FindTimerItem(item.get()));

  item->Open();
  ASSERT_TRUE(item->WaitFinished(1));
  clock.Advance(10 * kSecond);
  clock.WaitForWalk();
  EXPECT_EQ(item->started(), 1);
}

TEST_F(TimedScheduler, IdsCountUpFromOne) {
  CRefPtr<RecordingItem> item(new RecordingItem);
  unsigned int first = 0, second = 0;
  scheduler.ScheduleEveryMilliseconds(item.get(), 1000, first, 0);
  scheduler.ScheduleOnce(item.get(), 1000);  // Takes id 2, which is discarded.
  scheduler.ScheduleEveryMilliseconds(item.get(), 1000, second, 0);
  EXPECT_EQ(first, 1u);
  EXPECT_EQ(second, 3u);
}

}  // namespace
}  // namespace base
}  // namespace apm
