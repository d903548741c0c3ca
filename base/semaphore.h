// _Semaphore<traits>: a process-private POSIX unnamed semaphore.
//
// The object owns the semaphore; the destructor calls sem_destroy. `traits` selects
// the module against which a failed wait is reported (see base/famerror.h).
// Thread-safe, and Post is async-signal-safe: a signal handler may post.
#pragma once

#include <semaphore.h>

#include <cerrno>

#include "base/famerror.h"

namespace apm {
namespace base {

template <class traits>
class _Semaphore {
 public:
  explicit _Semaphore(unsigned int initialCount = 0) { sem_init(&semaphore, 0, initialCount); }
  ~_Semaphore() { sem_destroy(&semaphore); }
  _Semaphore(const _Semaphore&) = delete;
  _Semaphore& operator=(const _Semaphore&) = delete;

  // Adds one to the count and wakes one waiter. Sets no error record, so that it
  // can be called from a signal handler.
  bool Post() { return sem_post(&semaphore) == 0; }

  // Blocks until the count can be taken. True when it was taken; false when the
  // wait was interrupted by a signal (errno is EINTR, nothing else is reported) or
  // failed (reported on the thread's error record).
  bool Wait() {
    if (sem_wait(&semaphore) == 0) return true;
    if (errno != EINTR) _FamError<traits>::SetLastError();
    return false;
  }

  // Takes the count if it is above zero, without blocking.
  bool TryWait() { return sem_trywait(&semaphore) == 0; }

 private:
  sem_t semaphore;
};

}  // namespace base
}  // namespace apm
