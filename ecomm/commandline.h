// The daemon's command line: -threads N, -port N, --daemonize, --version, --help.
//
// ParseCommandLine is pure: it takes the arguments and the current settings and
// returns the new settings together with everything the options print, in order, so
// that main only has to print the text and apply the result. Options are compared
// case-insensitively ("-THREADS" counts, "--threads" does not); unknown arguments are
// skipped silently. Thread-safe: no state.
#pragma once

#include <string>

namespace apm {
namespace ecomm {

// Printed by --version, "%s %s\n" of the two.
extern const char kProductName[];
extern const char kProductVersion[];

struct CommandLineSettings {
  unsigned int maxThreads = 100;  // worker pool limit, 10 to 1000
  unsigned int listenPort = 0;    // 0: take the port from the configuration
  bool daemonize = false;
};

struct CommandLineResult {
  CommandLineSettings settings;
  std::string output;    // the text the options print, to go to stdout
  bool exitNow = false;  // --version or --help: print `output`, then exit with status 0
};

// Examines argv[1] .. argv[argc - 1] in order:
// - "-threads N": N is read with strtol and cut to 32 bits; 10 to 1000 is taken,
//   anything else gives 100 (not the nearer bound). Prints "threads: %d\n" with the
//   result; with no N following, prints the current value and changes nothing.
// - "-port N": N is read with strtol, cut to 32 bits and compared unsigned; up to
//   65535 is taken, anything else (negatives too) gives 0. Prints "port: %d\n".
// - "--daemonize": sets `daemonize`.
// - "--version", "--help": print their text and stop the examination at once, so
//   a later argument is never looked at and the process never detaches.
CommandLineResult ParseCommandLine(int argc, const char* const argv[], const CommandLineSettings& initial);

}  // namespace ecomm
}  // namespace apm
