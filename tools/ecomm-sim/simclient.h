// The calling side of ecomm-sim: RPCs 3600 to 3604 on the daemon, as the main
// server makes them, with the request fields given by name and the response printed
// as one JSON object.
//
// SimFields holds request fields by the name of the record field ("target",
// "user", ...; "properties.KEY" for a property of the service desk of 3603).
// CallDaemon builds the request record of the RPC from them, refusing names the
// record does not have and numbers that are none, calls, and formats the response.
// SimClientManager is a session manager with fixed parameters, for one target (0).
//
// Thread-safety: the functions keep no state; a manager and its sessions are
// thread-safe as told in base/rpc/rpcclientsession.h.
#pragma once

#include <map>
#include <ostream>
#include <string>

#include "base/rpc/rpcclientsession.h"
#include "base/rpc/rpcconnectionparameters.h"
#include "tools/ecomm-sim/simoptions.h"

namespace apm {
namespace tools {

typedef std::map<std::string, std::string> SimFields;

// Adds the members of the JSON object `json`: strings and numbers as their text,
// the members of an object under "properties" as "properties.KEY". False with
// `error` set for text that is no JSON object or a member of another kind.
bool ReadFieldsFromJson(const std::string& json, SimFields& fields, std::string& error);
// Adds "NAME=VALUE" (the value may itself hold "="), replacing an earlier value.
void AddFieldArgument(const std::string& argument, SimFields& fields);

class SimClientManager
    : public base::SPDYRPCClientSessionManager<SimClientManager, base::RPC_MINIMUM_VERSION> {
 public:
  explicit SimClientManager(const base::RPCConnectionParameters& parameters);
  ~SimClientManager() override;

  // `parameters` for every target.
  bool get_connection_parameters(unsigned int target, base::RPCConnectionParameters& parameters) override;

 private:
  base::RPCConnectionParameters parameters_;
};

class SimClientSession : public base::SPDYRPCClientSession<SimClientManager> {
 public:
  explicit SimClientSession(SimClientManager* manager);
};

// Outcomes of CallDaemon, which are also the program's exit statuses.
enum SimCallResult { kSimCallDone = 0, kSimCallFailed = 1, kSimCallInvalid = 2 };

// Calls `rpc` (3600 to 3604) with the request from `fields`, sending the file
// `attachment` behind it for 3601 and 3604. kSimCallDone: `output` holds the
// response as JSON. kSimCallFailed: `error` is "error 0x<code>: <text>" of the
// failed call. kSimCallInvalid: `error` says what is wrong with the fields.
SimCallResult CallDaemon(SimClientSession& session, unsigned short rpc, const SimFields& fields,
                         const std::string& attachment, std::string& output, std::string& error);

// The whole "call" command: the tool's certificate and its registration with the
// daemon, the fields from the request file and the command line, the call, and
// the response on `out` or the error on `err`. Returns the exit status.
int RunCallCommand(const SimOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tools
}  // namespace apm
