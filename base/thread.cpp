#include "base/thread.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace apm {
namespace base {

Thread::Thread() : handle(0), tid(0), priority(ThreadPriorityNormal), detached(false) {}

Thread::~Thread() = default;

bool Thread::Start(ThreadPriority threadPriority) {
  priority = threadPriority;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
  bool started = pthread_create(&handle, &attributes, &Thread::ThreadMainFunction, this) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) handle = 0;
  return started;
}

bool Thread::Join() {
  if (handle == 0) return false;
  if (pthread_equal(handle, pthread_self())) return true;
  if (pthread_join(handle, nullptr) != 0) return false;
  handle = 0;
  return true;
}

bool Thread::SetPriority(ThreadPriority threadPriority) {
  int niceValue = threadPriority == ThreadPriorityAboveNormal ? -2 : 0;
  errno = 0;
  if (setpriority(PRIO_PROCESS, tid, niceValue) != 0 && errno != 0) return false;
  return true;
}

void Thread::SetName(const char* name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

uint32_t Thread::GetCurrentTID() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

void* Thread::ThreadMainFunction(void* argument) {
  Thread* thread = static_cast<Thread*>(argument);
  thread->tid = GetCurrentTID();
  if (thread->priority != ThreadPriorityNormal) thread->SetPriority(thread->priority);
  thread->Execute();
  return nullptr;
}

}  // namespace base
}  // namespace apm
