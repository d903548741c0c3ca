#include "base/procfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace procfs {
namespace {

// Frees what the functions under test allocated.
struct OwnedBuffer {
  ~OwnedBuffer() { std::free(read.buffer); }
  ReadBuffer read;
};

bool ParseText(const std::string& text, proc_stat_t* stat) {
  test::PrivateRoot root;
  root.WriteFile("/tmp/stat", text);
  OwnedBuffer buffer;
  return get_path_stat(root.Path("/tmp/stat").c_str(), stat, buffer.read);
}

TEST(ProcStat, NameWithParenthesesParsesWhole) {
  proc_stat_t stat;
  ASSERT_TRUE(ParseText(
      "4242 (a) b) S 1 4200 4100 34816 4243 4194560 11 12 13 14 101 102 103 104 20 -5 3 0 5555 "
      "123456789 250 18446744073709551615 4194304 4238788 140736 140737 140738 1 2 3 4 99 0 0 17 "
      "2 5 1 0 0 0\n",
      &stat));
  EXPECT_STREQ(stat.comm, "a) b");
  EXPECT_EQ(stat.state, 'S');
  EXPECT_EQ(stat.ppid, 1);
  EXPECT_EQ(stat.pgrp, 4200);
  EXPECT_EQ(stat.session, 4100);
  EXPECT_EQ(stat.tty_nr, 34816);
  EXPECT_EQ(stat.tpgid, 4243);
  EXPECT_EQ(stat.flags, 4194560ul);
  EXPECT_EQ(stat.minflt, 11ul);
  EXPECT_EQ(stat.cminflt, 12ul);
  EXPECT_EQ(stat.majflt, 13ul);
  EXPECT_EQ(stat.cmajflt, 14ul);
  EXPECT_EQ(stat.utime, 101ull);
  EXPECT_EQ(stat.stime, 102ull);
  EXPECT_EQ(stat.cutime, 103ull);
  EXPECT_EQ(stat.cstime, 104ull);
  EXPECT_EQ(stat.priority, 20);
  EXPECT_EQ(stat.nice, -5);
  EXPECT_EQ(stat.num_threads, 3);
  EXPECT_EQ(stat.itrealvalue, 0);
  EXPECT_EQ(stat.starttime, 5555ull);
  EXPECT_EQ(stat.vsize, 123456789ul);
  EXPECT_EQ(stat.rss, 250);
  EXPECT_EQ(stat.rsslim, 18446744073709551615ul);
  EXPECT_EQ(stat.startcode, 4194304ul);
  EXPECT_EQ(stat.endcode, 4238788ul);
  EXPECT_EQ(stat.startstack, 140736ul);
  EXPECT_EQ(stat.kstkesp, 140737ul);
  EXPECT_EQ(stat.kstkeip, 140738ul);
  EXPECT_EQ(stat.wchan, 99ul);
  EXPECT_EQ(stat.exit_signal, 17);
  EXPECT_EQ(stat.processor, 2);
  EXPECT_EQ(stat.rt_priority, 5ul);
  EXPECT_EQ(stat.policy, 1ul);
}

TEST(ProcStat, FieldsMissingOnOlderKernelsKeepTheirMarkers) {
  proc_stat_t stat;
  stat.processor = 7;
  ASSERT_TRUE(ParseText("17 (old) R 1 17 17 0 -1 0 1 2 3 4 5 6 7 8 20 0 0 0 99 1000 10\n", &stat));
  EXPECT_STREQ(stat.comm, "old");
  EXPECT_EQ(stat.rss, 10);
  EXPECT_EQ(stat.num_threads, 1);
  EXPECT_EQ(stat.processor, 0);
  EXPECT_EQ(stat.rt_priority, ~0ul);
  EXPECT_EQ(stat.policy, ~0ul);
}

TEST(ProcStat, OverlongNameIsCutTo127Bytes) {
  proc_stat_t stat;
  ASSERT_TRUE(ParseText("1 (" + std::string(200, 'n') + ") S 0\n", &stat));
  EXPECT_EQ(std::string(stat.comm), std::string(127, 'n'));
  EXPECT_EQ(stat.state, 'S');
}

TEST(ProcStat, TextWithoutNameFails) {
  proc_stat_t stat;
  EXPECT_FALSE(ParseText("1 no name S 0\n", &stat));
  EXPECT_FALSE(ParseText("1 )x( S 0\n", &stat));
}

TEST(ProcStat, MissingFileFails) {
  proc_stat_t stat;
  OwnedBuffer buffer;
  EXPECT_FALSE(get_path_stat("/nonexistent/stat", &stat, buffer.read));
}

TEST(ProcStat, OwnProcessIsRead) {
  proc_stat_t stat;
  ASSERT_TRUE(get_proc_self_stat(&stat));
  EXPECT_EQ(stat.ppid, getppid());
  EXPECT_EQ(stat.pgrp, getpgrp());
  EXPECT_EQ(stat.state, 'R');
  EXPECT_GT(stat.rss, 0);
  EXPECT_GE(stat.num_threads, 1);
  EXPECT_NE(stat.policy, ~0ul);
  EXPECT_STRNE(stat.comm, "");
}

TEST(ProcStat, PageSizeIsTheSystemsAndStaysTheSame) {
  EXPECT_EQ(get_page_size(), sysconf(_SC_PAGESIZE));
  EXPECT_EQ(get_page_size(), get_page_size());
}

class ReadFile : public ::testing::Test {
 protected:
  int OpenWith(const std::string& content) {
    root_.WriteFile("/tmp/data", content);
    int fd = open(root_.Path("/tmp/data").c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    return fd;
  }
  test::PrivateRoot root_;
};

TEST_F(ReadFile, GrowsInPagesAndTerminates) {
  std::string content(10000, 'q');
  content[9999] = 'e';
  int fd = OpenWith(content);
  OwnedBuffer buffer;
  unsigned long size = 1;
  ASSERT_TRUE(read_file(fd, buffer.read, size));
  close(fd);
  EXPECT_EQ(size, 10000ul);
  EXPECT_EQ(buffer.read.size, 12288ul);
  EXPECT_EQ(buffer.read.buffer[10000], '\0');
  EXPECT_EQ(std::string(buffer.read.buffer), content);
}

TEST_F(ReadFile, ExactlyFullBufferGrowsOnceMoreForTheEnd) {
  int fd = OpenWith(std::string(4096, 'x'));
  OwnedBuffer buffer;
  buffer.read.buffer = static_cast<char*>(std::malloc(4096));
  buffer.read.size = 4096;
  unsigned long size = 0;
  ASSERT_TRUE(read_file(fd, buffer.read, size));
  close(fd);
  EXPECT_EQ(size, 4096ul);
  EXPECT_EQ(buffer.read.size, 8192ul);
  EXPECT_EQ(std::strlen(buffer.read.buffer), 4096u);
}

TEST_F(ReadFile, LongFileIsCutAt131072Bytes) {
  int fd = OpenWith(std::string(200000, 'L'));
  OwnedBuffer buffer;
  unsigned long size = 0;
  ASSERT_TRUE(read_file(fd, buffer.read, size));
  close(fd);
  EXPECT_EQ(buffer.read.size, 131072ul);
  EXPECT_EQ(size, 131071ul);
  EXPECT_EQ(std::strlen(buffer.read.buffer), 131071u);
}

TEST_F(ReadFile, EmptyFileGivesEmptyText) {
  int fd = OpenWith("");
  OwnedBuffer buffer;
  unsigned long size = 5;
  ASSERT_TRUE(read_file(fd, buffer.read, size));
  close(fd);
  EXPECT_EQ(size, 0ul);
  EXPECT_STREQ(buffer.read.buffer, "");
}

TEST_F(ReadFile, FailedReadGivesFalse) {
  int fd = open(root_.Path("/tmp").c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  OwnedBuffer buffer;
  unsigned long size = 0;
  EXPECT_FALSE(read_file(fd, buffer.read, size));
  close(fd);
}

}  // namespace
}  // namespace procfs
}  // namespace base
}  // namespace apm
