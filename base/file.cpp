#include "base/file.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "base/apmmodule.h"
#include "base/thread.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace base {
namespace {

constexpr uint8_t kLevelOpen = 60;
constexpr uint8_t kLevelTransfer = 70;
constexpr unsigned int kEventOpen = 0;
constexpr unsigned int kEventRemove = 2;
constexpr unsigned int kEventRead = 3;
constexpr unsigned int kEventWrite = 4;
constexpr unsigned int kEventClose = 5;
constexpr int kTemporaryFileAttempts = 10;

// Sends an event with the descriptor and a size as two 8-byte values.
void SendTransferEvent(CAPMModule* module, unsigned int eventId, int descriptor, size_t size) {
  if (module == nullptr) return;
  static const uint8_t typeCodes[2] = {APM_ARG_UINT64, APM_ARG_UINT64};
  const uint64_t data[2] = {static_cast<uint64_t>(descriptor), static_cast<uint64_t>(size)};
  APMEventArgs(module->moduleId, eventId, kLevelTransfer, APM_EVENT_SINGLE, 2, typeCodes, data,
               sizeof(data));
}

uint64_t MicrosecondsNow() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_usec);
}

}  // namespace

template <class traits>
_File<traits>::~_File() {
  Close();
}

template <class traits>
bool _File<traits>::Open(const std::string& path, int flags, int mode) {
  Close();
  path_ = path;
  CAPMModule* module = traits::Module();
  if (module != nullptr) APMEventStr(module->moduleId, kEventOpen, kLevelOpen, APM_EVENT_BEGIN, path.c_str());
  descriptor_ = open(path.c_str(), flags, mode);
  if (module != nullptr) {
    static const uint8_t typeCodes[1] = {APM_ARG_UINT64};
    const uint64_t descriptor = static_cast<uint64_t>(static_cast<int64_t>(descriptor_));
    APMEventArgs(module->moduleId, kEventOpen, kLevelOpen, APM_EVENT_END, 1, typeCodes, &descriptor,
                 sizeof(descriptor));
  }
  if (descriptor_ == -1) {
    _FamError<traits>::SetLastError();
    return false;
  }
  return true;
}

template <class traits>
bool _File<traits>::Close() {
  if (descriptor_ == -1) return true;
  if (CAPMModule* module = traits::Module()) {
    APMEventStr(module->moduleId, kEventClose, kLevelOpen, APM_EVENT_SINGLE, path_.c_str());
  }
  if (close(descriptor_) != 0) {
    _FamError<traits>::SetLastError();
    return false;
  }
  descriptor_ = -1;
  return true;
}

template <class traits>
bool _File<traits>::Read(void* buffer, size_t size, size_t& read) {
  SendTransferEvent(traits::Module(), kEventRead, descriptor_, size);
  ssize_t count;
  do {
    count = ::read(descriptor_, buffer, size);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    read = 0;
    _FamError<traits>::SetLastError();
    return false;
  }
  read = static_cast<size_t>(count);
  return true;
}

template <class traits>
bool _File<traits>::Write(const void* data, size_t size) {
  SendTransferEvent(traits::Module(), kEventWrite, descriptor_, size);
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t count = ::write(descriptor_, next, size);
    if (count < 0) {
      if (errno == EINTR) continue;
      _FamError<traits>::SetLastError();
      return false;
    }
    next += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

template <class traits>
bool _File<traits>::Write(const iovec* pieces, int count) {
  size_t size = 0;
  for (int index = 0; index < count; ++index) size += pieces[index].iov_len;
  SendTransferEvent(traits::Module(), kEventWrite, descriptor_, size);
  // After a short write the rest goes on from a copy of the list, advanced past
  // what has been written.
  std::vector<iovec> rest;
  while (count > 0) {
    const ssize_t result = ::writev(descriptor_, pieces, std::min(count, IOV_MAX));
    if (result < 0) {
      if (errno == EINTR) continue;
      _FamError<traits>::SetLastError();
      return false;
    }
    size_t written = static_cast<size_t>(result);
    while (count > 0 && written >= pieces->iov_len) {
      written -= pieces->iov_len;
      ++pieces;
      --count;
    }
    if (count == 0) break;
    if (rest.empty()) {
      rest.assign(pieces, pieces + count);
      pieces = rest.data();
    }
    iovec& first = rest[static_cast<size_t>(pieces - rest.data())];
    first.iov_base = static_cast<char*>(first.iov_base) + written;
    first.iov_len -= written;
  }
  return true;
}

template <class traits>
bool _File<traits>::Remove(const std::string& path) {
  if (CAPMModule* module = traits::Module()) {
    APMEventStr(module->moduleId, kEventRemove, kLevelOpen, APM_EVENT_SINGLE, path.c_str());
  }
  if (unlink(path.c_str()) != 0) {
    _FamError<traits>::SetLastError();
    return false;
  }
  return true;
}

template <class traits>
bool _File<traits>::CreateTemporaryFile(const _Directory<traits>& directory,
                                        const std::string& prefix, std::string& path, int mode) {
  return CreateTemporaryFile(directory, prefix, path, mode, MicrosecondsNow());
}

template <class traits>
bool _File<traits>::CreateTemporaryFile(const _Directory<traits>& directory,
                                        const std::string& prefix, std::string& path, int mode,
                                        uint64_t seed) {
  const uint64_t tid = static_cast<uint64_t>(Thread::GetCurrentTID());
  if (mode == 0) mode = 0666;
  for (int attempt = 0; attempt < kTemporaryFileAttempts; ++attempt) {
    seed = NextTemporarySeed(seed, tid);
    path = directory.GetPath() + prefix + "_" + std::to_string(seed) + ".tmp";
    // Open closes what this object still holds and reports its own failure.
    if (Open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, mode)) return true;
  }
  path.clear();
  path_.clear();
  return false;
}

template class _File<_apm_traits_os>;
template class _File<_apm_traits_none>;

}  // namespace base
}  // namespace apm
