#include "tests/support/tcpport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace apm {
namespace test {

namespace {

const int kNotListening = -1;

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::abort();
}

// A socket bound to an ephemeral port of the IPv4 `host` (host byte order),
// listening with `backlog` unless that is kNotListening; the port goes to `port`.
int BindEphemeral(uint32_t host, int backlog, unsigned short& port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(host);
  socklen_t length = sizeof(address);
  if (descriptor < 0 || bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      (backlog != kNotListening && listen(descriptor, backlog) != 0) ||
      getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Fail("cannot bind an ephemeral TCP port");
  }
  port = ntohs(address.sin_port);
  return descriptor;
}

}  // namespace

unsigned short FreeTcpPort() {
  unsigned short port = 0;
  close(BindEphemeral(INADDR_ANY, kNotListening, port));
  return port;
}

bool IsTcpPortListening(unsigned short port) {
  // Lines: "sl local_address rem_address st ...", addresses as "HEXIP:HEXPORT",
  // state 0A being LISTEN.
  std::ifstream table("/proc/net/tcp");
  std::string line;
  std::getline(table, line);
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state;
    fields >> slot >> local >> remote >> state;
    const std::string::size_type colon = local.find(':');
    if (colon == std::string::npos || state != "0A") continue;
    if (std::strtoul(local.c_str() + colon + 1, nullptr, 16) == port) return true;
  }
  return false;
}

HeldTcpPort::HeldTcpPort() { descriptor_ = BindEphemeral(INADDR_ANY, 1, port_); }

void HeldTcpPort::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

UnansweringTcpPort::UnansweringTcpPort() {
  listener_ = BindEphemeral(INADDR_LOOPBACK, 0, port_);
  filler_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port_);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (filler_ < 0 || connect(filler_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    Fail("cannot fill the accept queue of a TCP port");
  }
}

UnansweringTcpPort::~UnansweringTcpPort() {
  close(filler_);
  close(listener_);
}

}  // namespace test
}  // namespace apm
