// IScheduledItem: a unit of work handed to the Scheduler (base/scheduler.h).
// ScheduledItem: the scheduler's own record of one such item.
//
// Users derive from IScheduledItem and implement Execute; the scheduler holds a
// reference to the item until it has run (once) or until it is unscheduled or the
// scheduler stops (periodic). Execute runs on a worker thread and must not let an
// exception escape. Cancel is called by the thread that stops the scheduler, while
// the item may still be running on a worker; it only sets `cancelled`.
//
// A ScheduledItem is made and used by the Scheduler. Its times and counters are
// guarded by the scheduler's timer lock; `running` is set by the timer thread and
// cleared by the worker that ran the item, hence atomic.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/refcounted.h"

namespace apm {
namespace base {

class IScheduledItem : public IRefCounted {
 public:
  ~IScheduledItem() override = default;

  virtual void Execute() = 0;
  virtual void Cancel() { cancelled = true; }

  std::atomic<bool> cancelled{false};
};

class ScheduledItem : public IRefCounted {
 public:
  explicit ScheduledItem(IScheduledItem* scheduled) : item(scheduled) {}

  uint32_t id = 0;  // 0 for an item that never entered the timer list.
  CRefPtr<IScheduledItem> item;
  uint64_t interval = 0;  // Microseconds.
  uint64_t lastTime = 0;  // Microseconds since the epoch: when the item last came up.
  uint64_t nextTime = 0;  // Microseconds since the epoch.
  std::atomic<bool> running{false};  // Handed to the workers and not yet returned.
  uint32_t skipCount = 0;  // Ticks dropped because the previous run was still going.
  uint32_t runCount = 0;
  bool once = false;
  bool triggered = false;  // Run at the next walk of the timer list, ahead of time.
};

}  // namespace base
}  // namespace apm
