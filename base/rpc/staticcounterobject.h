// CStaticCounterObject: a process-wide tally of allocations and frees of one kind
// of object, kept for diagnostics.
//
// One static instance exists per counted type, made with the type's name and size.
// Its two 32-bit counters only grow (they wrap at 2^32); CountAllocation and
// CountFree are the only writers. Thread-safe: the counters are atomic and the name
// and size never change after construction.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace apm {
namespace base {

class CStaticCounterObject {
 public:
  CStaticCounterObject(const char* name, size_t size) : name_(name), size_(size) {}
  CStaticCounterObject(const CStaticCounterObject&) = delete;
  CStaticCounterObject& operator=(const CStaticCounterObject&) = delete;

  void CountAllocation() { allocations_.fetch_add(1, std::memory_order_relaxed); }
  void CountFree() { frees_.fetch_add(1, std::memory_order_relaxed); }

  const char* name() const { return name_; }
  size_t size() const { return size_; }
  uint32_t allocations() const { return allocations_.load(std::memory_order_relaxed); }
  uint32_t frees() const { return frees_.load(std::memory_order_relaxed); }

 private:
  const char* const name_;
  const size_t size_;
  std::atomic<uint32_t> allocations_{0};
  std::atomic<uint32_t> frees_{0};
};

}  // namespace base
}  // namespace apm
