// DaemonPeer: the main server's side of the daemon's RPC port, for tests that run
// the real daemon binary. It opens one connection with the project's own transport
// (a client connection over TLS and the version exchange, presenting a test
// identity) and makes calls on it with any headers and any record bytes, then
// reports what came back: the response headers, the RST_STREAM status that ended
// the stream instead, the bytes of the response record, and whether the stream
// ended in order (end of segment, then end of stream).
//
// The daemon accepts a client only if its certificate's fingerprint is listed in
// "/etc/kelvora/ecomm/trusted_certificates.cfg"; TrustAtDaemon puts it there (under
// the current ECOMM_ROOT) before the connection is made.
//
//   test::TrustAtDaemon(test::MainServerIdentity());
//   test::DaemonPeer peer(port);
//   test::PeerReply reply = peer.Call("3600", test::EncodeRecord(request));
//   EXPECT_EQ(reply.headers.at(base::RPC_HEADER_ERROR_TEXT), "not implemented");
//
// The peer owns its I/O service (two threads) and its connection; streams the daemon
// might open towards it are refused. Call may be used from many threads at once, each
// call on a stream of its own over the shared connection. The destructor closes the
// connection and joins the I/O threads; no call may be running then.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>

#include "base/rpc/rpcconnection.h"
#include "tests/support/fakebytestream.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace test {

// The identity the main server's side presents to the daemon.
const TestIdentity& MainServerIdentity();

// Appends "fingerprint cn" of `identity` to the daemon's trust file,
// "/etc/kelvora/ecomm/trusted_certificates.cfg" under the current ECOMM_ROOT,
// making its folder if needed.
void TrustAtDaemon(const TestIdentity& identity);

// A complete request record of RPC 3600 (target 1, user "ann", GET "v1/items"),
// for tests that need any well-formed call to reach its handler.
Bytes JsonRequestRecord();

// What one call got back.
struct PeerReply {
  // Whether the daemon answered with response headers (SYN_REPLY), and which.
  bool headersReceived = false;
  base::RPCConnectionHeaders headers;
  // Without headers: the code on the record when reading them failed, which for a
  // stream the daemon reset is the RST_STREAM status (3 refused, 5 cancelled).
  int resetStatus = 0;
  // The bytes of the first segment behind the headers: the response record.
  Bytes data;
  // The record's segment ended, and then the stream, without an error.
  bool endedCleanly = false;

  // The error headers of a failed call: key 3 and key 4, or empty strings.
  std::string ErrorCode() const;
  std::string ErrorText() const;
};

class DaemonPeer {
 public:
  // Starts connecting to 127.0.0.1:`port` presenting `identity`; the first call
  // waits for the outcome.
  explicit DaemonPeer(unsigned short port, const TestIdentity& identity = MainServerIdentity());
  ~DaemonPeer();
  DaemonPeer(const DaemonPeer&) = delete;
  DaemonPeer& operator=(const DaemonPeer&) = delete;

  // Opens a stream with `headers` exactly as given, sends `record` as the first
  // segment and, with `file`, the file as a second segment, ends the sending side and
  // collects the reply. A connection that cannot be opened gives a reply without
  // headers and with the connection's error code.
  PeerReply Call(const base::RPCConnectionHeaders& headers, const Bytes& record, const Bytes* file = nullptr);
  // The same with key 1 "1" and key 2 `number`.
  PeerReply Call(const std::string& number, const Bytes& record, const Bytes* file = nullptr);

  const boost::shared_ptr<base::IPhysicalConnection>& connection() const { return connection_; }

 private:
  TestHandlerFactory factory_;  // without a handler: refuses the daemon's streams
  boost::shared_ptr<base::IConnectionIOService> service_;
  boost::shared_ptr<base::IPhysicalConnection> connection_;
};

}  // namespace test
}  // namespace apm
