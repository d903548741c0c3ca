// Scheduler hand-off latency and throughput, each beside a baseline pool.
//
// Latency: the time from ScheduleOnce(item, 0) to the start of the item's Execute
// on an idle worker, one task at a time (the pool is idle before each hand-off).
// Throughput: tasks per second when 1 or 2 producer threads hand over trivial
// tasks as fast as they can, until every task has run.
// The baseline is a fixed pool of std::thread workers on one std::mutex,
// std::condition_variable and std::deque, with the same number of workers.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/scheduler.h"

namespace {

using Clock = std::chrono::steady_clock;
using apm::base::CRefPtr;
using apm::base::IScheduledItem;
using apm::base::Scheduler;

int64_t NowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// Notes when it starts and counts its runs.
class ProbeItem : public IScheduledItem {
 public:
  void Execute() override {
    startedAt.store(NowNanoseconds(), std::memory_order_relaxed);
    runs.fetch_add(1, std::memory_order_release);
  }
  std::atomic<int64_t> startedAt{0};
  std::atomic<long> runs{0};
};

// The baseline: a fixed pool on a mutex, a condition variable and a deque.
class BaselinePool {
 public:
  explicit BaselinePool(int workers) {
    for (int i = 0; i < workers; ++i) threads_.emplace_back([this] { Work(); });
  }
  ~BaselinePool() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    for (auto& thread : threads_) thread.join();
  }
  void Post(IScheduledItem* item) {
    item->AddRef();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(item);
    }
    ready_.notify_one();
  }
  int Idle() {
    std::lock_guard<std::mutex> lock(mutex_);
    return idle_;
  }

 private:
  void Work() {
    for (;;) {
      IScheduledItem* item;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        ++idle_;
        ready_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        --idle_;
        if (stopping_) return;
        item = queue_.front();
        queue_.pop_front();
      }
      item->Execute();
      item->Release();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<IScheduledItem*> queue_;
  std::vector<std::thread> threads_;
  int idle_ = 0;
  bool stopping_ = false;
};

struct Percentiles {
  double median;
  double p99;
};

Percentiles Summarize(std::vector<int64_t>& samples) {
  std::sort(samples.begin(), samples.end());
  auto at = [&](double q) { return static_cast<double>(samples[static_cast<size_t>(q * (samples.size() - 1))]); };
  return {at(0.5) / 1000.0, at(0.99) / 1000.0};
}

void WaitUntil(const std::function<bool()>& condition) {
  while (!condition()) std::this_thread::yield();
}

// One hand-off at a time, each to an idle pool; `post` hands the item over,
// `idle` says when the pool is idle again.
template <class Post, class Idle>
Percentiles MeasureLatency(int rounds, int workers, Post post, Idle idle) {
  CRefPtr<ProbeItem> item(new ProbeItem);
  std::vector<int64_t> samples;
  samples.reserve(rounds);
  for (int round = -rounds / 10; round < rounds; ++round) {  // The first tenth warms up.
    WaitUntil([&] { return idle() == workers; });
    long runsBefore = item->runs.load(std::memory_order_acquire);
    int64_t handedAt = NowNanoseconds();
    post(item.get());
    WaitUntil([&] { return item->runs.load(std::memory_order_acquire) != runsBefore; });
    if (round >= 0) samples.push_back(item->startedAt.load(std::memory_order_relaxed) - handedAt);
  }
  return Summarize(samples);
}

// Producers hand over `tasks` tasks in all; the time runs until the last has run.
template <class Post>
double MeasureThroughput(long tasks, int producers, Post post) {
  CRefPtr<ProbeItem> item(new ProbeItem);
  auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      long share = tasks / producers + (p < tasks % producers ? 1 : 0);
      for (long i = 0; i < share; ++i) post(item.get());
    });
  }
  for (auto& thread : threads) thread.join();
  WaitUntil([&] { return item->runs.load(std::memory_order_acquire) == tasks; });
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return tasks / seconds;
}

long ArgumentValue(int argc, char** argv, const char* name, long fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (strcmp(argv[i], name) == 0) return strtol(argv[i + 1], nullptr, 10);
  }
  return fallback;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = static_cast<int>(ArgumentValue(argc, argv, "--latency-rounds", 20000));
  const long tasks = ArgumentValue(argc, argv, "--tasks", 200000);
  const int workers = 3;

  printf("Hand-off latency to an idle worker, %d workers, %d rounds (microseconds)\n", workers, rounds);
  printf("%-22s %10s %10s\n", "", "median", "p99");
  Percentiles scheduled, baseline;
  {
    Scheduler scheduler(workers);
    scheduler.Start(workers);
    scheduled = MeasureLatency(
        rounds, workers, [&](IScheduledItem* item) { scheduler.ScheduleOnce(item, 0); },
        [&] { return scheduler.GetIdleCount(); });
    scheduler.Stop();
  }
  {
    BaselinePool pool(workers);
    baseline = MeasureLatency(
        rounds, workers, [&](IScheduledItem* item) { pool.Post(item); }, [&] { return pool.Idle(); });
  }
  printf("%-22s %10.1f %10.1f\n", "Scheduler", scheduled.median, scheduled.p99);
  printf("%-22s %10.1f %10.1f\n", "baseline", baseline.median, baseline.p99);
  printf("%-22s %10.2f %10.2f\n", "ratio", scheduled.median / baseline.median, scheduled.p99 / baseline.p99);

  printf("\nThroughput, %ld trivial tasks (tasks per second)\n", tasks);
  printf("%-42s %12s %12s %8s\n", "", "Scheduler", "baseline", "ratio");
  for (int producers = 1; producers <= 2; ++producers) {
    double fixedRate, growingRate, baselineRate;
    size_t grownTo;
    {
      Scheduler scheduler(workers);
      scheduler.Start(workers);
      fixedRate = MeasureThroughput(tasks, producers, [&](IScheduledItem* item) { scheduler.ScheduleOnce(item, 0); });
      scheduler.Stop();
    }
    {
      BaselinePool pool(workers);
      baselineRate = MeasureThroughput(tasks, producers, [&](IScheduledItem* item) { pool.Post(item); });
    }
    {
      Scheduler scheduler(100);
      scheduler.Start(workers);
      growingRate = MeasureThroughput(tasks, producers, [&](IScheduledItem* item) { scheduler.ScheduleOnce(item, 0); });
      grownTo = scheduler.GetWorkerCount();
      scheduler.Stop();
    }
    char label[64];
    snprintf(label, sizeof(label), "%d producer(s), pool of %d", producers, workers);
    printf("%-42s %12.0f %12.0f %8.2f\n", label, fixedRate, baselineRate, fixedRate / baselineRate);
    snprintf(label, sizeof(label), "%d producer(s), pool 3..100 (grew to %zu)", producers, grownTo);
    printf("%-42s %12.0f %12.0f %8.2f\n", label, growingRate, baselineRate, growingRate / baselineRate);
  }
  return 0;
}
