// Scheduler: timed and immediate work on a pool of worker threads.
//
// One timer thread walks a list of timed items and hands each due item to a
// first-in first-out task queue; workers take tasks from that queue and run them.
// Immediate one-shot items (ScheduleOnce with no delay) skip the timer list. The
// pool starts with the number of workers given to Start and grows by one whenever a
// task finds no idle worker, up to the `maxThreads` given to the constructor; it
// never shrinks until Stop, which ends and joins every thread. A periodic item
// never runs twice at a time: a tick that finds it still running is dropped and
// counted in `skipCount`.
//
// The scheduler owns its threads and its records; it holds a reference to each
// item while the item is scheduled or queued. All public operations are
// thread-safe, except that Start, Stop and destruction belong to the owner. Lock
// order: `timerCondition` before `taskCondition`, never the reverse.
//
// SchedulerClock is where the scheduler reads the time and the timer thread
// sleeps; the default is the system's real-time clock (gettimeofday). Tests pass
// their own to control time.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <vector>

#include "base/conditionvariable.h"
#include "base/refcounted.h"
#include "base/scheduleditem.h"
#include "base/thread.h"

namespace apm {
namespace base {

class Scheduler;

class SchedulerClock {
 public:
  virtual ~SchedulerClock() = default;
  // Microseconds since the epoch (gettimeofday).
  virtual uint64_t Now();
  // Sleeps on `condition`, whose mutex the caller holds, until woken or until
  // `wakeTime` (microseconds since the epoch) has passed.
  virtual void WaitUntil(ConditionVariable& condition, uint64_t wakeTime);
};

// A worker of the pool: runs tasks from GetNextTask until it returns false.
class SchedulerWorkerThread : public Thread {
 public:
  explicit SchedulerWorkerThread(Scheduler* owner) : scheduler(owner) {}

 protected:
  void Execute() override;

 private:
  Scheduler* scheduler;
};

// Would wake the timer thread every 10 seconds if started. The timer thread makes
// one on its stack and never starts it: it relies on its 60-second ceiling alone.
class SchedulerWatchdog : public Thread {
 public:
  explicit SchedulerWatchdog(ConditionVariable* condition) : stop(false), timerCondition(condition) {}

  std::atomic<bool> stop;

 protected:
  void Execute() override;

 private:
  ConditionVariable* timerCondition;
};

class Scheduler : private Thread {
 public:
  // `maxThreads` is the upper limit of the worker pool. `clock` (not owned, must
  // outlive the scheduler) defaults to the system clock.
  explicit Scheduler(unsigned int maxThreads, SchedulerClock* clock = nullptr);
  ~Scheduler() override;

  // Starts `workers` workers (none for 0 or less) and the timer thread. True if
  // already running, else whether the timer thread started.
  bool Start(int workers);
  // Cancels and drops the timed items, drops the queued tasks unrun, waits for
  // running tasks and joins every thread. Does nothing if not running. The
  // scheduler may be started again afterwards.
  void Stop();

  // Runs `item` once after `milliseconds`; with 0 at once, on a worker.
  void ScheduleOnce(IScheduledItem* item, unsigned int milliseconds);
  // Runs `item` every `milliseconds`, the first time after `firstDelayMilliseconds`
  // or, if that is 0, after one period. `id` receives the handle for UnscheduleItem.
  void ScheduleEveryMilliseconds(IScheduledItem* item, unsigned int milliseconds, unsigned int& id,
                                 unsigned int firstDelayMilliseconds);
  // Where both of the above end. An immediate one-shot item goes straight to the
  // workers and leaves `id` untouched; anything else enters the timer list.
  void ScheduleNewTask(IScheduledItem* item, unsigned int milliseconds, unsigned int& id,
                       unsigned int firstDelayMilliseconds, bool once);
  // Hands a record to the workers, growing the pool if no worker is idle. Dropped
  // when the scheduler does not run.
  void ScheduleTask(ScheduledItem* item);
  // Blocks until a task is queued; false when the scheduler stops.
  bool GetNextTask(CRefPtr<ScheduledItem>& task);
  // Removes a timed item; an unknown id is ignored, a run in progress goes on.
  void UnscheduleItem(unsigned int id);

  // Read-only views of the pool and the timer list, each taken under its lock.
  size_t GetWorkerCount();
  int32_t GetIdleCount();
  // The timer list's record of `item`, or null if it has none.
  CRefPtr<ScheduledItem> FindTimerItem(const IScheduledItem* item);

 private:
  // The timer thread.
  void Execute() override;

  std::vector<SchedulerWorkerThread*> workers;  // Capacity: the pool's limit.
  uint32_t nextId;
  ConditionVariable timerCondition;  // Guards timerItems.
  std::list<CRefPtr<ScheduledItem>> timerItems;
  int32_t idleCount;  // Calls to GetNextTask less tasks handed over; under taskCondition.
  ConditionVariable taskCondition;  // Guards taskQueue, idleCount and workers.
  std::list<CRefPtr<ScheduledItem>> taskQueue;
  std::atomic<bool> running;
  SchedulerClock* clock;
};

}  // namespace base
}  // namespace apm
