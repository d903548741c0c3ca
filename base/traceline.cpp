#include "base/traceline.h"

#include <cstdio>
#include <ctime>

#include "base/procfs.h"
#include "base/thread.h"

namespace apm {
namespace base {
namespace {

// Nesting depth shown in each line; nothing in this program nests traces, so it
// stays 0.
thread_local unsigned int traceDepth = 0;

unsigned long ResidentKiB() {
  procfs::proc_stat_t stat;
  if (!procfs::get_proc_self_stat(&stat)) return 0;
  return static_cast<unsigned long>(stat.rss) * static_cast<unsigned long>(procfs::get_page_size()) /
         1024;
}

}  // namespace

void WriteTrace(const char* text) {
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char date[32];
  strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &local);
  std::fprintf(stderr, "%s %05u %010luKiB %03u %s\n", date,
               static_cast<unsigned int>(Thread::GetCurrentTID()), ResidentKiB(), traceDepth,
               text != nullptr ? text : "");
  std::fflush(stderr);
}

}  // namespace base
}  // namespace apm
