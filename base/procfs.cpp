#include "base/procfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace apm {
namespace base {
namespace procfs {
namespace {

constexpr unsigned long kGrowStep = 4096;
constexpr unsigned long kMaximumFileSize = 0x20000;

}  // namespace

bool get_proc_self_stat(proc_stat_t* stat) {
  ReadBuffer buffer;
  buffer.buffer = static_cast<char*>(std::malloc(kGrowStep));
  if (buffer.buffer == nullptr) return false;
  buffer.size = kGrowStep;
  bool result = get_path_stat("/proc/self/stat", stat, buffer);
  std::free(buffer.buffer);
  return result;
}

bool get_path_stat(const char* path, proc_stat_t* stat, ReadBuffer& buffer) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) return false;
  unsigned long size = 0;
  bool read = read_file(fd, buffer, size);
  close(fd);
  if (!read) return false;

  stat->processor = 0;
  stat->num_threads = 0;
  stat->rt_priority = ~0UL;
  stat->policy = ~0UL;

  const char* nameStart = std::strchr(buffer.buffer, '(');
  const char* nameEnd = std::strrchr(buffer.buffer, ')');
  if (nameStart == nullptr || nameEnd == nullptr || nameEnd < nameStart || nameEnd[1] == '\0') {
    return false;
  }
  size_t nameLength = static_cast<size_t>(nameEnd - nameStart - 1);
  if (nameLength > sizeof(stat->comm) - 1) nameLength = sizeof(stat->comm) - 1;
  std::memcpy(stat->comm, nameStart + 1, nameLength);
  stat->comm[nameLength] = '\0';

  std::sscanf(nameEnd + 2,
              "%c %d %d %d %d %d %lu %lu %lu %lu %lu %Lu %Lu %Lu %Lu %ld %ld %d %ld %Lu %lu "
              "%ld %lu %lu %lu %lu %lu %lu %*s %*s %*s %*s %lu %*u %*u %d %d %lu %lu",
              &stat->state, &stat->ppid, &stat->pgrp, &stat->session, &stat->tty_nr, &stat->tpgid,
              &stat->flags, &stat->minflt, &stat->cminflt, &stat->majflt, &stat->cmajflt,
              &stat->utime,
              &stat->stime,
              &stat->cutime,
              &stat->cstime, &stat->priority, &stat->nice,
              &stat->num_threads, &stat->itrealvalue,
              &stat->starttime, &stat->vsize, &stat->rss,
              &stat->rsslim, &stat->startcode, &stat->endcode, &stat->startstack, &stat->kstkesp,
              &stat->kstkeip, &stat->wchan, &stat->exit_signal, &stat->processor,
              &stat->rt_priority, &stat->policy);
  if (stat->num_threads == 0) stat->num_threads = 1;
  return true;
}

bool read_file(int fd, ReadBuffer& buffer, unsigned long& size) {
  size = 0;
  for (;;) {
    if (size == buffer.size) {
      if (buffer.size >= kMaximumFileSize) {
        // Too long for a proc file: keep what fits, as a terminated text.
        buffer.buffer[buffer.size - 1] = '\0';
        size = buffer.size - 1;
        return true;
      }
      auto* grown = static_cast<char*>(std::realloc(buffer.buffer, buffer.size + kGrowStep));
      if (grown == nullptr) return false;
      buffer.buffer = grown;
      buffer.size += kGrowStep;
    }
    unsigned long room = buffer.size - size;
    ssize_t count = ::read(fd, buffer.buffer + size, room);
    if (count < 0) return false;
    size += static_cast<unsigned long>(count);
    // Proc files deliver their content in one go: a short read is the end.
    if (static_cast<unsigned long>(count) < room) break;
  }
  buffer.buffer[size] = '\0';
  return true;
}

long get_page_size() {
  static const long pageSize = sysconf(_SC_PAGESIZE);
  return pageSize;
}

}  // namespace procfs
}  // namespace base
}  // namespace apm
