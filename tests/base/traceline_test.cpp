#include "base/traceline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <string>

#include "base/procfs.h"
#include "base/thread.h"

namespace apm {
namespace base {
namespace {

std::string TraceOf(const char* text) {
  testing::internal::CaptureStderr();
  WriteTrace(text);
  return testing::internal::GetCapturedStderr();
}

TEST(TraceLine, LineHasTimeThreadMemoryCounterAndText) {
  std::string line = TraceOf("hello trace");
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(
      line, parts,
      std::regex("\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2} (\\d{5,}) (\\d{10})KiB 000 hello trace\n")))
      << line;
  char tid[16];
  std::snprintf(tid, sizeof(tid), "%05u", Thread::GetCurrentTID());
  EXPECT_EQ(parts[1].str(), tid);
  EXPECT_GT(std::stoul(parts[2].str()), 0ul);
}

TEST(TraceLine, MemoryFieldIsResidentPagesInKiB) {
  procfs::proc_stat_t before;
  ASSERT_TRUE(procfs::get_proc_self_stat(&before));
  std::string line = TraceOf("x");
  procfs::proc_stat_t after;
  ASSERT_TRUE(procfs::get_proc_self_stat(&after));
  unsigned long kib = std::stoul(line.substr(line.find(' ', 20) + 1, 10));
  const unsigned long pageKiB = procfs::get_page_size() / 1024;
  // The process may grow a little while the line is written.
  EXPECT_GE(kib + 64 * pageKiB, before.rss * pageKiB);
  EXPECT_LE(kib, after.rss * pageKiB + 64 * pageKiB);
}

TEST(TraceLine, EachCallIsOneLine) {
  std::string lines = TraceOf("first");
  lines += TraceOf("second");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2);
  EXPECT_NE(lines.find(" 000 first\n"), std::string::npos);
  EXPECT_NE(lines.find(" 000 second\n"), std::string::npos);
}

}  // namespace
}  // namespace base
}  // namespace apm
