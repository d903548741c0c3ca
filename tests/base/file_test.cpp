#include "base/file.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/thread.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

mode_t PermissionsOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

bool DescriptorIsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// 8-byte little-endian values as the stand-in library writes them: hex bytes.
std::string HexOf(std::vector<uint64_t> values) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (uint64_t value : values) {
    for (int i = 0; i < 8; ++i) {
      uint8_t byte = static_cast<uint8_t>(value >> (8 * i));
      hex += digits[byte >> 4];
      hex += digits[byte & 15];
    }
  }
  return hex;
}

// The calls of the "Operating System" module's file events, without error events.
std::vector<test::SdkCall> FileEvents() {
  std::vector<test::SdkCall> events;
  for (const test::SdkCall& call : test::RecordedSdkCalls()) {
    if ((call.entry == "APMEventStr" || call.entry == "APMEventArgs") &&
        call.arguments.at(1) != "268439552") {
      events.push_back(call);
    }
  }
  return events;
}

TEST(File, SeedStepIsShiftedExclusiveOrPlusThreadIdIn64Bits) {
  EXPECT_EQ(File::NextTemporarySeed(1, 0), 129u);
  EXPECT_EQ(File::NextTemporarySeed(1000, 7), 128924u);
  EXPECT_EQ(File::NextTemporarySeed(~0ULL, 1), 2305843009213693825ULL);
  EXPECT_EQ(File::NextTemporarySeed(1609459200000000ULL, 4242), 206853905476829330ULL);
}

TEST(File, SameMicrosecondDifferentThreadsGiveDifferentSeeds) {
  const uint64_t microsecond = 1609459200000000ULL;
  EXPECT_NE(File::NextTemporarySeed(microsecond, 1000), File::NextTemporarySeed(microsecond, 1001));
}

TEST(File, TemporaryFileIsNamedFromDirectoryPrefixAndSeed) {
  test::PrivateRoot root;
  File file;
  std::string path;
  FamError record(true);
  ASSERT_TRUE(file.CreateTemporaryFile(Directory::GetTemporaryPath(true), "data", path, 0));
  const std::string folder = root.Path("/tmp/kelvora-ecomm/");
  ASSERT_EQ(path.compare(0, folder.size(), folder), 0) << path;
  EXPECT_TRUE(std::regex_match(path.substr(folder.size()), std::regex("data_[0-9]+\\.tmp")))
      << path;
  EXPECT_EQ(file.GetPath(), path);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(record.code, 0);
}

TEST(File, TemporaryFileIsReadWriteAndCloseOnExec) {
  test::PrivateRoot root;
  File file;
  std::string path;
  ASSERT_TRUE(file.CreateTemporaryFile(Directory::GetTemporaryPath(true), "attachment", path, 0));
  int flags = fcntl(file.GetDescriptor(), F_GETFL);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_NE(fcntl(file.GetDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(File, TemporaryFileModeZeroMeans0666) {
  test::PrivateRoot root;
  mode_t old = umask(0);
  File file;
  std::string path;
  ASSERT_TRUE(file.CreateTemporaryFile(Directory::GetTemporaryPath(true), "data", path, 0));
  File restricted;
  std::string restrictedPath;
  ASSERT_TRUE(restricted.CreateTemporaryFile(Directory::GetTemporaryPath(true), "key",
                                             restrictedPath, 0600));
  umask(old);
  EXPECT_EQ(PermissionsOf(path), 0666u);
  EXPECT_EQ(PermissionsOf(restrictedPath), 0600u);
}

TEST(File, TemporaryFileInMissingDirectoryFailsAndClearsPath) {
  test::PrivateRoot root;
  File file;
  std::string path = "preset";
  FamError record(true);
  EXPECT_FALSE(file.CreateTemporaryFile(Directory(root.Path("/tmp/missing")), "data", path, 0));
  EXPECT_EQ(path, "");
  EXPECT_EQ(file.GetPath(), "");
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(record.code, E_SYSTEM_BASE + ENOENT);
}

TEST(File, NewTemporaryFileClosesThePreviousDescriptor) {
  test::PrivateRoot root;
  File file;
  std::string first;
  std::string second;
  ASSERT_TRUE(file.CreateTemporaryFile(Directory::GetTemporaryPath(true), "a", first, 0));
  int firstDescriptor = file.GetDescriptor();
  ASSERT_TRUE(file.CreateTemporaryFile(Directory::GetTemporaryPath(true), "b", second, 0));
  EXPECT_NE(first, second);
  if (file.GetDescriptor() != firstDescriptor) {
    EXPECT_FALSE(DescriptorIsOpen(firstDescriptor));
  }
  EXPECT_EQ(file.GetPath(), second);
}

TEST(File, TwoThreadsInOneMicrosecondGetDifferentNamesThroughThreadId) {
  test::PrivateRoot root;
  const std::string folder = Directory::GetTemporaryPath(true);
  const uint64_t microsecond = 1609459200000000ULL;
  std::string names[2];
  uint32_t tids[2] = {0, 0};
  auto make = [&](int index) {
    File file;
    tids[index] = Thread::GetCurrentTID();
    EXPECT_TRUE(file.CreateTemporaryFile(folder, "data", names[index], 0, microsecond));
  };
  std::thread one(make, 0);
  one.join();
  std::thread two(make, 1);
  two.join();
  ASSERT_NE(tids[0], tids[1]);
  EXPECT_NE(names[0], names[1]);
  EXPECT_EQ(names[0], folder + "data_" +
                          std::to_string(File::NextTemporarySeed(microsecond, tids[0])) + ".tmp");
  EXPECT_EQ(names[1], folder + "data_" +
                          std::to_string(File::NextTemporarySeed(microsecond, tids[1])) + ".tmp");
}

TEST(File, SameSeedOnSameThreadReusesAndTruncatesTheFile) {
  test::PrivateRoot root;
  const std::string folder = Directory::GetTemporaryPath(true);
  std::string first;
  std::string second;
  {
    File file;
    ASSERT_TRUE(file.CreateTemporaryFile(folder, "data", first, 0, 77));
    ASSERT_TRUE(file.Write("content", 7));
  }
  File file;
  ASSERT_TRUE(file.CreateTemporaryFile(folder, "data", second, 0, 77));
  EXPECT_EQ(first, second);
  struct stat info;
  ASSERT_EQ(stat(second.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 0);
}

TEST(File, WriteThenReadBack) {
  test::PrivateRoot root;
  File file;
  std::string path;
  ASSERT_TRUE(file.CreateTemporaryFile(Directory::GetTemporaryPath(true), "data", path, 0));
  const std::string content(10000, 'w');
  ASSERT_TRUE(file.Write(content.data(), content.size()));
  ASSERT_TRUE(file.Close());
  EXPECT_EQ(root.ReadFile("/tmp/kelvora-ecomm/" + path.substr(path.rfind('/') + 1)), content);

  ASSERT_TRUE(file.Open(path, O_RDONLY | O_CLOEXEC));
  std::string back;
  char chunk[4096];
  size_t read = 0;
  do {
    ASSERT_TRUE(file.Read(chunk, sizeof(chunk), read));
    back.append(chunk, read);
  } while (read > 0);
  EXPECT_EQ(back, content);
}

TEST(File, GatheredWriteWritesThePiecesInOrder) {
  test::PrivateRoot root;
  File file;
  ASSERT_TRUE(file.Open(root.Path("/tmp/gathered"), O_RDWR | O_CREAT | O_TRUNC, 0600));
  char first[] = "first,";
  char empty[] = "";
  char second[] = "second";
  const iovec pieces[] = {{first, 6}, {empty, 0}, {second, 6}};
  ASSERT_TRUE(file.Write(pieces, 3));
  ASSERT_TRUE(file.Close());
  EXPECT_EQ(root.ReadFile("/tmp/gathered"), "first,second");
}

// More pieces than one system call takes (IOV_MAX, 1024 on Linux) go out in turn.
TEST(File, GatheredWriteOfMorePiecesThanOneCallTakes) {
  test::PrivateRoot root;
  File file;
  ASSERT_TRUE(file.Open(root.Path("/tmp/gathered"), O_RDWR | O_CREAT | O_TRUNC, 0600));
  std::string expected;
  std::vector<std::string> texts;
  for (int index = 0; index < 2500; ++index) texts.push_back(std::to_string(index) + ";");
  std::vector<iovec> pieces;
  for (std::string& text : texts) {
    pieces.push_back(iovec{&text[0], text.size()});
    expected += text;
  }
  ASSERT_TRUE(file.Write(pieces.data(), static_cast<int>(pieces.size())));
  ASSERT_TRUE(file.Close());
  EXPECT_EQ(root.ReadFile("/tmp/gathered"), expected);
}

// A write that a signal cuts short (a pipe whose reader is slow) goes on from the
// first byte not written, in the middle of a piece as well as at its start.
TEST(File, GatheredWriteGoesOnAfterShortWrites) {
  test::PrivateRoot root;
  const std::string pipe_path = root.Path("/tmp/gathered.fifo");
  ASSERT_EQ(mkfifo(pipe_path.c_str(), 0600), 0);
  // Without SA_RESTART, a signal ends a blocked write with what it has written.
  struct sigaction interrupt = {};
  struct sigaction previous = {};
  interrupt.sa_handler = [](int) {};
  sigemptyset(&interrupt.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &interrupt, &previous), 0);

  // No two neighbouring bytes alike, so that a piece resumed at the wrong byte shows.
  std::string expected;
  for (int index = 0; index < 2000000; ++index) expected += static_cast<char>('a' + (index * 7) % 23);
  std::string source = expected;
  std::vector<iovec> pieces;
  for (size_t offset = 0, index = 0; offset < source.size(); ++index) {
    const size_t length = std::min<size_t>(1000 + (index * 7919) % 5000, source.size() - offset);
    pieces.push_back(iovec{&source[offset], length});
    offset += length;
  }

  std::string received;
  std::thread reader([&] {
    const int descriptor = open(pipe_path.c_str(), O_RDONLY | O_CLOEXEC);
    char chunk[4096];
    ssize_t count;
    while ((count = read(descriptor, chunk, sizeof(chunk))) > 0) {
      received.append(chunk, static_cast<size_t>(count));
      std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    close(descriptor);
  });
  File file;
  ASSERT_TRUE(file.Open(pipe_path, O_WRONLY | O_CLOEXEC));
  std::atomic<bool> written_all{false};
  const pthread_t writer = pthread_self();
  std::thread interrupter([&] {
    while (!written_all.load()) {
      pthread_kill(writer, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const bool written = file.Write(pieces.data(), static_cast<int>(pieces.size()));
  written_all = true;
  interrupter.join();
  file.Close();
  reader.join();
  sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_TRUE(written);
  EXPECT_EQ(received.size(), expected.size());
  EXPECT_TRUE(received == expected);
}

TEST(File, GatheredWriteOnClosedFileFails) {
  File file;
  FamError record(true);
  char byte = 0;
  const iovec piece{&byte, 1};
  EXPECT_FALSE(file.Write(&piece, 1));
  EXPECT_EQ(record.code, E_SYSTEM_BASE + EBADF);
}

TEST(File, OpenOfMissingFileFailsWithSystemError) {
  test::PrivateRoot root;
  File file;
  FamError record(true);
  EXPECT_FALSE(file.Open(root.Path("/tmp/absent"), O_RDONLY));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(record.code, E_SYSTEM_BASE + ENOENT);
}

TEST(File, ReadAndWriteOnClosedFileFail) {
  File file;
  FamError record(true);
  char byte = 0;
  size_t read = 7;
  EXPECT_FALSE(file.Read(&byte, 1, read));
  EXPECT_EQ(read, 0u);
  EXPECT_EQ(record.code, E_SYSTEM_BASE + EBADF);
  record.code = 0;
  EXPECT_FALSE(file.Write(&byte, 1));
  EXPECT_EQ(record.code, E_SYSTEM_BASE + EBADF);
}

TEST(File, CloseReleasesDescriptorAndMayBeRepeated) {
  test::PrivateRoot root;
  root.WriteFile("/tmp/x", "x");
  File file;
  ASSERT_TRUE(file.Open(root.Path("/tmp/x"), O_RDONLY));
  int fd = file.GetDescriptor();
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(file.GetDescriptor(), -1);
  EXPECT_FALSE(DescriptorIsOpen(fd));
  EXPECT_TRUE(file.Close());
}

TEST(File, DestructorClosesDescriptor) {
  test::PrivateRoot root;
  root.WriteFile("/tmp/x", "x");
  int fd = -1;
  {
    _File<_apm_traits_none> file;
    ASSERT_TRUE(file.Open(root.Path("/tmp/x"), O_RDONLY));
    fd = file.GetDescriptor();
    EXPECT_TRUE(DescriptorIsOpen(fd));
  }
  EXPECT_FALSE(DescriptorIsOpen(fd));
}

TEST(File, RemoveDeletesAndReportsMissingFile) {
  test::PrivateRoot root;
  root.WriteFile("/tmp/gone", "x");
  FamError record(true);
  EXPECT_TRUE(File::Remove(root.Path("/tmp/gone")));
  EXPECT_FALSE(root.Exists("/tmp/gone"));
  EXPECT_EQ(record.code, 0);
  EXPECT_FALSE(File::Remove(root.Path("/tmp/gone")));
  EXPECT_EQ(record.code, E_SYSTEM_BASE + ENOENT);
}

TEST(File, OperationsAreAnnouncedToTheOperatingSystemModule) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    const std::string folder = Directory::GetTemporaryPath(true);
    std::string path;
    std::string fd;
    {
      File file;
      ASSERT_TRUE(file.CreateTemporaryFile(folder, "data", path, 0, 5));
      fd = std::to_string(file.GetDescriptor());
      ASSERT_TRUE(file.Write("abc", 3));
      lseek(file.GetDescriptor(), 0, SEEK_SET);
      char buffer[16];
      size_t read = 0;
      ASSERT_TRUE(file.Read(buffer, sizeof(buffer), read));
      uint64_t descriptor = static_cast<uint64_t>(file.GetDescriptor());
      std::vector<test::SdkCall> events = FileEvents();
      ASSERT_EQ(events.size(), 5u);
      EXPECT_EQ(events[0].arguments, (std::vector<std::string>{"101", "0", "60", "0", folder}));
      EXPECT_EQ(events[1].arguments, (std::vector<std::string>{"101", "0", "60", "1", path}));
      EXPECT_EQ(events[2].entry, "APMEventArgs");
      EXPECT_EQ(events[2].arguments, (std::vector<std::string>{"101", "0", "60", "2", "1", "2",
                                                               HexOf({descriptor}), "8"}));
      EXPECT_EQ(events[3].arguments, (std::vector<std::string>{"101", "4", "70", "0", "2", "2,2",
                                                               HexOf({descriptor, 3}), "16"}));
      EXPECT_EQ(events[4].arguments, (std::vector<std::string>{"101", "3", "70", "0", "2", "2,2",
                                                               HexOf({descriptor, 16}), "16"}));
    }
    ASSERT_TRUE(File::Remove(path));
    std::vector<test::SdkCall> events = FileEvents();
    ASSERT_EQ(events.size(), 7u);
    EXPECT_EQ(events[5].arguments, (std::vector<std::string>{"101", "5", "60", "0", path}));
    EXPECT_EQ(events[6].arguments, (std::vector<std::string>{"101", "2", "60", "0", path}));
  });
}

TEST(File, GatheredWriteIsAnnouncedOnceWithTheTotalSize) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    File file;
    ASSERT_TRUE(file.Open(root.Path("/tmp/gathered"), O_RDWR | O_CREAT | O_TRUNC, 0600));
    const uint64_t descriptor = static_cast<uint64_t>(file.GetDescriptor());
    char first[] = "abc";
    char second[] = "defgh";
    const iovec pieces[] = {{first, 3}, {second, 5}};
    const size_t before = FileEvents().size();
    ASSERT_TRUE(file.Write(pieces, 2));
    std::vector<test::SdkCall> events = FileEvents();
    ASSERT_EQ(events.size(), before + 1);
    EXPECT_EQ(events.back().arguments, (std::vector<std::string>{"101", "4", "70", "0", "2", "2,2",
                                                                 HexOf({descriptor, 8}), "16"}));
  });
}

TEST(File, FailedOpenAnnouncesDescriptorMinusOne) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    FamError record(true);
    File file;
    EXPECT_FALSE(file.Open(root.Path("/tmp/absent"), O_RDONLY));
    std::vector<test::SdkCall> events = FileEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].arguments.at(6), "ffffffffffffffff");
  });
}

TEST(File, TraitsWithoutModuleSendNoEvents) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    {
      _File<_apm_traits_none> file;
      std::string path;
      ASSERT_TRUE(file.CreateTemporaryFile(_Directory<_apm_traits_none>::GetTemporaryPath(true),
                                           "data", path, 0));
      ASSERT_TRUE(file.Write("x", 1));
      ASSERT_TRUE(_File<_apm_traits_none>::Remove(path));
    }
    EXPECT_TRUE(test::RecordedSdkCalls().empty());
  });
}

}  // namespace
}  // namespace base
}  // namespace apm
