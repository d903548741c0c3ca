// TCP ports of this machine for tests: a port that is free, whether a port is being
// listened on, a port held by a listening socket of the test so that nobody else can
// bind it, and a port of 127.0.0.1 that never answers a further connect.
//
// Plain functions and small owners of their sockets; thread-safe as far as the
// system calls are.
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

// A listener on an ephemeral port of 127.0.0.1 whose accept queue is full: it
// listens with backlog 0 and holds one connection of its own that it never
// accepts, so the system drops further connection requests and a connect to the
// port hangs until the connecting side gives up. Both sockets are closed on
// destruction. Aborts the test process if it cannot be made.
class UnansweringTcpPort {
 public:
  UnansweringTcpPort();
  ~UnansweringTcpPort();
  UnansweringTcpPort(const UnansweringTcpPort&) = delete;
  UnansweringTcpPort& operator=(const UnansweringTcpPort&) = delete;

  unsigned short port() const { return port_; }

 private:
  int listener_ = -1;
  int filler_ = -1;
  unsigned short port_ = 0;
};

}  // namespace test
}  // namespace apm
