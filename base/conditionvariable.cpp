#include "base/conditionvariable.h"

#include "base/criticalsection.h"

#include <ctime>

namespace apm {
namespace base {

ConditionVariable::ConditionVariable() {
  InitRecursiveMutex(mutex);
  pthread_cond_init(&condition, nullptr);
}

ConditionVariable::~ConditionVariable() {
  pthread_cond_destroy(&condition);
  pthread_mutex_destroy(&mutex);
}

void ConditionVariable::Lock() { pthread_mutex_lock(&mutex); }

void ConditionVariable::Unlock() { pthread_mutex_unlock(&mutex); }

void ConditionVariable::Wait() { pthread_cond_wait(&condition, &mutex); }

void ConditionVariable::WaitUntil(unsigned long microsecondsSinceEpoch) {
  timespec deadline;
  deadline.tv_sec = static_cast<time_t>(microsecondsSinceEpoch / 1000000UL);
  deadline.tv_nsec = static_cast<long>((microsecondsSinceEpoch % 1000000UL) * 1000UL);
  pthread_cond_timedwait(&condition, &mutex, &deadline);
}

void ConditionVariable::Wakeup() { pthread_cond_signal(&condition); }

void ConditionVariable::WakeupAll() { pthread_cond_broadcast(&condition); }

}  // namespace base
}  // namespace apm
