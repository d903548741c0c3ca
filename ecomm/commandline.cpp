#include "ecomm/commandline.h"

#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace apm {
namespace ecomm {

const char kProductName[] = "Norvanta kelvora(R) 2015";
const char kProductVersion[] = "15.3.7.24531";

namespace {

const unsigned int kDefaultMaxThreads = 100;
const unsigned int kMinThreads = 10;
const unsigned int kMaxThreads = 1000;
const unsigned int kMaxPort = 65535;

// The help text behind the product line, one line per puts; --daemonize is
// deliberately not listed.
const char* const kHelpLines[] = {
    " -threads ..... set max thread pool size (10..1000, default: 100)",
    " -port ........ set server listen port (1..65535)",
    " --version .... display the version number",
    " --help ....... display this help",
};

std::string Format(const char* format, unsigned int value) {
  char text[64];
  std::snprintf(text, sizeof(text), format, static_cast<int>(value));
  return text;
}

}  // namespace

CommandLineResult ParseCommandLine(int argc, const char* const argv[], const CommandLineSettings& initial) {
  CommandLineResult result;
  result.settings = initial;
  CommandLineSettings& settings = result.settings;
  for (int i = 1; i < argc; ++i) {
    const char* argument = argv[i];
    if (strcasecmp(argument, "-threads") == 0) {
      if (i + 1 < argc) {
        int threads = static_cast<int32_t>(std::strtol(argv[++i], nullptr, 10));
        bool inRange = threads >= static_cast<int>(kMinThreads) && threads <= static_cast<int>(kMaxThreads);
        settings.maxThreads = inRange ? static_cast<unsigned int>(threads) : kDefaultMaxThreads;
      }
      result.output += Format("threads: %d\n", settings.maxThreads);
    } else if (strcasecmp(argument, "-port") == 0) {
      if (i + 1 < argc) {
        unsigned int port = static_cast<uint32_t>(std::strtol(argv[++i], nullptr, 10));
        settings.listenPort = port <= kMaxPort ? port : 0;
      }
      result.output += Format("port: %d\n", settings.listenPort);
    } else if (strcasecmp(argument, "--daemonize") == 0) {
      settings.daemonize = true;
    } else if (strcasecmp(argument, "--version") == 0) {
      result.output += std::string(kProductName) + " " + kProductVersion + "\n";
      result.exitNow = true;
      return result;
    } else if (strcasecmp(argument, "--help") == 0) {
      result.output += std::string(kProductName) + " - external communication daemon\n";
      for (const char* line : kHelpLines) result.output += std::string(line) + "\n";
      result.exitNow = true;
      return result;
    }
  }
  return result;
}

}  // namespace ecomm
}  // namespace apm
