// The trace line: one line to stderr with the local time, the thread id, the
// process's resident size and a per-thread counter in front of a text.
//
// Thread-safe in the sense that it may be called from any thread; the line is
// written piecewise, so lines of two threads may interleave.
#pragma once

namespace apm {
namespace base {

void WriteTrace(const char* text);

}  // namespace base
}  // namespace apm
