#include "base/scheduler.h"

#include <sys/time.h>
#include <unistd.h>

#include <utility>

#include "base/famerror.h"

namespace apm {
namespace base {

namespace {

// Longest sleep of the timer thread, in microseconds.
constexpr uint64_t kTimerCeiling = 60000000;

// Times are compared by signed difference so that the comparisons hold across
// wrap-around of the counter.
bool IsLater(uint64_t time, uint64_t reference) { return static_cast<int64_t>(time - reference) > 0; }

void TakeEarlier(uint64_t& wakeTime, uint64_t time) {
  if (IsLater(wakeTime, time)) wakeTime = time;
}

SchedulerClock& SystemClock() {
  static SchedulerClock clock;
  return clock;
}

}  // namespace

uint64_t SchedulerClock::Now() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

void SchedulerClock::WaitUntil(ConditionVariable& condition, uint64_t wakeTime) {
  condition.WaitUntil(static_cast<unsigned long>(wakeTime));
}

void SchedulerWorkerThread::Execute() {
  SetName("Idle Worker");
  CRefPtr<ScheduledItem> task;
  while (scheduler->GetNextTask(task)) {
    FamErrorBase record(false);
    SetName("Executing Worker");
    if (task->item) task->item->Execute();
    SetName("Idle Worker");
    task->running = false;
    task.reset();
  }
}

void SchedulerWatchdog::Execute() {
  while (!stop) {
    timerCondition->Wakeup();
    usleep(10000000);
  }
}

Scheduler::Scheduler(unsigned int maxThreads, SchedulerClock* schedulerClock)
    : nextId(1), idleCount(0), running(false), clock(schedulerClock ? schedulerClock : &SystemClock()) {
  workers.reserve(maxThreads);
}

Scheduler::~Scheduler() {
  Stop();
  timerItems.clear();
  taskQueue.clear();
}

bool Scheduler::Start(int workerCount) {
  if (running) return true;
  running = true;
  for (int i = 0; i < workerCount; ++i) {
    SchedulerWorkerThread* worker = new SchedulerWorkerThread(this);
    {
      ConditionVariable::ScopedLock lock(taskCondition);
      workers.push_back(worker);
    }
    worker->Start(ThreadPriorityNormal);
  }
  return Thread::Start(ThreadPriorityNormal);
}

void Scheduler::Stop() {
  std::list<CRefPtr<ScheduledItem>> timed;
  {
    ConditionVariable::ScopedLock lock(timerCondition);
    if (!running) return;
    running = false;
    timed.swap(timerItems);
    timerCondition.Wakeup();
  }
  for (const CRefPtr<ScheduledItem>& record : timed) {
    if (record->item && !record->item->cancelled) record->item->Cancel();
  }
  timed.clear();

  Join();

  std::list<CRefPtr<ScheduledItem>> queued;
  {
    ConditionVariable::ScopedLock lock(taskCondition);
    queued.swap(taskQueue);
    taskCondition.WakeupAll();
  }
  queued.clear();

  // No worker is added any more: ScheduleTask sees `running` clear.
  for (SchedulerWorkerThread* worker : workers) {
    worker->Join();
    delete worker;
  }
  ConditionVariable::ScopedLock lock(taskCondition);
  workers.clear();
}

void Scheduler::ScheduleOnce(IScheduledItem* item, unsigned int milliseconds) {
  unsigned int discardedId = 0;
  ScheduleNewTask(item, milliseconds, discardedId, 0, true);
}

void Scheduler::ScheduleEveryMilliseconds(IScheduledItem* item, unsigned int milliseconds, unsigned int& id,
                                          unsigned int firstDelayMilliseconds) {
  ScheduleNewTask(item, milliseconds, id, firstDelayMilliseconds, false);
}

void Scheduler::ScheduleNewTask(IScheduledItem* item, unsigned int milliseconds, unsigned int& id,
                                unsigned int firstDelayMilliseconds, bool once) {
  uint64_t interval = static_cast<uint64_t>(milliseconds) * 1000;
  uint64_t firstWait = firstDelayMilliseconds != 0 ? static_cast<uint64_t>(firstDelayMilliseconds) * 1000 : interval;

  CRefPtr<ScheduledItem> record(new ScheduledItem(item));
  uint64_t now = clock->Now();
  record->interval = interval;
  record->lastTime = now;
  record->nextTime = now + firstWait;
  record->once = once;

  // The road of every RPC handler: no id, no timer list.
  if (milliseconds == 0 && once && firstDelayMilliseconds == 0) {
    ScheduleTask(record.get());
    return;
  }

  ConditionVariable::ScopedLock lock(timerCondition);
  record->id = nextId++;
  id = record->id;
  timerItems.push_back(record);
  timerCondition.Wakeup();
}

void Scheduler::ScheduleTask(ScheduledItem* item) {
  ConditionVariable::ScopedLock lock(taskCondition);
  if (!running) return;
  --idleCount;
  taskQueue.push_back(item);
  taskCondition.Wakeup();
  if (idleCount < 1 && workers.size() < workers.capacity()) {
    SchedulerWorkerThread* worker = new SchedulerWorkerThread(this);
    workers.push_back(worker);
    worker->Start(ThreadPriorityNormal);
  }
}

bool Scheduler::GetNextTask(CRefPtr<ScheduledItem>& task) {
  ConditionVariable::ScopedLock lock(taskCondition);
  ++idleCount;
  for (;;) {
    if (!running) return false;
    if (!taskQueue.empty()) break;
    taskCondition.Wait();
  }
  task = std::move(taskQueue.front());
  taskQueue.pop_front();
  return running;
}

void Scheduler::UnscheduleItem(unsigned int id) {
  ConditionVariable::ScopedLock lock(timerCondition);
  for (auto record = timerItems.begin(); record != timerItems.end(); ++record) {
    if ((*record)->id == id) {
      timerItems.erase(record);
      return;
    }
  }
}

size_t Scheduler::GetWorkerCount() {
  ConditionVariable::ScopedLock lock(taskCondition);
  return workers.size();
}

int32_t Scheduler::GetIdleCount() {
  ConditionVariable::ScopedLock lock(taskCondition);
  return idleCount;
}

CRefPtr<ScheduledItem> Scheduler::FindTimerItem(const IScheduledItem* item) {
  ConditionVariable::ScopedLock lock(timerCondition);
  for (const CRefPtr<ScheduledItem>& record : timerItems) {
    if (record->item.get() == item) return record;
  }
  return CRefPtr<ScheduledItem>();
}

void Scheduler::Execute() {
  SetName("Scheduler");
  SchedulerWatchdog watchdog(&timerCondition);

  for (;;) {
    ConditionVariable::ScopedLock lock(timerCondition);
    // Tested under the lock, so that the wake-up of Stop cannot be missed.
    if (!running) break;
    uint64_t now = clock->Now();
    uint64_t wakeTime = now + kTimerCeiling;

    for (auto position = timerItems.begin(); position != timerItems.end();) {
      ScheduledItem* record = position->get();

      if (IsLater(record->lastTime, now)) {
        // The system clock went backwards: start the period afresh from now.
        record->lastTime = now;
        record->nextTime = now + record->interval;
        TakeEarlier(wakeTime, record->nextTime);
        ++position;
        continue;
      }

      if (IsLater(record->nextTime, now) && !(record->triggered && !record->running)) {
        TakeEarlier(wakeTime, record->nextTime);
        ++position;
        continue;
      }

      // Due (or triggered). The next run counts from now, so a late tick causes no burst.
      record->lastTime = now;
      record->nextTime = now + record->interval;

      if (record->running) {
        // Never twice at a time; the missed tick is not made up for.
        ++record->skipCount;
        TakeEarlier(wakeTime, record->nextTime);
        ++position;
        continue;
      }

      ++record->runCount;
      record->triggered = false;
      record->running = true;
      ScheduleTask(record);
      if (record->once) {
        position = timerItems.erase(position);
      } else {
        TakeEarlier(wakeTime, record->nextTime);
        ++position;
      }
    }

    if (IsLater(wakeTime, clock->Now())) clock->WaitUntil(timerCondition, wakeTime);
  }

  watchdog.stop = true;
  watchdog.Join();
}

}  // namespace base
}  // namespace apm
