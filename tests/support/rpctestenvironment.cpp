#include "tests/support/rpctestenvironment.h"

#include <signal.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>

#include "base/famerror.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace test {

TestHandlerFactory::~TestHandlerFactory() { JoinHandlers(); }

void TestHandlerFactory::SetDenyConnections(int code, const std::string& text) {
  deny_ = true;
  deny_code_ = code;
  deny_text_ = text;
}

boost::shared_ptr<base::IReceiveStream> TestHandlerFactory::create_client_connection(
    const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/, base::RPCConnectionHeaders& headers,
    const boost::shared_ptr<base::ILogicalConnection>& logical_connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  last_headers = headers;
  if (refuse_ || !handler_) {
    ++streams_refused;
    changed_.notify_all();
    return boost::shared_ptr<base::IReceiveStream>();
  }
  boost::shared_ptr<base::CLogicalConnectionStream> stream = base::CLogicalConnectionStream::create(logical_connection);
  Handler handler = handler_;
  base::RPCConnectionHeaders copy = headers;
  // Counted before the handler starts: a test that has its answer sees the count.
  ++streams_created;
  threads_.emplace_back([handler, stream, copy]() mutable {
    base::FamError record;
    handler(stream, copy);
  });
  changed_.notify_all();
  return stream;
}

bool TestHandlerFactory::connection_opened(const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/) {
  ++connections_opened;
  if (deny_) {
    base::FamError::SetError(deny_code_, deny_text_);
    return false;
  }
  return true;
}

void TestHandlerFactory::connection_closed(const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++connections_closed;
  changed_.notify_all();
}

void TestHandlerFactory::acceptor_closed(const boost::shared_ptr<base::IServerConnection>& /*server*/) {
  ++acceptors_closed;
}

bool TestHandlerFactory::WaitForClosed(int count, int milliseconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                           [&]() { return connections_closed.load() >= count; });
}

bool TestHandlerFactory::WaitForStreams(int count, int milliseconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                           [&]() { return streams_created.load() + streams_refused.load() >= count; });
}

void TestHandlerFactory::JoinHandlers() {
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

RpcTestEnvironment::RpcTestEnvironment() {
  signal(SIGPIPE, SIG_IGN);
  std::string pattern = (boost::filesystem::temp_directory_path() / "ecomm-rpc-XXXXXX").string();
  if (mkdtemp(&pattern[0]) == nullptr) std::abort();
  directory_ = pattern;
  // Made before any thread starts.
  GetTestIdentity("server");
  GetTestIdentity("client");
  GetTestIdentity("rogue");
  WriteTextFile(PathOf("server_trust.cfg"), TrustFileText({&GetTestIdentity("client")}));
  server_service = base::IPhysicalConnection::CreateIOService(2);
  client_service = base::IPhysicalConnection::CreateIOService(2);
}

RpcTestEnvironment::~RpcTestEnvironment() {
  Shutdown();
  boost::system::error_code ignored;
  boost::filesystem::remove_all(directory_, ignored);
}

base::RPCConnectionParameters RpcTestEnvironment::ServerParameters() {
  base::RPCConnectionParameters parameters;
  parameters.min_version = base::RPC_MINIMUM_VERSION;
  parameters.certificate_file = GetTestIdentity("server").certificate_file;
  parameters.trusted_certificates_file = PathOf("server_trust.cfg");
  parameters.timer_unit_milliseconds = 10;
  parameters.connect_timeout = 500;
  parameters.ping_interval = 0;
  return parameters;
}

base::RPCConnectionParameters RpcTestEnvironment::ClientParameters(unsigned short target_port) {
  base::RPCConnectionParameters parameters;
  parameters.host = "127.0.0.1";
  parameters.port = target_port;
  parameters.min_version = base::RPC_MINIMUM_VERSION;
  parameters.certificate_file = GetTestIdentity("client").certificate_file;
  parameters.timer_unit_milliseconds = 10;
  parameters.connect_timeout = 500;
  parameters.ping_interval = 0;
  return parameters;
}

unsigned short RpcTestEnvironment::StartServer(const base::RPCConnectionParameters& parameters) {
  server = base::IServerConnection::CreateSpdyServer(server_service, &server_factory);
  base::FamError record;
  if (!server->bind(parameters)) return 0;
  port = boost::static_pointer_cast<base::CSpdyServerConnection>(server)->get_bound_port();
  return port;
}

boost::shared_ptr<base::IPhysicalConnection> RpcTestEnvironment::Connect(
    const base::RPCConnectionParameters& parameters) {
  boost::shared_ptr<base::IPhysicalConnection> connection =
      base::IPhysicalConnection::CreateSpdyClientConnection(client_service, &client_factory, parameters);
  clients.push_back(connection);
  return connection;
}

void RpcTestEnvironment::Shutdown() {
  if (shut_down_) return;
  shut_down_ = true;
  std::mutex mutex;
  std::condition_variable done_changed;
  bool done = false;
  std::thread watchdog([&]() {
    std::unique_lock<std::mutex> lock(mutex);
    if (!done_changed.wait_for(lock, std::chrono::seconds(30), [&]() { return done; })) {
      std::fprintf(stderr, "RPC test environment did not shut down within 30 s\n");
      std::abort();
    }
  });
  for (auto& client : clients) client->close(true);
  if (server) server->close(false);
  server_factory.JoinHandlers();
  client_factory.JoinHandlers();
  client_service->shutdown();
  server_service->shutdown();
  clients.clear();
  server.reset();
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  done_changed.notify_all();
  watchdog.join();
}

}  // namespace test
}  // namespace apm
