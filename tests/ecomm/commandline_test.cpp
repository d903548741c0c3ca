#include "ecomm/commandline.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

namespace apm {
namespace ecomm {
namespace {

CommandLineResult Parse(std::initializer_list<const char*> arguments,
                        const CommandLineSettings& initial = CommandLineSettings()) {
  std::vector<const char*> argv = {"kelvoraecommd"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return ParseCommandLine(static_cast<int>(argv.size()), argv.data(), initial);
}

const char kHelpText[] =
    "Norvanta kelvora(R) 2015 - external communication daemon\n"
    " -threads ..... set max thread pool size (10..1000, default: 100)\n"
    " -port ........ set server listen port (1..65535)\n"
    " --version .... display the version number\n"
    " --help ....... display this help\n";

TEST(CommandLine, NoArgumentsKeepDefaultsAndPrintNothing) {
  CommandLineResult result = Parse({});
  EXPECT_EQ(result.settings.maxThreads, 100u);
  EXPECT_EQ(result.settings.listenPort, 0u);
  EXPECT_FALSE(result.settings.daemonize);
  EXPECT_EQ(result.output, "");
  EXPECT_FALSE(result.exitNow);
}

TEST(CommandLine, ThreadsOutsideRangeGiveHundredNotTheNearerBound) {
  EXPECT_EQ(Parse({"-threads", "9"}).output, "threads: 100\n");
  EXPECT_EQ(Parse({"-threads", "1001"}).output, "threads: 100\n");
  CommandLineSettings initial;
  initial.maxThreads = 500;
  EXPECT_EQ(Parse({"-threads", "9"}, initial).settings.maxThreads, 100u);
}

TEST(CommandLine, ThreadsAtTheBoundsAreTakenCaseInsensitively) {
  CommandLineResult low = Parse({"-threads", "10"});
  EXPECT_EQ(low.settings.maxThreads, 10u);
  EXPECT_EQ(low.output, "threads: 10\n");
  CommandLineResult high = Parse({"-THREADS", "1000"});
  EXPECT_EQ(high.settings.maxThreads, 1000u);
  EXPECT_EQ(high.output, "threads: 1000\n");
}

TEST(CommandLine, ThreadsZeroNegativeOrTextGiveHundred) {
  for (const char* value : {"0", "-50", "abc", "", "4294967296"}) {
    CommandLineSettings initial;
    initial.maxThreads = 20;
    CommandLineResult result = Parse({"-threads", value}, initial);
    EXPECT_EQ(result.settings.maxThreads, 100u) << value;
    EXPECT_EQ(result.output, "threads: 100\n") << value;
  }
}

TEST(CommandLine, ThreadsValueIsCutToThirtyTwoBits) {
  // 2^32 + 50 is 50 once cut.
  EXPECT_EQ(Parse({"-threads", "4294967346"}).settings.maxThreads, 50u);
}

TEST(CommandLine, ThreadsLeadingNumberIsTaken) {
  EXPECT_EQ(Parse({"-threads", "20x"}).settings.maxThreads, 20u);
}

TEST(CommandLine, ThreadsAsLastArgumentPrintsCurrentValueAndChangesNothing) {
  CommandLineResult result = Parse({"-threads"});
  EXPECT_EQ(result.output, "threads: 100\n");
  EXPECT_EQ(result.settings.maxThreads, 100u);
  CommandLineSettings initial;
  initial.maxThreads = 30;
  result = Parse({"-threads", "40", "-threads"}, initial);
  EXPECT_EQ(result.output, "threads: 40\nthreads: 40\n");
  EXPECT_EQ(result.settings.maxThreads, 40u);
}

TEST(CommandLine, PortAboveRangeOrNegativeGivesZero) {
  CommandLineSettings initial;
  initial.listenPort = 12345;
  CommandLineResult high = Parse({"-port", "70000"}, initial);
  EXPECT_EQ(high.output, "port: 0\n");
  EXPECT_EQ(high.settings.listenPort, 0u);
  CommandLineResult negative = Parse({"-port", "-1"}, initial);
  EXPECT_EQ(negative.output, "port: 0\n");
  EXPECT_EQ(negative.settings.listenPort, 0u);
}

TEST(CommandLine, PortInRangeIsTaken) {
  CommandLineResult result = Parse({"-Port", "65535"});
  EXPECT_EQ(result.settings.listenPort, 65535u);
  EXPECT_EQ(result.output, "port: 65535\n");
  EXPECT_EQ(Parse({"-port", "10005"}).settings.listenPort, 10005u);
  EXPECT_EQ(Parse({"-port", "0"}).output, "port: 0\n");
}

TEST(CommandLine, PortAsLastArgumentPrintsCurrentValue) {
  CommandLineSettings initial;
  initial.listenPort = 10007;
  CommandLineResult result = Parse({"-port"}, initial);
  EXPECT_EQ(result.output, "port: 10007\n");
  EXPECT_EQ(result.settings.listenPort, 10007u);
}

TEST(CommandLine, OptionsConsumeTheArgumentBehindThem) {
  // "--daemonize" behind -port is its value, not an option.
  CommandLineResult result = Parse({"-port", "--daemonize", "-threads", "--version"});
  EXPECT_FALSE(result.settings.daemonize);
  EXPECT_FALSE(result.exitNow);
  EXPECT_EQ(result.output, "port: 0\nthreads: 100\n");
}

TEST(CommandLine, DaemonizeIsSetSilently) {
  CommandLineResult result = Parse({"--DAEMONIZE"});
  EXPECT_TRUE(result.settings.daemonize);
  EXPECT_EQ(result.output, "");
}

TEST(CommandLine, UnknownOptionIsSkippedSilently) {
  CommandLineResult result = Parse({"-bogus", "--threads", "20", "threads", "-daemonize"});
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.settings.maxThreads, 100u);
  EXPECT_FALSE(result.settings.daemonize);
  EXPECT_FALSE(result.exitNow);
}

TEST(CommandLine, VersionPrintsProductAndVersionAndExits) {
  CommandLineResult result = Parse({"--version"});
  EXPECT_EQ(result.output, "Norvanta kelvora(R) 2015 15.3.7.24531\n");
  EXPECT_TRUE(result.exitNow);
}

TEST(CommandLine, HelpPrintsFiveLinesAndExits) {
  CommandLineResult result = Parse({"--Help"});
  EXPECT_EQ(result.output, kHelpText);
  EXPECT_TRUE(result.exitNow);
}

TEST(CommandLine, VersionStopsTheExaminationEvenAfterDaemonize) {
  CommandLineResult result = Parse({"-threads", "20", "--daemonize", "--version", "-port", "5", "--help"});
  EXPECT_TRUE(result.exitNow);
  EXPECT_EQ(result.output, "threads: 20\nNorvanta kelvora(R) 2015 15.3.7.24531\n");
  EXPECT_EQ(result.settings.listenPort, 0u);
}

}  // namespace
}  // namespace ecomm
}  // namespace apm
