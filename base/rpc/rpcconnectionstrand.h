// CConnectionStrand: the serialising executor of one RPC connection, in place of an
// asio strand. Handlers given to it never run concurrently and run in the order in
// which they were given; handlers bound to it with bind_executor (completions of the
// connection's socket and timer) obey the same order.
//
// What it adds to a strand is run_or_post: a thread that is not one of the I/O
// threads (a worker sending a frame) runs its handler itself, at once, when nothing
// runs or waits on the strand. The frame is then queued and its write started on
// the worker's thread, and a socket ready to take the bytes sends them there and
// then, with no I/O thread woken for it. Whatever is posted while that handler runs
// is left to the I/O threads: the caller's thread runs only its own handler, so a
// caller that holds a lock never meets a handler of someone else under it, and a
// handler that posts is never run nested in itself.
//
// Only handlers that never block and take no lock the caller may hold may be given
// to run_or_post.
//
// Ownership: copies share one state, kept alive by every copy and by every pending
// batch; the state keeps the io_context busy (counted work) while it has anything
// to run. Thread-safe: every member may be called from any thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace apm {
namespace base {

class CConnectionStrand {
 public:
  explicit CConnectionStrand(boost::asio::io_context& context);

  // Executor requirements.
  boost::asio::io_context& context() const noexcept { return *state->io_context; }
  void on_work_started() const noexcept { state->io_context->get_executor().on_work_started(); }
  void on_work_finished() const noexcept { state->io_context->get_executor().on_work_finished(); }

  // Runs `function` at once if the calling thread is inside this strand, or if the
  // strand is idle and the calling thread is one of the I/O threads; else as post.
  template <class Function, class Allocator>
  void dispatch(Function&& function, const Allocator&) const {
    if (running_in_this_thread()) {
      typename std::decay<Function>::type local(std::forward<Function>(function));
      local();
      return;
    }
    std::unique_ptr<Operation> operation = make_operation(std::forward<Function>(function));
    if (state->io_context->get_executor().running_in_this_thread() && state->try_acquire()) {
      State::run_acquired(state, std::move(operation));
      return;
    }
    state->enqueue(state, std::move(operation));
  }

  template <class Function, class Allocator>
  void post(Function&& function, const Allocator&) const {
    state->enqueue(state, make_operation(std::forward<Function>(function)));
  }

  template <class Function, class Allocator>
  void defer(Function&& function, const Allocator&) const {
    state->enqueue(state, make_operation(std::forward<Function>(function)));
  }

  // Runs `function` on the calling thread if the strand is idle and the thread is
  // not one of the I/O threads, else posts it.
  template <class Function>
  void run_or_post(Function&& function) const {
    std::unique_ptr<Operation> operation = make_operation(std::forward<Function>(function));
    if (state->io_context->get_executor().running_in_this_thread() || !state->try_acquire()) {
      state->enqueue(state, std::move(operation));
      return;
    }
    State::run_acquired(state, std::move(operation), true);
  }

  // True while the calling thread runs a handler of this strand.
  bool running_in_this_thread() const noexcept;
  // True while the calling thread runs a handler that run_or_post ran at once.
  static bool running_for_caller() noexcept;

  friend bool operator==(const CConnectionStrand& a, const CConnectionStrand& b) noexcept {
    return a.state == b.state;
  }
  friend bool operator!=(const CConnectionStrand& a, const CConnectionStrand& b) noexcept {
    return a.state != b.state;
  }

 private:
  struct Operation {
    virtual ~Operation() = default;
    virtual void invoke() = 0;
  };

  template <class Function>
  struct OperationOf : Operation {
    explicit OperationOf(Function&& function) : function(std::move(function)) {}
    explicit OperationOf(const Function& function) : function(function) {}
    void invoke() override { function(); }
    Function function;
  };

  template <class Function>
  static std::unique_ptr<Operation> make_operation(Function&& function) {
    typedef typename std::decay<Function>::type Stored;
    return std::unique_ptr<Operation>(new OperationOf<Stored>(std::forward<Function>(function)));
  }

  struct State {
    explicit State(boost::asio::io_context& context) : io_context(&context) {}

    // Claims the strand if nothing runs or waits on it; counts it as work.
    bool try_acquire();
    // Queues an operation; if the strand was idle, claims it and posts a batch.
    void enqueue(const std::shared_ptr<State>& self, std::unique_ptr<Operation> operation);
    // Runs `operation` on the calling thread with the strand claimed, then lets go
    // of the strand or leaves what was queued meanwhile to the I/O threads.
    static void run_acquired(const std::shared_ptr<State>& self, std::unique_ptr<Operation> operation,
                             bool for_caller = false);
    // On an I/O thread: runs what is queued, then lets go or posts the next batch.
    static void run_batch(const std::shared_ptr<State>& self);
    // With the strand claimed and the caller done: releases it if nothing is
    // queued, else posts a batch.
    static void release_or_continue(const std::shared_ptr<State>& self);
    // Calls release_or_continue when a handler throws.
    class ReleaseOnThrow;

    boost::asio::io_context* io_context;
    std::mutex mutex;
    std::deque<std::unique_ptr<Operation>> queue;  // guarded by mutex
    bool claimed = false;                          // guarded by mutex
  };

  std::shared_ptr<State> state;
};

}  // namespace base
}  // namespace apm
