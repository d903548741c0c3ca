// The OAuth2 token records that travel between the main server and this daemon.
//
// AuthToken is one token of a user for an OAuth target. It is the request of RPC
// 3602 (where `accessToken` holds the authorization code to redeem) and the element
// of every token list. AuthTokenRequest asks the main server for the tokens of a
// user and target (RPC 3321). AuthTokenList is a list of tokens: a count, then the
// tokens. EmptyResponse is the response without a body (RPC 3320).
//
// The records are plain values, not thread-safe. They read and write themselves in
// field order on any stream type that ReadStream and WriteStream accept; the
// version is the peer's and is only handed on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/rpc/streamserializer.h"

namespace apm {
namespace protocol {

class AuthToken {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  std::string user;         // the user whom the token is for
  uint32_t target = 0;      // id of the configuration object of the OAuth target
  std::string tokenType;    // "token_type" of the token endpoint's answer; empty in a request
  std::string accessToken;  // the access token, or in RPC 3602 the authorization code
  uint64_t expires = 0;     // end of validity in 100 ns units since 1601-01-01 UTC; 0: never
  std::string idToken;      // "id_token" of the answer, empty if none
};

class AuthTokenRequest {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  std::string user;
  uint32_t target = 0;
  std::string tokenType;
};

class AuthTokenList : public std::vector<AuthToken> {
 public:
  // Appends the tokens read behind those the list already holds.
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;
};

class EmptyResponse {
 public:
  template <class T>
  bool Read(unsigned long /*version*/, base::ReadStream<T>& /*stream*/) {
    return true;
  }
  template <class T>
  bool Write(unsigned long /*version*/, base::WriteStream<T>& /*stream*/) const {
    return true;
  }
};

template <class T>
bool AuthToken::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(user) && stream.Read(target) && stream.Read(tokenType) && stream.Read(accessToken) &&
         stream.Read(expires) && stream.Read(idToken);
}

template <class T>
bool AuthToken::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(user) && stream.Write(target) && stream.Write(tokenType) && stream.Write(accessToken) &&
         stream.Write(expires) && stream.Write(idToken);
}

template <class T>
bool AuthTokenRequest::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(user) && stream.Read(target) && stream.Read(tokenType);
}

template <class T>
bool AuthTokenRequest::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(user) && stream.Write(target) && stream.Write(tokenType);
}

template <class T>
bool AuthTokenList::Read(unsigned long version, base::ReadStream<T>& stream) {
  return stream.ReadListClass(version, static_cast<std::vector<AuthToken>&>(*this));
}

template <class T>
bool AuthTokenList::Write(unsigned long version, base::WriteStream<T>& stream) const {
  const uint32_t count = static_cast<uint32_t>(size());
  if (!stream.Write(count)) return false;
  for (const AuthToken& token : *this) {
    if (!token.Write(version, stream)) return false;
  }
  return true;
}

}  // namespace protocol
}  // namespace apm
