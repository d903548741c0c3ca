// Thread: a POSIX thread owned by an object that says what it runs.
//
// Derive from Thread and implement Execute; Start creates the thread, which sets
// `tid`, applies its priority and calls Execute once. The object must outlive the
// thread: its owner calls Join (unless the thread was started detached) before it
// destroys the object. The static helpers act on the calling thread.
//
// Start and Join are called by the owner only, from one thread at a time; Execute
// runs on the new thread. SetName and GetCurrentTID may be called from anywhere.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace apm {
namespace base {

enum ThreadPriority : int32_t {
  ThreadPriorityNormal = 0,
  ThreadPriorityAboveNormal = 1,
};

class Thread {
 public:
  Thread();
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Stores `priority`, creates the thread (detached if `detached` is set) with the
  // default stack size. True on success; on failure the thread counts as never
  // started.
  bool Start(ThreadPriority priority);
  // False if the thread was never started; true at once when called on the thread
  // itself; otherwise true if the thread could be joined. After a join the object
  // may be started again.
  bool Join();
  // Sets the kernel nice value of this object's thread: -2 for
  // ThreadPriorityAboveNormal, 0 for anything else. True unless the call failed
  // with a non-zero errno.
  bool SetPriority(ThreadPriority priority);

  // Names the calling thread (as shown in the process list; the kernel keeps 15
  // characters).
  static void SetName(const char* name);
  // Kernel thread identifier of the calling thread.
  static uint32_t GetCurrentTID();

 protected:
  virtual void Execute() = 0;

  pthread_t handle;
  uint32_t tid;
  ThreadPriority priority;
  bool detached;

 private:
  static void* ThreadMainFunction(void* thread);
};

}  // namespace base
}  // namespace apm
