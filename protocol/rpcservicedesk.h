// The records of the service-desk RPCs.
//
// SWTServiceDeskSendFileRequest (RPC 3604) names a service desk and a user; the
// saved session to be sent follows the record as the RPC's file segment.
// SWTServiceDeskSendResponse returns the link to the ticket made.
// InfrastructureTestServiceDeskRequest (RPC 3603) carries the settings of a service
// desk as one whole element record (header and fields), so that a desk can be
// tested before the server has stored it; InfrastructureTestResponse tells the
// outcome.
//
// Plain values, not thread-safe. They read and write themselves in field order on
// any stream type that ReadStream and WriteStream accept; the version is the peer's
// and is only handed on.
#pragma once

#include <cstdint>
#include <string>

#include "base/refcounted.h"
#include "base/rpc/streamserializer.h"
#include "protocol/cisservicedesk.h"

namespace apm {
namespace protocol {

class SWTServiceDeskSendFileRequest {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint32_t id = 0;   // the service desk
  std::string user;  // the user on whose behalf the ticket is made
};

class SWTServiceDeskSendResponse {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  std::string link;  // link to the ticket, empty if there is none
};

class InfrastructureTestServiceDeskRequest {
 public:
  // Starts with a fresh service desk of default fields, which Read fills.
  InfrastructureTestServiceDeskRequest() : serviceDesk(new CISServiceDesk) {}

  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  // The desk under test; never null. Copies of the request share it.
  base::CRefPtr<CISServiceDesk> serviceDesk;
};

class InfrastructureTestResponse {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint32_t status = 0;  // 0 on success
  std::string message;
};

template <class T>
bool SWTServiceDeskSendFileRequest::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(id) && stream.Read(user);
}

template <class T>
bool SWTServiceDeskSendFileRequest::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(id) && stream.Write(user);
}

template <class T>
bool SWTServiceDeskSendResponse::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(link);
}

template <class T>
bool SWTServiceDeskSendResponse::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(link);
}

template <class T>
bool InfrastructureTestServiceDeskRequest::Read(unsigned long version, base::ReadStream<T>& stream) {
  return serviceDesk->Read(version, stream);
}

template <class T>
bool InfrastructureTestServiceDeskRequest::Write(unsigned long version, base::WriteStream<T>& stream) const {
  return serviceDesk->Write(version, stream);
}

template <class T>
bool InfrastructureTestResponse::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(status) && stream.Read(message);
}

template <class T>
bool InfrastructureTestResponse::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(status) && stream.Write(message);
}

}  // namespace protocol
}  // namespace apm
