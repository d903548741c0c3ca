#include "base/sysfunctions.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netdb.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/famerror.h"
#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

// Each test writes its own "test.conf" under a private root and looks keys up in it.
class ConfigFileTest : public ::testing::Test {
 protected:
  void Write(const std::string& content) { root_.WriteFile("/etc/kelvora/test.conf", content); }
  bool Lookup(const std::string& key, std::string& value) {
    return System::GetValueFromConfigFile("test.conf", key, value);
  }
  // The value found, or "<none>" if the lookup failed.
  std::string ValueOf(const std::string& key) {
    std::string value = "<none>";
    return Lookup(key, value) ? value : "<none>";
  }

  test::PrivateRoot root_;
};

TEST_F(ConfigFileTest, LastLineWithoutLineBreakYieldsNoValue) {
  Write("LogLevel LOG_INFO");
  std::string value = "unchanged";
  EXPECT_FALSE(Lookup("LogLevel", value));
  EXPECT_EQ(value, "unchanged");
}

TEST_F(ConfigFileTest, LineWithLineBreakYieldsValue) {
  Write("LogLevel LOG_INFO\n");
  EXPECT_EQ(ValueOf("LogLevel"), "LOG_INFO");
}

TEST_F(ConfigFileTest, HashStartsACommentAnywhereInTheLine) {
  Write("# ListenPort 1\n #ListenPort 1\n");
  EXPECT_EQ(ValueOf("ListenPort"), "<none>");
  Write("# ListenPort 1\n #ListenPort 1\nListenPort 2 # note\n");
  EXPECT_EQ(ValueOf("ListenPort"), "2");
}

TEST_F(ConfigFileTest, KeyMatchesCaseInsensitivelyWithTabAndBlank) {
  Write("listenport\t 7000\n");
  EXPECT_EQ(ValueOf("ListenPort"), "7000");
}

TEST_F(ConfigFileTest, NonAsciiKeyMatchesCaseInsensitively) {
  Write("\xC3\x84RGER 5\n");  // "ÄRGER 5"
  EXPECT_EQ(ValueOf("\xC3\xA4rger"), "5");
}

TEST_F(ConfigFileTest, KeyIsFoundAnywhereInTheLineAndFirstLineWins) {
  Write("MyListenPort 1\nListenPort 2\n");
  EXPECT_EQ(ValueOf("ListenPort"), "1");
  Write("ListenPortX 1\nListenPort 2\n");
  EXPECT_EQ(ValueOf("ListenPort"), "X 1");
}

TEST_F(ConfigFileTest, ValueKeepsItsCase) {
  Write("loglevel LOG_Info\n");
  EXPECT_EQ(ValueOf("LogLevel"), "LOG_Info");
}

TEST_F(ConfigFileTest, OnlyWhiteSpaceSeparatesKeyAndValue) {
  Write("ListenPort=10003\n");
  EXPECT_EQ(ValueOf("ListenPort"), "=10003");
}

TEST_F(ConfigFileTest, CarriageReturnIsTrimmed) {
  Write("LogLevel LOG_DEBUG \r\n");
  EXPECT_EQ(ValueOf("LogLevel"), "LOG_DEBUG");
}

TEST_F(ConfigFileTest, KeyWithoutValueIsFoundEmpty) {
  Write("ProcessOutFile\n");
  std::string value = "unchanged";
  EXPECT_TRUE(Lookup("ProcessOutFile", value));
  EXPECT_EQ(value, "");
}

TEST_F(ConfigFileTest, MissingKeyLeavesValueUnchanged) {
  Write("ServerPort 1\n");
  std::string value = "unchanged";
  EXPECT_FALSE(Lookup("ListenPort", value));
  EXPECT_EQ(value, "unchanged");
}

TEST_F(ConfigFileTest, LineThatIsNotUtf8NeverMatches) {
  Write("ListenPort 1 \xFF\nListenPort 2\n");
  EXPECT_EQ(ValueOf("ListenPort"), "2");
}

TEST_F(ConfigFileTest, ChangedFileCountsAtNextLookup) {
  Write("ListenPort 1\n");
  EXPECT_EQ(ValueOf("ListenPort"), "1");
  Write("ListenPort 2\n");
  EXPECT_EQ(ValueOf("ListenPort"), "2");
}

TEST_F(ConfigFileTest, LineCrossingOneChunkBoundaryIsJoined) {
  // The first chunk holds 1023 bytes; "ListenPort 12345" starts at 1015 and crosses it.
  std::string filler(1014, 'x');
  Write(filler + "\nListenPort 12345\n");
  EXPECT_EQ(ValueOf("ListenPort"), "12345");
}

TEST_F(ConfigFileTest, LineOverTwoChunksLosesItsBeginning) {
  // Key in the first of three chunks of one line: that piece is replaced and lost.
  Write("ListenPort 5 " + std::string(2500, 'y') + "\n");
  EXPECT_EQ(ValueOf("ListenPort"), "<none>");
}

TEST_F(ConfigFileTest, LineOverTwoChunksKeepsItsLastTwoPieces) {
  // Key in the third chunk: the second and third pieces are joined and examined.
  Write(std::string(2500, 'y') + " ListenPort 9\n");
  EXPECT_EQ(ValueOf("ListenPort"), "9");
  // Key in the second chunk of a three-chunk line: found with its whole value.
  Write(std::string(1030, 'a') + "MyKey " + std::string(1100, 'b') + "\n");
  EXPECT_EQ(ValueOf("MyKey"), std::string(1100, 'b'));
}

TEST_F(ConfigFileTest, NulByteEndsItsChunk) {
  Write(std::string("A 1\nB 2\0C 3\nD 4\n", 16));
  EXPECT_EQ(ValueOf("A"), "1");
  EXPECT_EQ(ValueOf("B"), "<none>");
  EXPECT_EQ(ValueOf("C"), "<none>");
  EXPECT_EQ(ValueOf("D"), "<none>");
}

TEST_F(ConfigFileTest, TextBeforeNulIsJoinedWithNextChunk) {
  std::string content("B 2\0", 4);
  content += std::string(1023 - content.size(), 'z');
  content += "C 3\n";
  Write(content);
  EXPECT_EQ(ValueOf("B"), "2C 3");
}

TEST_F(ConfigFileTest, MissingFileReportsSystemErrorAndLeavesValue) {
  _FamError<_apm_traits_os> record;
  std::string value = "unchanged";
  EXPECT_FALSE(System::GetValueFromConfigFile("absent.conf", "ListenPort", value));
  EXPECT_EQ(value, "unchanged");
  EXPECT_EQ(static_cast<unsigned int>(record.code), 0x80070002u);
  EXPECT_EQ(record.message, std::strerror(ENOENT));
}

TEST_F(ConfigFileTest, FileIsClosedAfterEveryLookup) {
  Write("A 1\n");
  int before = open("/dev/null", O_RDONLY);
  for (int i = 0; i < 10; ++i) ValueOf(i % 2 ? "A" : "Z");
  int after = open("/dev/null", O_RDONLY);
  EXPECT_EQ(after, before + 1);
  close(before);
  close(after);
}

// --- Host name ---------------------------------------------------------------------

TEST(FirstCanonicalName, NoEntryWithCanonicalNameGivesEmpty) {
  EXPECT_EQ(System::FirstCanonicalName(nullptr), "");
  addrinfo second = {};
  addrinfo first = {};
  first.ai_next = &second;
  EXPECT_EQ(System::FirstCanonicalName(&first), "");
}

TEST(FirstCanonicalName, TakesFirstNonNullName) {
  char name[] = "host.example.test";
  char later[] = "later.example.test";
  addrinfo third = {};
  third.ai_canonname = later;
  addrinfo second = {};
  second.ai_canonname = name;
  second.ai_next = &third;
  addrinfo first = {};
  first.ai_next = &second;
  EXPECT_EQ(System::FirstCanonicalName(&first), "host.example.test");
}

TEST(GetFQHostName, GivesTheCanonicalNameOfThisHost) {
  char hostname[256] = {};
  ASSERT_EQ(gethostname(hostname, sizeof(hostname) - 1), 0);
  addrinfo hints = {};
  hints.ai_flags = AI_CANONNAME;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* answer = nullptr;
  if (getaddrinfo(hostname, nullptr, &hints, &answer) != 0) GTEST_SKIP() << "host name does not resolve";
  std::string expected = answer->ai_canonname ? answer->ai_canonname : "";
  freeaddrinfo(answer);
  EXPECT_FALSE(expected.empty());
  EXPECT_EQ(System::GetFQHostName(), expected);
}

// A child in its own UTS and mount namespaces gets a host name that the hosts file
// does not know, and name lookups limited to that file, so the failure comes without
// any network traffic. Needs the privilege to make namespaces; skipped without it.
TEST(GetFQHostName, UnresolvableHostGivesEmptyAndResolverText) {
  test::PrivateRoot root;
  root.WriteFile("/nsswitch.conf", "hosts: files\n");
  root.WriteFile("/hosts", "127.0.0.1 localhost\n");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    std::string report = "skip";
    if (unshare(CLONE_NEWUTS | CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount(root.Path("/nsswitch.conf").c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) == 0 &&
        mount(root.Path("/hosts").c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0 &&
        sethostname("ecomm-unresolvable", 18) == 0) {
      _FamError<_apm_traits_none> record;
      std::string name = System::GetFQHostName();
      report = "name=" + name + ";code=" + std::to_string(record.code) + ";text=" + record.message;
    }
    (void)!write(fds[1], report.data(), report.size());
    _exit(0);
  }
  close(fds[1]);
  std::string report;
  char buffer[512];
  ssize_t count;
  while ((count = read(fds[0], buffer, sizeof(buffer))) > 0) report.append(buffer, count);
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (report == "skip") GTEST_SKIP() << "no privilege for namespaces";
  EXPECT_EQ(report, "name=;code=" + std::to_string(EAI_NONAME) + ";text=" + gai_strerror(EAI_NONAME));
}

}  // namespace
}  // namespace base
}  // namespace apm
