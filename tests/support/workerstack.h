// RunOnWorkerSizedStack: runs a piece of a test on a new POSIX thread whose stack
// is as large as a scheduler worker's (8 MiB, the process default), and waits for
// it. Deep recursion (the JSON parser's nesting limit) is proven against that size.
//
// Sanitizer builds instrument every frame and make it several times larger, so
// there the stack is scaled by the same factor: the limit is about the production
// build's frames, not the instrumented ones. Thread-safe: each call has its own thread.
#pragma once

#include <cstddef>
#include <functional>

namespace apm {
namespace test {

// Stack size used by RunOnWorkerSizedStack in this build.
std::size_t WorkerSizedStack();

// Runs `body` on a thread with WorkerSizedStack() bytes of stack; returns when it ends.
void RunOnWorkerSizedStack(const std::function<void()>& body);

}  // namespace test
}  // namespace apm
