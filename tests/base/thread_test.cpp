// Thread, ConditionVariable, _Semaphore and CriticalSection.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "base/conditionvariable.h"
#include "base/criticalsection.h"
#include "base/famerror.h"
#include "base/semaphore.h"
#include "base/thread.h"

namespace apm {
namespace base {
namespace {

uint64_t RealNowMicroseconds() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

std::string ThreadName(uint32_t tid) {
  std::ifstream comm("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

// Runs a function on its own thread.
class FunctionThread : public Thread {
 public:
  explicit FunctionThread(std::function<void(FunctionThread&)> body) : body_(std::move(body)) {}
  void SetDetached() { detached = true; }
  uint32_t StoredTid() const { return tid; }
  ThreadPriority StoredPriority() const { return priority; }
  bool JoinSelf() { return Join(); }

 protected:
  void Execute() override { body_(*this); }

 private:
  std::function<void(FunctionThread&)> body_;
};

// Runs `body` on a std::thread and reports whether it finished within the time.
bool FinishesWithin(std::chrono::milliseconds limit, const std::function<void()>& body) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::thread runner([done, body] {
    body();
    *done = true;
  });
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!*done && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  bool finished = *done;
  if (finished) {
    runner.join();
  } else {
    runner.detach();
  }
  return finished;
}

TEST(Thread, StartRunsExecuteOnANewThreadThatStoresItsTid) {
  std::atomic<uint32_t> seenTid{0};
  FunctionThread thread([&](FunctionThread&) { seenTid = Thread::GetCurrentTID(); });
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  ASSERT_TRUE(thread.Join());
  EXPECT_NE(seenTid.load(), 0u);
  EXPECT_NE(seenTid.load(), Thread::GetCurrentTID());
  EXPECT_EQ(thread.StoredTid(), seenTid.load());
  EXPECT_EQ(thread.StoredPriority(), ThreadPriorityNormal);
}

TEST(Thread, JoinWithoutStartFails) {
  FunctionThread thread([](FunctionThread&) {});
  EXPECT_FALSE(thread.Join());
}

TEST(Thread, JoinOnItselfReturnsTrueAtOnce) {
  std::atomic<bool> selfJoin{false};
  FunctionThread thread([&](FunctionThread& self) { selfJoin = self.JoinSelf(); });
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  ASSERT_TRUE(thread.Join());
  EXPECT_TRUE(selfJoin);
}

TEST(Thread, CanBeStartedAgainAfterJoin) {
  std::atomic<int> runs{0};
  FunctionThread thread([&](FunctionThread&) { ++runs; });
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  ASSERT_TRUE(thread.Join());
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  ASSERT_TRUE(thread.Join());
  EXPECT_EQ(runs, 2);
}

TEST(Thread, DetachedThreadCannotBeJoined) {
  std::atomic<bool> ran{false};
  FunctionThread thread([&](FunctionThread&) { ran = true; });
  thread.SetDetached();
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  while (!ran) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_FALSE(thread.Join());
}

TEST(Thread, GetCurrentTidIsTheKernelThreadId) {
  EXPECT_EQ(Thread::GetCurrentTID(), static_cast<uint32_t>(syscall(SYS_gettid)));
  EXPECT_EQ(Thread::GetCurrentTID(), static_cast<uint32_t>(getpid()));
}

TEST(Thread, SetNameNamesTheCallingThreadCutToFifteenCharacters) {
  std::string shortName, longName;
  FunctionThread thread([&](FunctionThread&) {
    Thread::SetName("Idle Worker");
    shortName = ThreadName(Thread::GetCurrentTID());
    Thread::SetName("Executing Worker");
    longName = ThreadName(Thread::GetCurrentTID());
  });
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  ASSERT_TRUE(thread.Join());
  EXPECT_EQ(shortName, "Idle Worker");
  EXPECT_EQ(longName, std::string("Executing Worker").substr(0, 15));
}

// Nice -2 needs the privilege to raise priority; without it setpriority fails and
// SetPriority says so, leaving the nice value alone.
TEST(Thread, AboveNormalPriorityIsNiceMinusTwoOrReportedAsFailed) {
  std::atomic<int> niceValue{99};
  FunctionThread thread([&](FunctionThread& self) {
    errno = 0;
    niceValue = getpriority(PRIO_PROCESS, self.StoredTid());
  });
  ASSERT_TRUE(thread.Start(ThreadPriorityAboveNormal));
  ASSERT_TRUE(thread.Join());
  EXPECT_EQ(thread.StoredPriority(), ThreadPriorityAboveNormal);

  std::atomic<bool> raised{false};
  std::atomic<int> afterRaise{99};
  FunctionThread probe([&](FunctionThread& self) {
    raised = self.SetPriority(ThreadPriorityAboveNormal);
    afterRaise = getpriority(PRIO_PROCESS, self.StoredTid());
  });
  ASSERT_TRUE(probe.Start(ThreadPriorityNormal));
  ASSERT_TRUE(probe.Join());
  int base = getpriority(PRIO_PROCESS, 0);
  if (raised) {
    EXPECT_EQ(afterRaise, -2);
    EXPECT_EQ(niceValue, -2);
  } else {
    EXPECT_EQ(afterRaise, base);
    EXPECT_EQ(niceValue, base);
  }
}

TEST(Thread, NormalPrioritySetsNiceZero) {
  std::atomic<bool> result{false};
  std::atomic<int> niceValue{99};
  FunctionThread thread([&](FunctionThread& self) {
    result = self.SetPriority(ThreadPriorityNormal);
    niceValue = getpriority(PRIO_PROCESS, self.StoredTid());
  });
  ASSERT_TRUE(thread.Start(ThreadPriorityNormal));
  ASSERT_TRUE(thread.Join());
  // Lowering the nice value to 0 from a positive one would need privileges; the
  // tests run at nice 0.
  if (getpriority(PRIO_PROCESS, 0) == 0) {
    EXPECT_TRUE(result);
    EXPECT_EQ(niceValue, 0);
  }
}

TEST(ConditionVariable, MutexIsRecursive) {
  ConditionVariable condition;
  EXPECT_TRUE(FinishesWithin(std::chrono::seconds(10), [&] {
    condition.Lock();
    condition.Lock();
    condition.Unlock();
    condition.Unlock();
  }));
  // Released in full: another thread can take it.
  EXPECT_TRUE(FinishesWithin(std::chrono::seconds(10), [&] { ConditionVariable::ScopedLock lock(condition); }));
}

TEST(ConditionVariable, WakeupWakesAWaiter) {
  ConditionVariable condition;
  bool ready = false;
  std::thread waiter([&] {
    ConditionVariable::ScopedLock lock(condition);
    while (!ready) condition.Wait();
  });
  {
    ConditionVariable::ScopedLock lock(condition);
    ready = true;
    condition.Wakeup();
  }
  waiter.join();
  SUCCEED();
}

TEST(ConditionVariable, WakeupAllWakesEveryWaiter) {
  ConditionVariable condition;
  int waiting = 0;
  bool go = false;
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      ConditionVariable::ScopedLock lock(condition);
      ++waiting;
      while (!go) condition.Wait();
      ++woken;
    });
  }
  for (;;) {
    ConditionVariable::ScopedLock lock(condition);
    if (waiting == 3) {
      go = true;
      condition.WakeupAll();
      break;
    }
  }
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(woken, 3);
}

TEST(ConditionVariable, WaitUntilReturnsAtTheAbsoluteRealTime) {
  ConditionVariable condition;
  ConditionVariable::ScopedLock lock(condition);
  uint64_t start = RealNowMicroseconds();
  condition.WaitUntil(start + 30000);
  uint64_t waited = RealNowMicroseconds() - start;
  EXPECT_GE(waited, 29000u);
  EXPECT_LT(waited, 5000000u);
}

TEST(ConditionVariable, WaitUntilInThePastReturnsAtOnce) {
  ConditionVariable condition;
  ConditionVariable::ScopedLock lock(condition);
  uint64_t start = RealNowMicroseconds();
  condition.WaitUntil(start - 1000000);
  EXPECT_LT(RealNowMicroseconds() - start, 1000000u);
}

TEST(ConditionVariable, WaitUntilReturnsEarlyWhenWoken) {
  ConditionVariable condition;
  bool ready = false;
  std::thread waker([&] {
    ConditionVariable::ScopedLock lock(condition);
    ready = true;
    condition.Wakeup();
  });
  uint64_t start = RealNowMicroseconds();
  {
    ConditionVariable::ScopedLock lock(condition);
    while (!ready) condition.WaitUntil(start + 60000000);
  }
  waker.join();
  EXPECT_LT(RealNowMicroseconds() - start, 30000000u);
}

typedef _Semaphore<_apm_traits_none> Semaphore;

TEST(Semaphore, StartsWithTheInitialCount) {
  Semaphore empty;
  EXPECT_FALSE(empty.TryWait());
  Semaphore two(2);
  EXPECT_TRUE(two.TryWait());
  EXPECT_TRUE(two.TryWait());
  EXPECT_FALSE(two.TryWait());
}

TEST(Semaphore, PostReleasesAWaiter) {
  Semaphore semaphore;
  std::atomic<bool> taken{false};
  std::thread waiter([&] { taken = semaphore.Wait(); });
  EXPECT_TRUE(semaphore.Post());
  waiter.join();
  EXPECT_TRUE(taken);
  EXPECT_FALSE(semaphore.TryWait());
}

Semaphore* signalSemaphore = nullptr;
void PostFromSignal(int) { signalSemaphore->Post(); }
void IgnoreSignal(int) {}

TEST(Semaphore, PostFromASignalHandler) {
  Semaphore semaphore;
  signalSemaphore = &semaphore;
  struct sigaction action {};
  action.sa_handler = PostFromSignal;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
  ASSERT_EQ(raise(SIGUSR2), 0);
  EXPECT_TRUE(semaphore.Wait());
}

TEST(Semaphore, WaitInterruptedBySignalReturnsFalseWithEintr) {
  struct sigaction action {};
  action.sa_handler = IgnoreSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // Without SA_RESTART the wait ends with EINTR.
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

  Semaphore semaphore;
  std::atomic<bool> done{false};
  std::atomic<bool> result{true};
  std::atomic<int> error{0};
  pthread_t waiterHandle;
  std::atomic<bool> started{false};
  std::thread waiter([&] {
    waiterHandle = pthread_self();
    started = true;
    result = semaphore.Wait();
    error = errno;
    done = true;
  });
  while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  for (int attempt = 0; attempt < 10000 && !done; ++attempt) {
    pthread_kill(waiterHandle, SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!done) semaphore.Post();
  waiter.join();
  EXPECT_FALSE(result);
  EXPECT_EQ(error, EINTR);
  EXPECT_FALSE(semaphore.TryWait());
}

TEST(CriticalSection, IsRecursive) {
  CriticalSection section;
  EXPECT_TRUE(FinishesWithin(std::chrono::seconds(10), [&] {
    CriticalSection::ScopedLock outer(section);
    CriticalSection::ScopedLock inner(section);
  }));
  EXPECT_TRUE(FinishesWithin(std::chrono::seconds(10), [&] { CriticalSection::ScopedLock lock(section); }));
}

TEST(CriticalSection, ExcludesOtherThreads) {
  CriticalSection section;
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        section.Enter();
        long value = counter;
        counter = value + 1;
        section.Leave();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 40000);
}

}  // namespace
}  // namespace base
}  // namespace apm
