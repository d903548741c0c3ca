// Scheduler under load: many immediate tasks from several producers.
#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "base/scheduler.h"

namespace apm {
namespace base {
namespace {

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

bool Eventually(const std::function<bool()>& predicate, std::chrono::seconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Counts its runs in a shared table and spins briefly, so that workers overlap.
class CountingTask : public IScheduledItem {
 public:
  CountingTask(std::atomic<int>* slot, std::atomic<int>* done) : slot_(slot), done_(done) {}
  void Execute() override {
    slot_->fetch_add(1);
    auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(20);
    while (std::chrono::steady_clock::now() < until) {
    }
    done_->fetch_add(1);
  }

 private:
  std::atomic<int>* slot_;
  std::atomic<int>* done_;
};

TEST(SchedulerStress, TenThousandImmediateTasksFromFourProducersRunExactlyOnce) {
  constexpr int kProducers = 4;
  constexpr int kTasksPerProducer = 2500;
  constexpr int kTasks = kProducers * kTasksPerProducer;
  constexpr unsigned int kCapacity = 100;

  size_t threadsBefore = CountThreads();
  std::unique_ptr<std::atomic<int>[]> runs(new std::atomic<int>[kTasks]);
  for (int i = 0; i < kTasks; ++i) runs[i] = 0;
  std::atomic<int> done{0};

  Scheduler scheduler(kCapacity);
  ASSERT_TRUE(scheduler.Start(3));

  std::atomic<bool> producing{true};
  std::atomic<size_t> largestPool{0};
  std::thread monitor([&] {
    while (producing || done < kTasks) {
      size_t workers = scheduler.GetWorkerCount();
      if (workers > largestPool) largestPool = workers;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kTasksPerProducer; ++i) {
        int index = p * kTasksPerProducer + i;
        CRefPtr<CountingTask> task(new CountingTask(&runs[index], &done));
        scheduler.ScheduleOnce(task.get(), 0);
      }
    });
  }
  for (auto& producer : producers) producer.join();
  producing = false;

  bool allRan = Eventually([&] { return done == kTasks; }, std::chrono::seconds(60));
  monitor.join();
  ASSERT_TRUE(allRan);

  size_t finalPool = scheduler.GetWorkerCount();
  EXPECT_LE(finalPool, kCapacity);
  EXPECT_LE(largestPool.load(), kCapacity);
  EXPECT_GE(finalPool, 3u);
  EXPECT_EQ(CountThreads(), threadsBefore + finalPool + 1);  // Workers and the timer.

  scheduler.Stop();
  EXPECT_EQ(scheduler.GetWorkerCount(), 0u);
  // A joined thread may linger in /proc for a moment after its exit.
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threadsBefore; }, std::chrono::seconds(10)));
  int wrong = 0;
  for (int i = 0; i < kTasks; ++i) {
    if (runs[i] != 1) ++wrong;
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace base
}  // namespace apm
