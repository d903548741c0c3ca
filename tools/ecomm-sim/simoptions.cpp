#include "tools/ecomm-sim/simoptions.h"

#include "base/rootpath.h"
#include "base/strtools.h"

namespace apm {
namespace tools {

namespace {

constexpr unsigned int kMainServerPort = 10000;
constexpr unsigned int kDaemonPort = 10003;
const char kDefaultHost[] = "127.0.0.1";
const char kCertificateDirectory[] = "/etc/kelvora/ecomm-sim";
const char kServerTrustFile[] = "/etc/kelvora/server/trusted_certificates.cfg";

bool IsCalledRPC(unsigned short rpc) { return rpc >= 3600 && rpc <= 3604; }

}  // namespace

bool ParseSimOptions(const std::vector<std::string>& arguments, SimOptions& options, std::string& error) {
  options = SimOptions();
  options.certificateDirectory = base::RootedPath(kCertificateDirectory);
  options.trustFile = base::RootedPath(kServerTrustFile);
  options.host = kDefaultHost;
  if (arguments.empty()) {
    error = "no command given";
    return false;
  }
  size_t next = 1;
  const std::string& command = arguments[0];
  bool portGiven = false;
  if (command == "--help" || command == "-h" || command == "help") {
    options.mode = SimOptions::kHelp;
    return true;
  } else if (command == "serve") {
    options.mode = SimOptions::kServe;
  } else if (command == "call") {
    options.mode = SimOptions::kCall;
    if (arguments.size() < 2 || !base::StringToInt(arguments[1], options.rpc) || !IsCalledRPC(options.rpc)) {
      error = "call needs an RPC number from 3600 to 3604";
      return false;
    }
    next = 2;
  } else {
    error = "unknown command \"" + command + "\"";
    return false;
  }

  for (size_t i = next; i < arguments.size(); ++i) {
    const std::string& option = arguments[i];
    if (option == "--help" || option == "-h") {
      options.mode = SimOptions::kHelp;
      return true;
    }
    if (i + 1 >= arguments.size()) {
      error = "option " + option + " needs a value";
      return false;
    }
    const std::string& value = arguments[++i];
    const bool serve = options.mode == SimOptions::kServe;
    if (option == "--port") {
      if (!base::StringToInt(value, options.port) || options.port > 65535) {
        error = "invalid port \"" + value + "\"";
        return false;
      }
      portGiven = true;
    } else if (option == "--cert-dir") {
      options.certificateDirectory = value;
    } else if (option == "--trust-file" && serve) {
      options.trustFile = value;
    } else if (option == "--data" && serve) {
      options.dataFile = value;
    } else if (option == "--host" && !serve) {
      options.host = value;
    } else if (option == "--request" && !serve) {
      options.requestFile = value;
    } else if (option == "--field" && !serve) {
      if (value.find('=') == std::string::npos) {
        error = "field \"" + value + "\" is not NAME=VALUE";
        return false;
      }
      options.fields.push_back(value);
    } else if (option == "--file" && !serve) {
      options.attachment = value;
    } else if (option == "--connect-timeout" && !serve) {
      if (!base::StringToInt(value, options.connectTimeout)) {
        error = "invalid time-out \"" + value + "\"";
        return false;
      }
    } else {
      error = "unknown option " + option + " for " + command;
      return false;
    }
  }
  if (!portGiven) options.port = options.mode == SimOptions::kServe ? kMainServerPort : kDaemonPort;
  const bool needsFile = options.rpc == 3601 || options.rpc == 3604;
  if (options.mode == SimOptions::kCall && needsFile != !options.attachment.empty()) {
    error = needsFile ? "RPC " + std::to_string(options.rpc) + " needs --file"
                      : "RPC " + std::to_string(options.rpc) + " takes no --file";
    return false;
  }
  return true;
}

std::string SimUsage() {
  return "Usage:\n"
         "  ecomm-sim serve [--port N] [--cert-dir DIR] [--trust-file FILE] [--data FILE]\n"
         "  ecomm-sim call RPC [--host HOST] [--port N] [--cert-dir DIR] [--request FILE]\n"
         "                     [--field NAME=VALUE]... [--file PATH] [--connect-timeout SECONDS]\n"
         "  ecomm-sim --help\n"
         "\n"
         "serve: acts as the main server towards the daemon. Listens with TLS on --port\n"
         "(default 10000; 0 picks a free port, printed at start), accepts the clients listed\n"
         "in --trust-file (default /etc/kelvora/server/trusted_certificates.cfg, where the\n"
         "daemon registers its client certificate) and answers RPC 3020 (infrastructure),\n"
         "3320 (store a token) and 3321 (get tokens) from the JSON --data file:\n"
         "  {\"changeCounter\": 1, \"generation\": 1, \"maxid\": 0,\n"
         "   \"serviceDesks\": [{\"id\": 1, \"name\": \"...\", \"type\": \"...\", \"url\": \"...\", ...}],\n"
         "   \"tokens\": [{\"user\": \"...\", \"target\": 1, \"tokenType\": \"...\",\n"
         "               \"accessToken\": \"...\", \"expires\": 0, \"idToken\": \"...\"}]}\n"
         "Prints one line per call received. Ends on SIGINT or SIGTERM.\n"
         "\n"
         "call: calls RPC 3600 to 3604 on the daemon (default 127.0.0.1:10003) and prints the\n"
         "response as JSON, or \"error 0xCODE: text\" on stderr with exit status 1. Request\n"
         "fields come from the JSON object in --request and from --field, by record field name:\n"
         "  3600: target user path method contentType body\n"
         "  3601: target user path method contentType, and --file with the body\n"
         "  3602: user target tokenType accessToken expires idToken\n"
         "  3603: id name status reference properties.KEY type url authtype username password\n"
         "        certificate proxyServer proxyUsername proxyPassword\n"
         "  3604: id user, and --file with the saved session\n"
         "\n"
         "Both sides use the certificate \"ecomm-sim_certificate.pem\" in --cert-dir (default\n"
         "/etc/kelvora/ecomm-sim), made on first use; call adds its fingerprint to the daemon's\n"
         "/etc/kelvora/ecomm/trusted_certificates.cfg if it is not listed there. All default\n"
         "paths lie under ECOMM_ROOT when that is set.\n";
}

}  // namespace tools
}  // namespace apm
