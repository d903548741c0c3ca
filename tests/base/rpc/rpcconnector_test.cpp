// Tests of the connecting side's name resolution over real TLS on 127.0.0.1: a
// host with several addresses and a host that does not resolve.
//
// This machine has no name service beyond its hosts file, so the executable brings
// its own getaddrinfo and freeaddrinfo, which take the place of the C library's for
// the whole process. They answer a few made-up names themselves and hand every
// other name to the C library's functions, and they count the questions asked, so
// a test can see that its name was answered here. In the same way the executable's
// connect notes the family and port of every connection attempt before the C
// library's makes it, so a test can see which addresses were tried, in which order.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/error.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcstreamconnection.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/tcpport.h"

namespace {

// Resolves to the IPv6 loopback address, where no test listens (the acceptor is
// IPv4 only), and then to 127.0.0.1.
const char kRefusingFirstHost[] = "refusing-first.test";
// Does not resolve: the answer of a name service that knows no such name.
const char kUnknownHost[] = "no-such-host.test";

std::atomic<int> refusing_first_lookups{0};
std::atomic<int> unknown_host_lookups{0};

typedef int (*GetAddrInfoFunction)(const char*, const char*, const struct addrinfo*, struct addrinfo**);
typedef void (*FreeAddrInfoFunction)(struct addrinfo*);
typedef int (*ConnectFunction)(int, const struct sockaddr*, socklen_t);

// Family and port of each connect of the process, oldest first.
typedef std::vector<std::pair<int, unsigned short>> ConnectAttempts;

std::mutex& ConnectAttemptsMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

ConnectAttempts& AllConnectAttempts() {
  static ConnectAttempts* attempts = new ConnectAttempts;
  return *attempts;
}

// The families of the connect attempts to `port` from the `first`-th attempt on.
std::vector<int> FamiliesTried(unsigned short port, size_t first) {
  std::lock_guard<std::mutex> lock(ConnectAttemptsMutex());
  std::vector<int> families;
  const ConnectAttempts& attempts = AllConnectAttempts();
  for (size_t index = first; index < attempts.size(); ++index) {
    if (attempts[index].second == port) families.push_back(attempts[index].first);
  }
  return families;
}

size_t ConnectAttemptCount() {
  std::lock_guard<std::mutex> lock(ConnectAttemptsMutex());
  return AllConnectAttempts().size();
}

// The address lists made here, so that freeaddrinfo knows its own from the C
// library's. Never destroyed: the resolver thread may outlive static destruction.
std::mutex& OwnListsMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

std::set<const struct addrinfo*>& OwnLists() {
  static std::set<const struct addrinfo*>* lists = new std::set<const struct addrinfo*>;
  return *lists;
}

// One entry of an address list with its socket address in the same allocation.
struct AddressEntry {
  struct addrinfo info;
  struct sockaddr_storage address;
};

AddressEntry* NewEntry(const struct addrinfo* hints, int family) {
  AddressEntry* entry = new AddressEntry();
  entry->info.ai_family = family;
  entry->info.ai_socktype = hints != nullptr && hints->ai_socktype != 0 ? hints->ai_socktype : SOCK_STREAM;
  entry->info.ai_protocol = hints != nullptr && hints->ai_protocol != 0 ? hints->ai_protocol : IPPROTO_TCP;
  entry->info.ai_addr = reinterpret_cast<struct sockaddr*>(&entry->address);
  return entry;
}

// The two addresses of kRefusingFirstHost, in this order, as far as `hints` allow.
int ResolveRefusingFirst(const char* service, const struct addrinfo* hints, struct addrinfo** result) {
  char* end = nullptr;
  unsigned long port = service != nullptr ? std::strtoul(service, &end, 10) : 0;
  if (service == nullptr || *end != '\0' || port > 65535) return EAI_SERVICE;
  const int family = hints != nullptr ? hints->ai_family : AF_UNSPEC;
  struct addrinfo* head = nullptr;
  struct addrinfo** tail = &head;
  if (family == AF_UNSPEC || family == AF_INET6) {
    AddressEntry* entry = NewEntry(hints, AF_INET6);
    struct sockaddr_in6* address = reinterpret_cast<struct sockaddr_in6*>(&entry->address);
    address->sin6_family = AF_INET6;
    address->sin6_port = htons(static_cast<uint16_t>(port));
    address->sin6_addr = in6addr_loopback;
    entry->info.ai_addrlen = sizeof(*address);
    *tail = &entry->info;
    tail = &entry->info.ai_next;
  }
  if (family == AF_UNSPEC || family == AF_INET) {
    AddressEntry* entry = NewEntry(hints, AF_INET);
    struct sockaddr_in* address = reinterpret_cast<struct sockaddr_in*>(&entry->address);
    address->sin_family = AF_INET;
    address->sin_port = htons(static_cast<uint16_t>(port));
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    entry->info.ai_addrlen = sizeof(*address);
    *tail = &entry->info;
  }
  if (head == nullptr) return EAI_FAMILY;
  std::lock_guard<std::mutex> lock(OwnListsMutex());
  OwnLists().insert(head);
  *result = head;
  return 0;
}

}  // namespace

extern "C" int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                           struct addrinfo** result) {
  if (node != nullptr && std::strcmp(node, kRefusingFirstHost) == 0) {
    ++refusing_first_lookups;
    return ResolveRefusingFirst(service, hints, result);
  }
  if (node != nullptr && std::strcmp(node, kUnknownHost) == 0) {
    ++unknown_host_lookups;
    return EAI_NONAME;
  }
  static GetAddrInfoFunction system_getaddrinfo =
      reinterpret_cast<GetAddrInfoFunction>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return system_getaddrinfo(node, service, hints, result);
}

extern "C" void freeaddrinfo(struct addrinfo* list) noexcept {
  {
    std::lock_guard<std::mutex> lock(OwnListsMutex());
    if (OwnLists().erase(list) == 1) {
      while (list != nullptr) {
        struct addrinfo* next = list->ai_next;
        delete reinterpret_cast<AddressEntry*>(list);
        list = next;
      }
      return;
    }
  }
  static FreeAddrInfoFunction system_freeaddrinfo =
      reinterpret_cast<FreeAddrInfoFunction>(dlsym(RTLD_NEXT, "freeaddrinfo"));
  system_freeaddrinfo(list);
}

extern "C" int connect(int descriptor, const struct sockaddr* address, socklen_t length) {
  if (address != nullptr && address->sa_family == AF_INET) {
    std::lock_guard<std::mutex> lock(ConnectAttemptsMutex());
    AllConnectAttempts().emplace_back(AF_INET, ntohs(reinterpret_cast<const struct sockaddr_in*>(address)->sin_port));
  } else if (address != nullptr && address->sa_family == AF_INET6) {
    std::lock_guard<std::mutex> lock(ConnectAttemptsMutex());
    AllConnectAttempts().emplace_back(AF_INET6,
                                      ntohs(reinterpret_cast<const struct sockaddr_in6*>(address)->sin6_port));
  }
  static ConnectFunction system_connect = reinterpret_cast<ConnectFunction>(dlsym(RTLD_NEXT, "connect"));
  return system_connect(descriptor, address, length);
}

namespace apm {
namespace base {
namespace {

using test::RpcTestEnvironment;

typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

// The outcome of a plain TCP connect to the IPv6 loopback address: 0 if it
// connected, else errno.
int ConnectToIpv6Loopback(unsigned short port) {
  int descriptor = socket(AF_INET6, SOCK_STREAM, 0);
  if (descriptor < 0) return errno;
  struct sockaddr_in6 address;
  std::memset(&address, 0, sizeof(address));
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = in6addr_loopback;
  int outcome = ::connect(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
  close(descriptor);
  return outcome;
}

// Serves a request of one byte with a response of the same byte.
void EchoByteHandler(const StreamPtr& stream, const RPCConnectionHeaders& /*headers*/) {
  char byte;
  if (!stream->Read(&byte, 1)) {
    stream->Terminate();
    return;
  }
  RPCConnectionHeaders response;
  stream->SendResponseHeaders(response);
  stream->Write(&byte, 1);
}

class RpcConnectorTest : public ::testing::Test {
 protected:
  RpcConnectorTest()
      : refusing_first_lookups_before(refusing_first_lookups.load()),
        unknown_host_lookups_before(unknown_host_lookups.load()) {}

  int RefusingFirstLookups() const { return refusing_first_lookups.load() - refusing_first_lookups_before; }
  int UnknownHostLookups() const { return unknown_host_lookups.load() - unknown_host_lookups_before; }

  // Skips the test where the IPv6 loopback address does not exist; otherwise
  // expects a connect to it on `port` to be refused.
  bool Ipv6LoopbackRefuses(unsigned short port) {
    int outcome = ConnectToIpv6Loopback(port);
    if (outcome == EAFNOSUPPORT || outcome == EADDRNOTAVAIL || outcome == ENETUNREACH) return false;
    EXPECT_EQ(ECONNREFUSED, outcome);
    return true;
  }

  const int refusing_first_lookups_before;
  const int unknown_host_lookups_before;
  RpcTestEnvironment environment;
};

TEST_F(RpcConnectorTest, SecondAddressIsTriedWhenTheFirstRefuses) {
  environment.server_factory.SetHandler(EchoByteHandler);
  ASSERT_NE(0, environment.StartServer());
  if (!Ipv6LoopbackRefuses(environment.port)) GTEST_SKIP() << "no IPv6 loopback address";
  const size_t attempts_before = ConnectAttemptCount();
  RPCConnectionParameters parameters = environment.ClientParameters(environment.port);
  parameters.host = kRefusingFirstHost;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  EXPECT_EQ(1, RefusingFirstLookups());
  EXPECT_EQ((std::vector<int>{AF_INET6, AF_INET}), FamiliesTried(environment.port, attempts_before));
  EXPECT_EQ("127.0.0.1", connection->get_remote_address());
  stream->SendRequestHeaders(1, 3600);
  ASSERT_TRUE(stream->Write("x", 1));
  stream->EndStream();
  RPCConnectionHeaders headers;
  ASSERT_TRUE(stream->ReadResponseHeaders(headers)) << record.message;
  char byte = 0;
  ASSERT_TRUE(stream->Read(&byte, 1)) << record.message;
  EXPECT_EQ('x', byte);
  EXPECT_EQ(1, environment.server_factory.connections_opened.load());
}

TEST_F(RpcConnectorTest, SecondAddressRunsOnTheTimeoutOfTheFirst) {
  // A connect to the second address, 127.0.0.1, hangs.
  test::UnansweringTcpPort unanswering;
  const unsigned short port = unanswering.port();
  if (!Ipv6LoopbackRefuses(port)) GTEST_SKIP() << "no IPv6 loopback address";
  const size_t attempts_before = ConnectAttemptCount();

  RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.host = kRefusingFirstHost;
  parameters.connect_timeout = 30;  // 300 ms
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  auto elapsed = std::chrono::steady_clock::now() - started;
  // Had the refusal ended the attempt, the text would say "could not connect".
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ(std::string("timeout connecting to ") + kRefusingFirstHost + ":" + std::to_string(port), record.message);
  EXPECT_EQ(1, RefusingFirstLookups());
  EXPECT_EQ((std::vector<int>{AF_INET6, AF_INET}), FamiliesTried(port, attempts_before));
  // One time-out for resolving and both addresses together.
  EXPECT_GE(elapsed, std::chrono::milliseconds(250));
  EXPECT_LT(elapsed, std::chrono::milliseconds(5000));
  EXPECT_TRUE(connection->is_stopped());
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
}

TEST_F(RpcConnectorTest, HostThatDoesNotResolveReportsCouldNotResolve) {
  RPCConnectionParameters parameters = environment.ClientParameters(10003);
  parameters.host = kUnknownHost;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(1, UnknownHostLookups());
  const boost::system::error_code not_found = boost::asio::error::host_not_found;
  EXPECT_EQ(not_found.value(), record.code);
  EXPECT_EQ(std::string("could not resolve host ") + kUnknownHost + ":10003 (" + not_found.message() + ")",
            record.message);
  EXPECT_TRUE(connection->is_stopped());
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
  // A stream asked for later gets the same reason.
  record.code = 0;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(not_found.value(), record.code);
}

}  // namespace
}  // namespace base
}  // namespace apm
