#include "base/rpc/rpcconnectionstrand.h"

namespace apm {
namespace base {

namespace {

// The strand whose handler the thread runs, and whether run_or_post ran it there.
thread_local const void* current_strand = nullptr;
thread_local bool current_for_caller = false;

// Marks the calling thread as inside a strand for its lifetime, and restores what
// was there before (a handler of one strand may run another's at once).
class InsideStrand {
 public:
  InsideStrand(const void* strand, bool for_caller)
      : previous_strand(current_strand), previous_for_caller(current_for_caller) {
    current_strand = strand;
    current_for_caller = for_caller;
  }
  ~InsideStrand() {
    current_strand = previous_strand;
    current_for_caller = previous_for_caller;
  }
  InsideStrand(const InsideStrand&) = delete;
  InsideStrand& operator=(const InsideStrand&) = delete;

 private:
  const void* previous_strand;
  bool previous_for_caller;
};

}  // namespace

CConnectionStrand::CConnectionStrand(boost::asio::io_context& context) : state(std::make_shared<State>(context)) {}

bool CConnectionStrand::running_in_this_thread() const noexcept { return current_strand == state.get(); }

bool CConnectionStrand::running_for_caller() noexcept { return current_for_caller; }

bool CConnectionStrand::State::try_acquire() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (claimed) return false;
    claimed = true;
  }
  io_context->get_executor().on_work_started();
  return true;
}

void CConnectionStrand::State::enqueue(const std::shared_ptr<State>& self, std::unique_ptr<Operation> operation) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    queue.push_back(std::move(operation));
    if (claimed) return;
    claimed = true;
  }
  io_context->get_executor().on_work_started();
  boost::asio::post(*io_context, [self]() { run_batch(self); });
}

// Lets go of the strand (or hands what is queued to the I/O threads) when a handler
// throws, so that the exception leaves the strand usable, as an asio strand does.
class CConnectionStrand::State::ReleaseOnThrow {
 public:
  explicit ReleaseOnThrow(const std::shared_ptr<State>& self) : self(self) {}
  ~ReleaseOnThrow() {
    if (armed) release_or_continue(self);
  }
  void dismiss() { armed = false; }
  ReleaseOnThrow(const ReleaseOnThrow&) = delete;
  ReleaseOnThrow& operator=(const ReleaseOnThrow&) = delete;

 private:
  const std::shared_ptr<State>& self;
  bool armed = true;
};

void CConnectionStrand::State::run_acquired(const std::shared_ptr<State>& self, std::unique_ptr<Operation> operation,
                                            bool for_caller) {
  {
    ReleaseOnThrow guard(self);
    InsideStrand inside(self.get(), for_caller);
    operation->invoke();
    operation.reset();
    guard.dismiss();
  }
  if (for_caller) {
    // What came meanwhile belongs to the I/O threads.
    release_or_continue(self);
  } else {
    run_batch(self);
  }
}

void CConnectionStrand::State::run_batch(const std::shared_ptr<State>& self) {
  {
    ReleaseOnThrow guard(self);
    InsideStrand inside(self.get(), false);
    std::size_t count;
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      count = self->queue.size();
    }
    // What is queued now; later arrivals wait for the next batch, so that one busy
    // connection does not hold an I/O thread for good.
    for (; count > 0; --count) {
      std::unique_ptr<Operation> operation;
      {
        std::lock_guard<std::mutex> lock(self->mutex);
        operation = std::move(self->queue.front());
        self->queue.pop_front();
      }
      operation->invoke();
    }
    guard.dismiss();
  }
  release_or_continue(self);
}

void CConnectionStrand::State::release_or_continue(const std::shared_ptr<State>& self) {
  bool more;
  {
    std::lock_guard<std::mutex> lock(self->mutex);
    more = !self->queue.empty();
    if (!more) self->claimed = false;
  }
  if (more) {
    boost::asio::post(*self->io_context, [self]() { run_batch(self); });
  } else {
    self->io_context->get_executor().on_work_finished();
  }
}

}  // namespace base
}  // namespace apm
