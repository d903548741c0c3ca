#include "tests/support/workerstack.h"

#include <gtest/gtest.h>
#include <pthread.h>

namespace apm {
namespace test {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const std::size_t kFrameGrowth = 4;
#else
const std::size_t kFrameGrowth = 1;
#endif

}  // namespace

std::size_t WorkerSizedStack() { return (std::size_t(8) << 20) * kFrameGrowth; }

void RunOnWorkerSizedStack(const std::function<void()>& body) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, WorkerSizedStack()), 0);
  pthread_t thread;
  auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

}  // namespace test
}  // namespace apm
