// CISServiceDesk: a service desk of the infrastructure, where tickets made from
// saved telemetry sessions go. `type` says which kind of desk it is and how the
// other fields are used: "norvanta_servicedesk" is a SOAP service described by the
// WSDL at `url`; "norvanta_cloud_ticketing_app" is a JSON and WebDAV service of a
// cloud target named by `url`. Further settings of a desk stand in `properties`.
//
// The wire record is the element header followed by the nine strings in the order
// of the fields below. Like every element it is immutable after decoding and shared
// by CRefPtr; see protocol/ciselement.h.
#pragma once

#include <string>

#include "protocol/ciselement.h"

namespace apm {
namespace protocol {

class CISServiceDesk : public CISElement {
 public:
  // "ServiceDeskNorvantaCloudTicketing" for the type "norvanta_cloud_ticketing_app",
  // "ServiceDesk" for any other type.
  std::string GetClassName() const override;

  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  std::string type;
  std::string url;
  std::string authtype;
  std::string username;
  std::string password;
  std::string certificate;
  std::string proxyServer;
  std::string proxyUsername;
  std::string proxyPassword;
};

template <class T>
bool CISServiceDesk::Read(unsigned long version, base::ReadStream<T>& stream) {
  return ReadHeader(version, stream) && stream.Read(type) && stream.Read(url) && stream.Read(authtype) &&
         stream.Read(username) && stream.Read(password) && stream.Read(certificate) &&
         stream.Read(proxyServer) && stream.Read(proxyUsername) && stream.Read(proxyPassword);
}

template <class T>
bool CISServiceDesk::Write(unsigned long version, base::WriteStream<T>& stream) const {
  return WriteHeader(version, stream) && stream.Write(type) && stream.Write(url) && stream.Write(authtype) &&
         stream.Write(username) && stream.Write(password) && stream.Write(certificate) &&
         stream.Write(proxyServer) && stream.Write(proxyUsername) && stream.Write(proxyPassword);
}

}  // namespace protocol
}  // namespace apm
