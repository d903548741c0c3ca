#include "base/rpc/rpcspdyserverconnection.h"

#include <fcntl.h>

#include <boost/asio/post.hpp>
#include <vector>

#include "base/famerror.h"
#include "base/trace.h"

namespace apm {
namespace base {

CSpdyServerConnection::CSpdyServerConnection(const boost::shared_ptr<CConnectionIOService>& service,
                                             IConnectionHandlerFactory* factory)
    : service(service),
      handler_factory(factory),
      io_service(service->get_io_service()),
      strand(boost::asio::make_strand(io_service.get_executor())),
      acceptor_v4(io_service),
      acceptor_v6(io_service) {}

CSpdyServerConnection::~CSpdyServerConnection() = default;

boost::shared_ptr<IServerConnection> IServerConnection::CreateSpdyServer(
    const boost::shared_ptr<IConnectionIOService>& service, IConnectionHandlerFactory* factory) {
  return boost::shared_ptr<IServerConnection>(
      new CSpdyServerConnection(boost::static_pointer_cast<CConnectionIOService>(service), factory));
}

bool CSpdyServerConnection::bind(const RPCConnectionParameters& new_parameters) {
  boost::shared_ptr<CSpdyServerConnection> self = shared_from_this();
  boost::asio::post(strand, [self, new_parameters]() { self->handle_bind(new_parameters); });
  boost::system::error_code error;
  {
    ConditionVariable::ScopedLock lock(condition);
    while (!bind_done) condition.Wait();
    if (bound) return true;
    error = last_error;
  }
  if (error) {
    FamError::SetError(error.value(), error.message());
  } else {
    FamError::SetError(E_FAIL_CODE, "not connected");
  }
  return false;
}

unsigned short CSpdyServerConnection::get_bound_port() {
  ConditionVariable::ScopedLock lock(condition);
  return bound ? bound_port : 0;
}

void CSpdyServerConnection::close(bool force) {
  boost::shared_ptr<CSpdyServerConnection> self = shared_from_this();
  boost::asio::post(strand, [self, force]() { self->handle_close(force); });
}

void CSpdyServerConnection::unregister(unsigned int key) {
  boost::shared_ptr<CSpdyServerConnection> self = shared_from_this();
  boost::asio::post(strand, [self, key]() { self->handle_unregister(key); });
}

void CSpdyServerConnection::handle_bind(const RPCConnectionParameters& new_parameters) {
  {
    ConditionVariable::ScopedLock lock(condition);
    if (bound) return;
  }
  parameters = new_parameters;
  binding = true;
  namespace ip = boost::asio::ip;
  boost::system::error_code error;
  if (acceptor_v4.is_open()) {
    finish_bind(boost::asio::error::already_open);
    return;
  }
  if (acceptor_v4.open(ip::tcp::v4(), error)) {
    finish_bind(error);
    return;
  }
  if (acceptor_v4.set_option(ip::tcp::acceptor::reuse_address(true), error)) {
    finish_bind(error);
    return;
  }
  fcntl(acceptor_v4.native_handle(), F_SETFD, FD_CLOEXEC);
  // All interfaces, whatever host is configured.
  if (acceptor_v4.bind(ip::tcp::endpoint(ip::address_v4::any(), static_cast<unsigned short>(parameters.port)),
                       error)) {
    finish_bind(error);
    return;
  }
  if (acceptor_v4.listen(128, error)) {
    finish_bind(error);
    return;
  }
  finish_bind(boost::system::error_code());
  start_accept_v4();
}

void CSpdyServerConnection::finish_bind(const boost::system::error_code& error) {
  unsigned short port = 0;
  if (!error) {
    boost::system::error_code ignored;
    port = acceptor_v4.local_endpoint(ignored).port();
  } else {
    boost::system::error_code ignored;
    acceptor_v4.close(ignored);
  }
  binding = false;
  ConditionVariable::ScopedLock lock(condition);
  if (error) last_error = error;
  bound = !error;
  bound_port = port;
  bind_done = true;
  condition.WakeupAll();
}

void CSpdyServerConnection::start_accept_v4() {
  if (!acceptor_v4.is_open()) return;
  const uint32_t key = next_key++;
  boost::shared_ptr<CSpdySslConnection> connection;
  std::string failure;
  {
    FamError scope;
    connection = CSpdySslConnection::create(service, handler_factory, shared_from_this(), key, parameters);
    if (!connection->init_socket(true)) failure = scope.message;
  }
  if (!failure.empty() || !connection) {
    std::string text = "unable to create server connection: " + failure;
    logargs(2, 1, 1, "Message: %s", text.c_str());
    boost::system::error_code ignored;
    acceptor_v4.close(ignored);
    if (handler_factory != nullptr) handler_factory->acceptor_closed(shared_from_this());
    return;
  }
  connections[key] = connection;
  boost::shared_ptr<CSpdyServerConnection> self = shared_from_this();
  acceptor_v4.async_accept(connection->lowest_layer(),
                           boost::asio::bind_executor(strand, [self, connection](const boost::system::error_code& error) {
                             self->handle_accept_v4(connection, error);
                           }));
}

void CSpdyServerConnection::handle_accept_v4(const boost::shared_ptr<CSpdySslConnection>& connection,
                                             const boost::system::error_code& error) {
  if (!error) {
    connection->start_server();
    start_accept_v4();
  } else if (error != boost::asio::error::operation_aborted) {
    start_accept_v4();
  }
}

void CSpdyServerConnection::handle_close(bool force) {
  closed = true;
  boost::system::error_code ignored;
  acceptor_v4.close(ignored);
  acceptor_v6.close(ignored);
  std::vector<boost::shared_ptr<CSpdyConnection>> live;
  for (auto& entry : connections) {
    if (boost::shared_ptr<CSpdyConnection> connection = entry.second.lock()) live.push_back(connection);
  }
  for (auto& connection : live) connection->close(force);
}

void CSpdyServerConnection::handle_unregister(unsigned int key) { connections.erase(key); }

}  // namespace base
}  // namespace apm
