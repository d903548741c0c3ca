// SimData: what ecomm-sim serves in the role of the main server: the position of
// its history of changes, the infrastructure elements that it has (service desks so
// far) and the users' OAuth tokens, loaded from a JSON document.
//
// The document is an object with the optional members "changeCounter",
// "generation" and "maxid" (numbers), "serviceDesks" (array of objects with the
// element header fields id, name, status, timestamp, changeServer, changeTime,
// reference, an object "properties" of strings, and the desk's own fields) and
// "tokens" (array of objects with the AuthToken fields). Any other member is an
// error, so that a misspelt name does not go unnoticed.
//
// Thread-safe: the RPC handlers of the simulator call it from several workers;
// one mutex guards the tokens, and the infrastructure is fixed after loading.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "protocol/rpcauthtoken.h"
#include "protocol/rpcinfrastructure.h"

namespace apm {
namespace tools {

class SimData {
 public:
  // Replaces everything with the document `json`; false with `error` set if it is
  // not a document of the form above.
  bool Load(const std::string& json, std::string& error);
  // Load with the content of the file at `path`.
  bool LoadFile(const std::string& path, std::string& error);

  // The answer to RPC 3020: the current position, and all elements unless the
  // request already names the current position (then no element has changed).
  void GetInfrastructure(const protocol::InfrastructureGetInfoRequest& request,
                         protocol::InfrastructureGetInfoResponse& response) const;
  // RPC 3320: replaces the token of the same user, target and token type, or adds it.
  void StoreToken(const protocol::AuthToken& token);
  // RPC 3321: the tokens of the user and target, of the requested token type if one
  // is given.
  protocol::AuthTokenList FindTokens(const protocol::AuthTokenRequest& request) const;

 private:
  uint64_t changeCounter_ = 0;
  uint64_t generation_ = 0;
  uint32_t maxid_ = 0;
  protocol::ElementList<protocol::CISServiceDesk> serviceDesks_;
  mutable std::mutex tokenMutex_;
  std::vector<protocol::AuthToken> tokens_;  // guarded by tokenMutex_
};

}  // namespace tools
}  // namespace apm
