// TCP ports of this machine for tests that run servers as other processes: a port
// that is free, whether a port is being listened on, and a port held by a listening
// socket of the test so that nobody else can bind it.
//
// Plain functions and a small owner of one socket; thread-safe as far as the system
// calls are.
#pragma once

namespace apm {
namespace test {

// A TCP port that was free on all IPv4 interfaces a moment ago: bound with port 0
// and released again.
unsigned short FreeTcpPort();

// True while a socket of this machine listens on the IPv4 TCP `port`, as
// /proc/net/tcp shows it.
bool IsTcpPortListening(unsigned short port);

// A socket listening on an ephemeral port of all IPv4 interfaces until Close or
// destruction. Aborts the test process if it cannot be made.
class HeldTcpPort {
 public:
  HeldTcpPort();
  ~HeldTcpPort() { Close(); }
  HeldTcpPort(const HeldTcpPort&) = delete;
  HeldTcpPort& operator=(const HeldTcpPort&) = delete;

  unsigned short port() const { return port_; }
  void Close();

 private:
  int descriptor_ = -1;
  unsigned short port_ = 0;
};

}  // namespace test
}  // namespace apm
