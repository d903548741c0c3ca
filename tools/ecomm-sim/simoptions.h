// The command line of ecomm-sim, the stand-in for the suite's main server in front
// of the daemon.
//
//   ecomm-sim serve [--port N] [--cert-dir DIR] [--trust-file FILE] [--data FILE]
//   ecomm-sim call RPC [--host HOST] [--port N] [--cert-dir DIR] [--request FILE]
//                      [--field NAME=VALUE]... [--file PATH] [--connect-timeout S]
//   ecomm-sim --help
//
// ParseSimOptions turns the arguments into SimOptions and checks them; nothing is
// opened or read there. Plain functions and values, thread-safe.
#pragma once

#include <string>
#include <vector>

namespace apm {
namespace tools {

struct SimOptions {
  enum Mode { kHelp, kServe, kCall };

  Mode mode = kHelp;
  // serve: the port to listen on (0 picks a free one); call: the daemon's port.
  unsigned int port = 0;
  // Where the tool keeps its own certificate (made there on first use).
  std::string certificateDirectory;
  // serve: fingerprints of the clients it accepts.
  std::string trustFile;
  // serve: the JSON file with the infrastructure and the users' tokens; none: empty.
  std::string dataFile;
  // call: the RPC number (3600 to 3604), the daemon's host, the JSON file of request
  // fields, the fields given one by one (in order; they override the file's), the
  // file sent behind the request (3601, 3604) and the connect time-out in seconds.
  unsigned short rpc = 0;
  std::string host;
  std::string requestFile;
  std::vector<std::string> fields;
  std::string attachment;
  unsigned int connectTimeout = 10;
};

// The defaults: port 10000 for serve and 10003 for call, host "127.0.0.1", the
// certificate directory "/etc/kelvora/ecomm-sim" and the trust file
// "/etc/kelvora/server/trusted_certificates.cfg", both under ECOMM_ROOT.
// False with `error` set for a command line that does not fit.
bool ParseSimOptions(const std::vector<std::string>& arguments, SimOptions& options, std::string& error);

// The text of --help.
std::string SimUsage();

}  // namespace tools
}  // namespace apm
