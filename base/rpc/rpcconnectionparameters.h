// RPCConnectionParameters: the settings of one RPC connection, passed by value into
// every connection and acceptor, which keep a copy of their own; and the version
// numbers that the version exchange at the start of a connection carries.
//
// A version is one unsigned 64-bit number of four 16-bit fields, most significant
// first: major, minor, 0, build. Versions are compared as whole numbers.
// A plain value: not thread-safe, copied freely.
#pragma once

#include <cstdint>
#include <string>

namespace apm {
namespace base {

// This system's own version, 15.3.0.24531.
constexpr uint64_t RPC_LOCAL_VERSION = 0xf000300005fd3ull;
// The lowest peer version accepted, 15.2.0.22542: what every user puts in
// `min_version`.
constexpr uint64_t RPC_MINIMUM_VERSION = 0xf00020000580eull;

struct RPCConnectionParameters {
  // Host to connect to; the acceptor listens on all IPv4 interfaces whatever it says.
  std::string host;
  uint32_t port = 0;
  // Identifies this connection to the peer in the version exchange.
  uint32_t connection_id = 0;
  // Lowest peer version accepted.
  uint64_t min_version = 0;
  // Time-out of connecting, TLS and the version exchange together; 0: none.
  uint32_t connect_timeout = 10;
  // Interval of the keep-alive ping; 0: no pings.
  uint32_t ping_interval = 30;
  // One PEM file with the certificate and its RSA private key; empty: no TLS
  // configuration at all (no certificate presented, no peer verification).
  std::string certificate_file;
  // File of trusted certificate fingerprints; empty: any peer certificate is accepted.
  std::string trusted_certificates_file;
  // OpenSSL cipher list; empty: the library's default.
  std::string cipher_list;
  // An empty trusted file takes the first certificate it meets.
  bool trust_first_certificate = false;
  // Length in milliseconds of the unit of `connect_timeout` and `ping_interval`:
  // a second. Tests shorten it to run the timers quickly; nothing else changes it.
  uint32_t timer_unit_milliseconds = 1000;
};

}  // namespace base
}  // namespace apm
