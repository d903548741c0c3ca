// _File: one POSIX file descriptor and the path it was opened with.
//
// The object owns the descriptor (-1 when closed) and closes it on destruction.
// Every operation reports failure by its result and the reason through the
// thread's error record; `traits` selects the module that gets the errors and the
// instrumentation events (_apm_traits_os: "Operating System"; _apm_traits_none: none).
// Events are sent only when the module exists.
//
// Not thread-safe: one thread uses a _File at a time.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/directory.h"
#include "base/famerror.h"

namespace apm {
namespace base {

template <class traits>
class _File {
 public:
  _File() = default;
  ~_File();
  _File(const _File&) = delete;
  _File& operator=(const _File&) = delete;

  int GetDescriptor() const { return descriptor_; }
  const std::string& GetPath() const { return path_; }
  bool IsOpen() const { return descriptor_ != -1; }

  // Closes a descriptor still open, then opens `path` with the open(2) `flags` and
  // `mode`.
  bool Open(const std::string& path, int flags, int mode = 0);
  // Closes the descriptor if one is open. False if close fails; the descriptor is
  // then kept.
  bool Close();
  // Reads up to `size` bytes; `read` gets the count, 0 at the end of the file.
  bool Read(void* buffer, size_t size, size_t& read);
  // Writes all `size` bytes.
  bool Write(const void* data, size_t size);
  // Writes all bytes of the `count` pieces, in order, with as few system calls as
  // the kernel allows (one, usually); one write event carries the total size.
  bool Write(const iovec* pieces, int count);
  // Removes the file at `path`.
  static bool Remove(const std::string& path);

  // Makes and opens (read-write, truncated, close-on-exec) a file named
  // `directory` + `prefix` + "_" + number + ".tmp", where the number comes from the
  // present time in microseconds stirred with the thread id, so that threads making
  // files in the same microsecond get different names. `mode` 0 means 0666. Ten
  // names are tried; `path` gets the name opened, or is cleared if all failed.
  bool CreateTemporaryFile(const _Directory<traits>& directory, const std::string& prefix,
                           std::string& path, int mode);
  // The same with the clock value given: `seed` stands for the present time in
  // microseconds. The file is opened without O_EXCL, so a name met again is reused
  // and truncated.
  bool CreateTemporaryFile(const _Directory<traits>& directory, const std::string& prefix,
                           std::string& path, int mode, uint64_t seed);

  // One step of the name sequence: ((seed << 7) ^ (seed >> 3) ^ seed) + tid.
  static uint64_t NextTemporarySeed(uint64_t seed, uint64_t tid) {
    return ((seed << 7) ^ (seed >> 3) ^ seed) + tid;
  }

 private:
  int descriptor_ = -1;
  std::string path_;
};

typedef _File<_apm_traits_os> File;

}  // namespace base
}  // namespace apm
