// The records of the impersonated cloud requests, RPCs 3600 and 3601: the main
// server asks this daemon to call a cloud service on behalf of a user, and gets the
// service's status, content type and body back whatever the status is.
//
// RPCCloudJsonRequest (RPC 3600) carries the body as a string. RPCCloudHttpRequest
// (RPC 3601) has the same fields without the body, which follows the record as the
// RPC's file segment. RPCCloudJsonResponse is the response of both.
//
// Plain values, not thread-safe. They read and write themselves in field order on
// any stream type that ReadStream and WriteStream accept; the version is the peer's
// and is only handed on.
#pragma once

#include <cstdint>
#include <string>

#include "base/rpc/streamserializer.h"

namespace apm {
namespace protocol {

class RPCCloudJsonRequest {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint32_t target = 0;      // id of the configuration object of the cloud target
  std::string user;         // the user to act for
  std::string path;         // below the target's "service_uri", without a leading "/"
  std::string method;       // HTTP method
  std::string contentType;  // content type of the body; may be empty
  std::string body;         // may be empty
};

class RPCCloudHttpRequest {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint32_t target = 0;
  std::string user;
  std::string path;
  std::string method;
  std::string contentType;
};

class RPCCloudJsonResponse {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint32_t status = 0;      // HTTP status code of the service
  std::string statusText;   // its text, empty for codes without one
  std::string contentType;  // empty if the service sent none
  std::string body;
};

template <class T>
bool RPCCloudJsonRequest::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(target) && stream.Read(user) && stream.Read(path) && stream.Read(method) &&
         stream.Read(contentType) && stream.Read(body);
}

template <class T>
bool RPCCloudJsonRequest::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(target) && stream.Write(user) && stream.Write(path) && stream.Write(method) &&
         stream.Write(contentType) && stream.Write(body);
}

template <class T>
bool RPCCloudHttpRequest::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(target) && stream.Read(user) && stream.Read(path) && stream.Read(method) &&
         stream.Read(contentType);
}

template <class T>
bool RPCCloudHttpRequest::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(target) && stream.Write(user) && stream.Write(path) && stream.Write(method) &&
         stream.Write(contentType);
}

template <class T>
bool RPCCloudJsonResponse::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(status) && stream.Read(statusText) && stream.Read(contentType) && stream.Read(body);
}

template <class T>
bool RPCCloudJsonResponse::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(status) && stream.Write(statusText) && stream.Write(contentType) && stream.Write(body);
}

}  // namespace protocol
}  // namespace apm
