#include "base/rpc/rpcconnectionstrand.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/latch.h"

namespace apm {
namespace base {
namespace {

using test::Latch;

// A busy wait of a microsecond or so that keeps the thread on its core.
void BusyPause() {
  for (volatile int i = 0; i < 1000; ++i) {
  }
}

// Tracks how many handlers are inside a section at once and the most ever seen.
class OverlapMeter {
 public:
  void enter() {
    const int now = ++inside;
    int seen = most.load();
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
    // Stay inside a moment, so that a second thread let in wrongly meets this one.
    BusyPause();
  }
  void leave() { --inside; }
  int most_at_once() const { return most.load(); }

 private:
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
};

// An io_context run by `count` I/O threads, kept running by a work guard until
// the fixture ends; knows the ids of its threads.
class IoThreads {
 public:
  explicit IoThreads(int count) : guard(boost::asio::make_work_guard(context)) {
    Latch started(count);
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this, &started] {
        {
          std::lock_guard<std::mutex> lock(mutex);
          ids.insert(std::this_thread::get_id());
        }
        started.Open();
        context.run();
      });
    }
    EXPECT_TRUE(started.Wait());
  }
  ~IoThreads() {
    guard.reset();
    context.stop();
    for (std::thread& thread : threads) thread.join();
  }
  bool is_io_thread(std::thread::id id) {
    std::lock_guard<std::mutex> lock(mutex);
    return ids.count(id) != 0;
  }

  boost::asio::io_context context;

 private:
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
  std::vector<std::thread> threads;
  std::mutex mutex;
  std::set<std::thread::id> ids;
};

// Runs `context` on a thread of its own and tells when run() has returned.
class RunThread {
 public:
  explicit RunThread(boost::asio::io_context& context) : context(context) {
    thread = std::thread([this] {
      this->context.run();
      returned.Open();
    });
  }
  ~RunThread() {
    // A run() that does not return fails the test, and is stopped so that the
    // test ends.
    if (!returned.IsOpen()) context.stop();
    thread.join();
  }
  std::thread::id id() const { return thread.get_id(); }

  Latch returned;

 private:
  boost::asio::io_context& context;
  std::thread thread;
};

// One handler's record: who gave it, its place in that giver's sequence.
struct Entry {
  int giver;
  int sequence;
};

// Checks that each giver's entries appear in the order of their sequence numbers
// and that all `per_giver` of them are there.
void ExpectOrderPerGiver(const std::vector<Entry>& entries, int givers, int per_giver) {
  std::vector<int> next(givers, 0);
  for (const Entry& entry : entries) {
    ASSERT_EQ(next[entry.giver], entry.sequence) << "giver " << entry.giver;
    ++next[entry.giver];
  }
  for (int giver = 0; giver < givers; ++giver) EXPECT_EQ(per_giver, next[giver]) << "giver " << giver;
}

// Starts `givers` threads together; each calls `give(giver, sequence)` `per_giver`
// times, with a short pause before each call so that the threads interleave.
// Returns once every thread has given everything.
void GiveFromSeveralThreads(int givers, int per_giver, const std::function<void(int, int)>& give) {
  std::atomic<bool> go{false};
  std::vector<std::thread> giving;
  for (int giver = 0; giver < givers; ++giver) {
    giving.emplace_back([&, giver] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < per_giver; ++i) {
        BusyPause();
        give(giver, i);
      }
    });
  }
  go = true;
  for (std::thread& thread : giving) thread.join();
}

TEST(CConnectionStrandTest, HandlersPostedFromOneThreadRunInTheOrderGiven) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  const int count = 500;
  std::vector<int> order;  // touched only on the strand
  Latch done(count);
  for (int i = 0; i < count; ++i) {
    boost::asio::post(strand, [&order, &done, i] {
      order.push_back(i);
      done.Open();
    });
  }
  ASSERT_TRUE(done.Wait());
  ASSERT_EQ(static_cast<std::size_t>(count), order.size());
  for (int i = 0; i < count; ++i) ASSERT_EQ(i, order[i]);
}

TEST(CConnectionStrandTest, HandlersPostedFromSeveralThreadsNeverRunTwoAtOnceAndKeepEachThreadsOrder) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  const int givers = 4;
  const int per_giver = 300;
  OverlapMeter meter;
  std::vector<Entry> entries;  // touched only on the strand
  Latch done(givers * per_giver);
  GiveFromSeveralThreads(givers, per_giver, [&](int giver, int i) {
    boost::asio::post(strand, [&, giver, i] {
      meter.enter();
      entries.push_back(Entry{giver, i});
      meter.leave();
      done.Open();
    });
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(1, meter.most_at_once());
  ExpectOrderPerGiver(entries, givers, per_giver);
}

TEST(CConnectionStrandTest, RunOrPostFromSeveralThreadsNeverOverlapsPostedHandlersAndKeepsEachThreadsOrder) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  const int givers = 4;  // even givers use run_or_post, odd ones post
  const int per_giver = 300;
  OverlapMeter meter;
  std::mutex entries_mutex;
  std::vector<Entry> entries;
  Latch done(givers * per_giver);
  GiveFromSeveralThreads(givers, per_giver, [&](int giver, int i) {
    auto handler = [&, giver, i] {
      meter.enter();
      {
        std::lock_guard<std::mutex> lock(entries_mutex);
        entries.push_back(Entry{giver, i});
      }
      meter.leave();
      done.Open();
    };
    if (giver % 2 == 0) {
      strand.run_or_post(handler);
    } else {
      boost::asio::post(strand, handler);
    }
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(1, meter.most_at_once());
  std::lock_guard<std::mutex> lock(entries_mutex);
  ExpectOrderPerGiver(entries, givers, per_giver);
}

TEST(CConnectionStrandTest, RunOrPostOnAnIdleStrandRunsOnTheCallerBeforeItReturns) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  bool ran = false;
  std::thread::id ran_on;
  bool for_caller = false;
  bool inside = false;
  EXPECT_FALSE(CConnectionStrand::running_for_caller());
  strand.run_or_post([&] {
    ran = true;
    ran_on = std::this_thread::get_id();
    for_caller = CConnectionStrand::running_for_caller();
    inside = strand.running_in_this_thread();
  });
  ASSERT_TRUE(ran);
  EXPECT_EQ(std::this_thread::get_id(), ran_on);
  EXPECT_TRUE(for_caller);
  EXPECT_TRUE(inside);
  EXPECT_FALSE(CConnectionStrand::running_for_caller());
  EXPECT_FALSE(strand.running_in_this_thread());
}

TEST(CConnectionStrandTest, RunningForCallerIsFalseInHandlersRunByTheIoThreads) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  Latch done;
  std::thread::id ran_on;
  bool for_caller = true;
  bool inside = false;
  boost::asio::post(strand, [&] {
    ran_on = std::this_thread::get_id();
    for_caller = CConnectionStrand::running_for_caller();
    inside = strand.running_in_this_thread();
    done.Open();
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_TRUE(io.is_io_thread(ran_on));
  EXPECT_FALSE(for_caller);
  EXPECT_TRUE(inside);
}

TEST(CConnectionStrandTest, RunOrPostWhileAHandlerRunsElsewhereRunsLaterOnAnIoThreadInOrder) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  Latch blocking_started;
  Latch release;
  std::mutex order_mutex;
  std::vector<int> order;
  auto record = [&](int what) {
    std::lock_guard<std::mutex> lock(order_mutex);
    order.push_back(what);
  };
  boost::asio::post(strand, [&] {
    blocking_started.Open();
    EXPECT_TRUE(release.Wait());
    record(0);
  });
  ASSERT_TRUE(blocking_started.Wait());

  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> ran{0};
  std::thread::id ran_on[2];
  bool for_caller[2] = {true, true};
  Latch done(2);
  for (int i = 1; i <= 2; ++i) {
    strand.run_or_post([&, i] {
      ran_on[i - 1] = std::this_thread::get_id();
      for_caller[i - 1] = CConnectionStrand::running_for_caller();
      record(i);
      ++ran;
      done.Open();
    });
  }
  // Neither may have run: the strand is busy on an I/O thread.
  EXPECT_EQ(0, ran.load());
  release.Open();
  ASSERT_TRUE(done.Wait());
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(caller, ran_on[i]);
    EXPECT_TRUE(io.is_io_thread(ran_on[i]));
    EXPECT_FALSE(for_caller[i]);
  }
  std::lock_guard<std::mutex> lock(order_mutex);
  EXPECT_EQ((std::vector<int>{0, 1, 2}), order);
}

TEST(CConnectionStrandTest, WhatARunOrPostHandlerPostsIsNotRunNestedButAfterwardsOnAnIoThread) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  std::atomic<bool> outer_done{false};
  std::atomic<int> inner_ran{0};
  bool inner_ran_inside_outer = false;
  Latch inner_done(2);
  std::thread::id inner_on[2];
  bool inner_saw_outer_done[2] = {false, false};
  bool inner_for_caller[2] = {true, true};
  auto inner = [&](int which) {
    return [&, which] {
      inner_on[which] = std::this_thread::get_id();
      inner_saw_outer_done[which] = outer_done.load();
      inner_for_caller[which] = CConnectionStrand::running_for_caller();
      ++inner_ran;
      inner_done.Open();
    };
  };
  strand.run_or_post([&] {
    boost::asio::post(strand, inner(0));
    strand.run_or_post(inner(1));
    inner_ran_inside_outer = inner_ran.load() != 0;
    outer_done = true;
  });
  ASSERT_TRUE(outer_done.load());
  EXPECT_FALSE(inner_ran_inside_outer);
  ASSERT_TRUE(inner_done.Wait());
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(inner_saw_outer_done[i]) << i;
    EXPECT_TRUE(io.is_io_thread(inner_on[i])) << i;
    EXPECT_FALSE(inner_for_caller[i]) << i;
  }
}

TEST(CConnectionStrandTest, WhatARunOrPostHandlerPostsWaitsForTheIoThreads) {
  // No I/O thread runs yet: what the caller's handler posts must stay queued
  // rather than run on the caller once its handler is done.
  boost::asio::io_context context;
  CConnectionStrand strand(context);
  bool posted_ran = false;
  std::thread::id posted_on;
  strand.run_or_post([&] {
    boost::asio::post(strand, [&] {
      posted_ran = true;
      posted_on = std::this_thread::get_id();
    });
  });
  EXPECT_FALSE(posted_ran);
  std::thread::id io_id;
  {
    RunThread runner(context);
    io_id = runner.id();
    EXPECT_TRUE(runner.returned.Wait());
  }
  EXPECT_TRUE(posted_ran);
  EXPECT_EQ(io_id, posted_on);
}

TEST(CConnectionStrandTest, DispatchInsideAHandlerRunsAtOnceNested) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  Latch done;
  std::vector<int> order;  // touched only on the strand
  bool inside_nested = false;
  bool ran_before_dispatch_returned = false;
  boost::asio::post(strand, [&] {
    order.push_back(1);
    boost::asio::post(strand, [&] {
      order.push_back(4);
      done.Open();
    });
    bool nested_ran = false;
    boost::asio::dispatch(strand, [&] {
      nested_ran = true;
      inside_nested = strand.running_in_this_thread();
      order.push_back(2);
    });
    ran_before_dispatch_returned = nested_ran;
    order.push_back(3);
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_TRUE(ran_before_dispatch_returned);
  EXPECT_TRUE(inside_nested);
  EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), order);
}

TEST(CConnectionStrandTest, RunningInThisThreadIsTrueOnlyInsideTheStrandsOwnHandlers) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  CConnectionStrand other(io.context);
  EXPECT_FALSE(strand.running_in_this_thread());

  bool in_own_handler = false;
  bool in_others_handler = true;
  bool other_in_own = false;
  Latch done(2);
  boost::asio::post(strand, [&] {
    in_own_handler = strand.running_in_this_thread();
    done.Open();
  });
  boost::asio::post(other, [&] {
    in_others_handler = strand.running_in_this_thread();
    other_in_own = other.running_in_this_thread();
    done.Open();
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_TRUE(in_own_handler);
  EXPECT_FALSE(in_others_handler);
  EXPECT_TRUE(other_in_own);

  // An I/O thread that has run a handler of the strand is outside it afterwards.
  Latch plain_done;
  bool in_plain_handler = true;
  boost::asio::post(strand, [&] {
    boost::asio::post(io.context, [&] {
      in_plain_handler = strand.running_in_this_thread();
      plain_done.Open();
    });
  });
  ASSERT_TRUE(plain_done.Wait());
  EXPECT_FALSE(in_plain_handler);
  EXPECT_FALSE(strand.running_in_this_thread());
}

TEST(CConnectionStrandTest, DispatchFromAnIdleIoThreadRunsAtOnceAndFromOutsideIsPosted) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);

  Latch io_done;
  bool ran_before_return = false;
  bool inside = false;
  boost::asio::post(io.context, [&] {
    bool ran = false;
    boost::asio::dispatch(strand, [&] {
      ran = true;
      inside = strand.running_in_this_thread();
    });
    ran_before_return = ran;
    io_done.Open();
  });
  ASSERT_TRUE(io_done.Wait());
  EXPECT_TRUE(ran_before_return);
  EXPECT_TRUE(inside);

  Latch outside_done;
  std::thread::id ran_on;
  boost::asio::dispatch(strand, [&] {
    ran_on = std::this_thread::get_id();
    outside_done.Open();
  });
  ASSERT_TRUE(outside_done.Wait());
  EXPECT_NE(std::this_thread::get_id(), ran_on);
  EXPECT_TRUE(io.is_io_thread(ran_on));
}

TEST(CConnectionStrandTest, TimerCompletionsBoundToTheStrandNeverOverlapItsPostedHandlers) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  const int timers = 50;
  const int posted = 500;
  OverlapMeter meter;
  std::atomic<int> timer_handlers_outside{0};
  Latch done(timers + posted);
  std::vector<std::unique_ptr<boost::asio::steady_timer>> waiting;
  const auto soon = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
  for (int i = 0; i < timers; ++i) {
    waiting.emplace_back(new boost::asio::steady_timer(io.context, soon));
    waiting.back()->async_wait(boost::asio::bind_executor(strand, [&](const boost::system::error_code& error) {
      meter.enter();
      EXPECT_FALSE(error);
      if (!strand.running_in_this_thread()) ++timer_handlers_outside;
      meter.leave();
      done.Open();
    }));
  }
  for (int i = 0; i < posted; ++i) {
    boost::asio::post(strand, [&] {
      meter.enter();
      meter.leave();
      done.Open();
    });
  }
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(1, meter.most_at_once());
  EXPECT_EQ(0, timer_handlers_outside.load());
}

TEST(CConnectionStrandTest, TimerCompletionBoundToTheStrandWaitsForTheRunningHandler) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);
  Latch blocking_started;
  Latch release;
  std::atomic<bool> blocking_done{false};
  bool timer_saw_blocking_done = false;
  Latch timer_done;
  boost::asio::steady_timer timer(io.context);
  boost::asio::post(strand, [&] {
    blocking_started.Open();
    EXPECT_TRUE(release.Wait());
    blocking_done = true;
  });
  ASSERT_TRUE(blocking_started.Wait());
  timer.expires_after(std::chrono::milliseconds(0));
  timer.async_wait(boost::asio::bind_executor(strand, [&](const boost::system::error_code&) {
    timer_saw_blocking_done = blocking_done.load();
    timer_done.Open();
  }));
  // The timer has expired; its completion must still wait for the strand.
  EXPECT_FALSE(timer_done.Wait(20));
  release.Open();
  ASSERT_TRUE(timer_done.Wait());
  EXPECT_TRUE(timer_saw_blocking_done);
}

TEST(CConnectionStrandTest, IoContextRunDoesNotReturnWhileTheStrandHasWorkQueued) {
  boost::asio::io_context context;  // no work guard: only the strand keeps run() going
  CConnectionStrand strand(context);
  Latch run_entered;
  boost::asio::post(context, [&] { run_entered.Open(); });
  bool posted_ran = false;
  std::unique_ptr<RunThread> runner;
  bool returned_while_queued = true;
  strand.run_or_post([&] {
    // The caller holds the strand; what it posts waits in the strand's queue, with
    // no handler of the io_context behind it yet.
    boost::asio::post(strand, [&] { posted_ran = true; });
    runner.reset(new RunThread(context));
    ASSERT_TRUE(run_entered.Wait());
    returned_while_queued = runner->returned.Wait(20);
  });
  EXPECT_FALSE(returned_while_queued);
  // Once the strand has run what was queued, run() has nothing left and returns.
  EXPECT_TRUE(runner->returned.Wait());
  runner.reset();
  EXPECT_TRUE(posted_ran);
}

TEST(CConnectionStrandTest, IoContextRunReturnsOnceTheStrandHasFinished) {
  boost::asio::io_context context;
  CConnectionStrand strand(context);
  // Claimed and let go on the caller with no I/O thread: no work may remain.
  bool ran = false;
  strand.run_or_post([&] { ran = true; });
  ASSERT_TRUE(ran);
  {
    RunThread runner(context);
    EXPECT_TRUE(runner.returned.Wait());
  }

  // Handlers given every way, also from handlers: run() returns after the last.
  context.restart();
  std::atomic<int> count{0};
  for (int i = 0; i < 100; ++i) {
    boost::asio::post(strand, [&] {
      ++count;
      strand.run_or_post([&] { ++count; });
      boost::asio::dispatch(strand, [&] { ++count; });
    });
  }
  {
    RunThread first(context);
    RunThread second(context);
    EXPECT_TRUE(first.returned.Wait());
    EXPECT_TRUE(second.returned.Wait());
  }
  EXPECT_EQ(300, count.load());
}

TEST(CConnectionStrandTest, RunOrPostFromAnIoThreadIsPostedEvenOnAnIdleStrand) {
  IoThreads io(4);
  CConnectionStrand first(io.context);
  CConnectionStrand second(io.context);

  Latch done;
  Latch caller_done;
  // Set on the calling I/O thread while its run_or_post has not returned: a handler
  // run at once would see it set on that same thread. Another I/O thread may run
  // the posted handler at any time, also before the call returns.
  std::atomic<bool> inside_call{false};
  std::atomic<bool> ran_inside_call{true};
  std::atomic<bool> ran_for_caller{true};
  boost::asio::post(first, [&] {
    const std::thread::id caller = std::this_thread::get_id();
    inside_call = true;
    second.run_or_post([&, caller] {
      ran_inside_call = inside_call.load() && std::this_thread::get_id() == caller;
      ran_for_caller = CConnectionStrand::running_for_caller();
      done.Open();
    });
    inside_call = false;
    caller_done.Open();
  });
  ASSERT_TRUE(caller_done.Wait());
  ASSERT_TRUE(done.Wait());
  EXPECT_FALSE(ran_inside_call.load());
  EXPECT_FALSE(ran_for_caller.load());
}

TEST(CConnectionStrandTest, AHandlerRunOnTheCallerMayRunAnotherStrandsHandlerNested) {
  IoThreads io(4);
  CConnectionStrand first(io.context);
  CConnectionStrand second(io.context);

  bool ran_nested = false;
  bool nested_inside_second = false;
  bool first_restored = false;
  first.run_or_post([&] {
    second.run_or_post([&] {
      ran_nested = true;
      nested_inside_second = second.running_in_this_thread() && CConnectionStrand::running_for_caller();
    });
    first_restored = first.running_in_this_thread() && !second.running_in_this_thread();
  });
  EXPECT_TRUE(ran_nested);
  EXPECT_TRUE(nested_inside_second);
  EXPECT_TRUE(first_restored);
}

TEST(CConnectionStrandTest, AHandlerThatThrowsOnTheCallerLeavesTheStrandUsable) {
  IoThreads io(4);
  CConnectionStrand strand(io.context);

  EXPECT_THROW(strand.run_or_post([] { throw std::runtime_error("handler failed"); }), std::runtime_error);
  EXPECT_FALSE(strand.running_in_this_thread());
  EXPECT_FALSE(CConnectionStrand::running_for_caller());

  // The strand is free again: the next caller runs at once, and posted work runs.
  bool ran_at_once = false;
  strand.run_or_post([&] { ran_at_once = true; });
  EXPECT_TRUE(ran_at_once);
  Latch posted_ran;
  boost::asio::post(strand, [&] { posted_ran.Open(); });
  EXPECT_TRUE(posted_ran.Wait());
}

TEST(CConnectionStrandTest, TwoStrandsCallingIntoEachOtherFromTheirHandlersRunEverythingOneAtATime) {
  IoThreads io(4);
  CConnectionStrand first(io.context);
  CConnectionStrand second(io.context);

  // Both strands calling into each other at the same time: everything runs, and
  // each strand still runs one handler at a time.
  const int rounds = 200;
  OverlapMeter first_meter;
  OverlapMeter second_meter;
  Latch done(4 * rounds);
  for (int i = 0; i < rounds; ++i) {
    boost::asio::post(first, [&] {
      first_meter.enter();
      second.run_or_post([&] {
        second_meter.enter();
        second_meter.leave();
        done.Open();
      });
      first_meter.leave();
      done.Open();
    });
    boost::asio::post(second, [&] {
      second_meter.enter();
      first.run_or_post([&] {
        first_meter.enter();
        first_meter.leave();
        done.Open();
      });
      second_meter.leave();
      done.Open();
    });
  }
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(1, first_meter.most_at_once());
  EXPECT_EQ(1, second_meter.most_at_once());
}

}  // namespace
}  // namespace base
}  // namespace apm
