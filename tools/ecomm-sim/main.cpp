// ecomm-sim: a stand-in for the suite's main server in front of the daemon, built on
// the project's own RPC transport. "serve" answers the daemon's calls; "call"
// makes the main server's calls on the daemon. See SimUsage for the command line.
#include <signal.h>

#include <iostream>
#include <string>
#include <vector>

#include "base/famerror.h"
#include "tools/ecomm-sim/simclient.h"
#include "tools/ecomm-sim/simdata.h"
#include "tools/ecomm-sim/simidentity.h"
#include "tools/ecomm-sim/simoptions.h"
#include "tools/ecomm-sim/simserver.h"

namespace {

using apm::tools::SimOptions;

// Serves until SIGINT or SIGTERM. The two signals are blocked before any thread
// starts, so that every thread inherits the mask and only sigwait takes them.
int RunServeCommand(const SimOptions& options) {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string error;
  apm::tools::SimIdentity identity;
  apm::tools::SimData data;
  if (!apm::tools::EnsureSimIdentity(options.certificateDirectory, identity, error) ||
      (!options.dataFile.empty() && !data.LoadFile(options.dataFile, error))) {
    std::cerr << "ecomm-sim: " << error << std::endl;
    return 2;
  }
  apm::tools::SimServer server(data, std::cout);
  apm::base::FamErrorBase record(true);
  if (!server.Start(options.port, identity.certificateFile, options.trustFile)) {
    std::cerr << "ecomm-sim: cannot listen on port " << options.port << ": " << record.message << std::endl;
    return 1;
  }
  std::cout << "ecomm-sim listening on port " << server.GetPort() << std::endl;
  int received = 0;
  sigwait(&stopSignals, &received);
  server.Stop();
  std::cout << "ecomm-sim stopped" << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  SimOptions options;
  std::string error;
  if (!apm::tools::ParseSimOptions(arguments, options, error)) {
    std::cerr << "ecomm-sim: " << error << "\n\n" << apm::tools::SimUsage();
    return 2;
  }
  // A peer that goes away must not end the process.
  signal(SIGPIPE, SIG_IGN);
  switch (options.mode) {
    case SimOptions::kServe:
      return RunServeCommand(options);
    case SimOptions::kCall:
      return apm::tools::RunCallCommand(options, std::cout, std::cerr);
    case SimOptions::kHelp:
      break;
  }
  std::cout << apm::tools::SimUsage();
  return 0;
}
