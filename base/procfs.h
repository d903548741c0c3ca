// Reading this process's figures from the proc file system.
//
// proc_stat_t is the parsed form of a "stat" file of the proc file system;
// get_proc_self_stat fills it for this process, get_path_stat for any such file.
// read_file reads a whole (proc) file into a growing malloc buffer that the caller
// owns through ReadBuffer. All functions report failure by their result only.
//
// Thread-safe: no shared state apart from the page size, kept after its first lookup.
#pragma once

namespace apm {
namespace base {
namespace procfs {

struct proc_stat_t {
  char comm[128];
  char state;
  int ppid;
  int pgrp;
  int session;
  int tty_nr;
  int tpgid;
  unsigned long flags;
  unsigned long minflt;
  unsigned long majflt;
  unsigned long cminflt;
  unsigned long cmajflt;
  unsigned long long utime;
  unsigned long long stime;
  unsigned long long cutime;
  unsigned long long cstime;
  long priority;
  long nice;
  int num_threads;
  long itrealvalue;
  unsigned long long starttime;
  unsigned long vsize;
  long rss;  // in pages
  unsigned long rsslim;
  unsigned long startcode;
  unsigned long endcode;
  unsigned long startstack;
  unsigned long kstkesp;
  unsigned long kstkeip;
  unsigned long wchan;
  int exit_signal;
  int processor;
  unsigned long rt_priority;
  unsigned long policy;
};

// A malloc buffer and its size in bytes; whoever fills it owns it and frees it.
struct ReadBuffer {
  char* buffer = nullptr;
  unsigned long size = 0;
};

// Parses "/proc/self/stat". True on success.
bool get_proc_self_stat(proc_stat_t* stat);

// Parses the stat file at `path`, reading it through `buffer` (which may grow).
// A process name holding parentheses stays whole: it is what stands between the
// first "(" and the last ")". Fields an older kernel does not deliver keep markers:
// processor 0, rt_priority and policy all ones, num_threads at least 1.
bool get_path_stat(const char* path, proc_stat_t* stat, ReadBuffer& buffer);

// Reads `fd` to its end into `buffer`, growing it by 4096 bytes whenever it is full,
// and NUL-terminates the text; `size` gets its length. A short read counts as the
// end. A file of 131072 bytes or more is cut there, its last byte becoming NUL.
// False if a read fails or the buffer cannot grow.
bool read_file(int fd, ReadBuffer& buffer, unsigned long& size);

// sysconf(_SC_PAGESIZE), looked up once.
long get_page_size();

}  // namespace procfs
}  // namespace base
}  // namespace apm
