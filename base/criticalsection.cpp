#include "base/criticalsection.h"

namespace apm {
namespace base {

void InitRecursiveMutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) == 0) {
    bool recursive = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                     pthread_mutex_init(&mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    if (recursive) return;
  }
  pthread_mutex_init(&mutex, nullptr);
}

CriticalSection::CriticalSection() { InitRecursiveMutex(mutex); }

CriticalSection::~CriticalSection() { pthread_mutex_destroy(&mutex); }

void CriticalSection::Enter() { pthread_mutex_lock(&mutex); }

void CriticalSection::Leave() { pthread_mutex_unlock(&mutex); }

}  // namespace base
}  // namespace apm
