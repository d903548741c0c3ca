// Server-side dispatch of RPCs: from a stream that the peer opened to a call of a
// member function of the server object, and from its result to the response on the
// same stream.
//
// A server keeps a GenericRPCHandlerMap from RPC number to factory. For each new
// stream, ScheduleRPCHandler reads the number from header 2, asks the factory for a
// handler around a new CLogicalConnectionStream and hands the handler to the
// scheduler; the stream goes back to the engine as the receiving end. The handler
// then runs once on a worker: it reads the request record, calls the member
// function, and sends either the response headers and the response record or, when
// the function returned false, headers with the thread's error code and text
// (keys 3 and 4) and no record. Dropping the handler drops the stream, which ends it.
//
// Two shapes of member function are served, selected by the template argument N:
//   1: bool (Server::*)(const Request&, Response&)
//   2: bool (Server::*)(const Request&, Response&, const std::string& file)
// In shape 2 the request record is followed on the stream by a file segment, which
// is copied into a temporary file ("data" prefix, in the temporary directory) for
// the time of the call; `file` is its path, and the file is removed afterwards
// whatever the call returned.
//
// Requirements on the types: Request and Response are default-constructible records
// with `template <class T> bool Read(unsigned long version, ReadStream<T>&)` and
// `template <class T> bool Write(unsigned long version, WriteStream<T>&) const`.
// Server has `CAPMModule* GetModule() const`, the module that the handler's
// instrumentation events are reported under.
//
// Ownership: the map owns its factories; a factory holds the server by plain
// pointer (the server owns the map, so it outlives them). A handler is
// reference-counted: the scheduler holds it until Execute has returned. A handler
// owns its stream and its request and response.
//
// Threads: the map is filled once and then only read, without a lock;
// ScheduleRPCHandler and the factories run on the engine's strand and never block.
// Execute runs on a scheduler worker and blocks in stream reads and writes and in
// the member function for as long as they take. All per-call state is in the
// handler; the server's members are shared by every handler and guard themselves.
#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <type_traits>

#include "base/apmmodule.h"
#include "base/famerror.h"
#include "base/refcounted.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcstreamconnection.h"
#include "base/rpc/streamserializer.h"
#include "base/scheduleditem.h"
#include "base/scheduler.h"
#include "base/thread.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace base {

// Instrumentation events of the dispatch, at level RPC_EVENT_LEVEL_MARSHAL. The
// call itself is reported under the RPC number at RPC_EVENT_LEVEL_CALL.
constexpr unsigned int RPC_EVENT_UNMARSHAL_REQUEST = 10010;
constexpr unsigned int RPC_EVENT_UNMARSHAL_REQUEST_END = 10011;
constexpr unsigned int RPC_EVENT_MARSHAL_RESPONSE = 10020;
constexpr unsigned int RPC_EVENT_MARSHAL_RESPONSE_END = 10021;
constexpr unsigned int RPC_EVENT_REQUEST_FILE = 10040;
constexpr unsigned int RPC_EVENT_REQUEST_FILE_END = 10041;
// The text event of an error that goes back to the peer.
constexpr unsigned int RPC_EVENT_ERROR_TEXT = 0x10001000;
constexpr uint8_t RPC_EVENT_LEVEL_MARSHAL = 60;
constexpr uint8_t RPC_EVENT_LEVEL_CALL = 50;
constexpr uint8_t RPC_EVENT_LEVEL_ERROR_TEXT = 0;

class RPCHandler : public IScheduledItem {
 public:
  ~RPCHandler() override = default;
};

template <class Number>
class GenericRPCHandler : public RPCHandler {
 public:
  ~GenericRPCHandler() override = default;

  // The stream of this call, which the engine feeds.
  virtual boost::shared_ptr<CLogicalConnectionStream> get_stream() { return stream; }
  // Stores the RPC number, the application handle of the instrumentation, the stream
  // and a copy of the request headers.
  virtual void initialize(const Number& rpc_number, unsigned int application_id,
                          boost::shared_ptr<CLogicalConnectionStream>& rpc_stream,
                          const RPCConnectionHeaders& request_headers) {
    number = rpc_number;
    application = application_id;
    stream = rpc_stream;
    headers = request_headers;
  }

  // An instrumentation thread handle that Execute attaches in place of the context
  // of header 100; 0 for none.
  void set_thread_context(uint64_t context) { thread_context = context; }

 protected:
  // Names the worker thread "RPC" and the number, and attaches the caller's
  // instrumentation context: the thread handle if one was given (used once), else
  // the 16 bytes of header 100 if the request has them.
  void enter_thread() {
    Thread::SetName(("RPC" + std::to_string(static_cast<unsigned long>(number))).c_str());
    if (thread_context != 0) {
      APMAttachThread(thread_context);
      thread_context = 0;
      return;
    }
    const std::string* context = headers.find_value(RPC_HEADER_CONTEXT);
    if (context != nullptr && context->size() == sizeof(APMContext)) APMAttachContext(application, context->data());
  }

  uint64_t thread_context = 0;
  boost::shared_ptr<CLogicalConnectionStream> stream;
  RPCConnectionHeaders headers;
  Number number = 0;
  unsigned int application = 0;
};

template <class Number>
class GenericRPCHandlerFactory {
 public:
  virtual ~GenericRPCHandlerFactory() = default;
  // A new handler with a new stream around `connection`, initialized and not yet
  // scheduled; null if none could be made.
  virtual CRefPtr<GenericRPCHandler<Number>> create_rpc_handler(
      const Number& number, unsigned int application, const RPCConnectionHeaders& headers,
      const boost::shared_ptr<ILogicalConnection>& connection) = 0;
};

// The table of a server: RPC number to factory. Owns the factories.
template <class Number>
class GenericRPCHandlerMap : private boost::noncopyable {
 public:
  typedef GenericRPCHandlerFactory<Number> Factory;

  GenericRPCHandlerMap() = default;
  ~GenericRPCHandlerMap() {
    for (auto& entry : factories) delete entry.second;
  }

  // Enters `factory` under `number`. Two factories for one number are a programming
  // error that must not survive start-up: the process aborts.
  void add(const Number& number, Factory* const& factory) {
    if (!factories.insert(std::make_pair(number, factory)).second) std::abort();
  }
  // The factory of `number`, or null if there is none.
  Factory* find(const Number& number) const {
    typename std::map<Number, Factory*>::const_iterator entry = factories.find(number);
    return entry == factories.end() ? nullptr : entry->second;
  }

 private:
  std::map<Number, Factory*> factories;
};

// The way from a stream opened by the peer to a scheduled handler, for a server's
// create_client_connection: header 2 holds the RPC number in decimal, cut to 16 bits
// ("69136" is 3600); header 1 is not consulted. The handler is scheduled at once and
// may start before this returns. The result is the handler's stream, or empty (which
// refuses the stream) when header 2 is missing or not a number, when the number has
// no factory, or when no handler could be made.
boost::shared_ptr<IReceiveStream> ScheduleRPCHandler(const GenericRPCHandlerMap<unsigned short>& handlers,
                                                     Scheduler& scheduler, unsigned int application,
                                                     const RPCConnectionHeaders& headers,
                                                     const boost::shared_ptr<ILogicalConnection>& connection);

namespace detail {

// The request and response types of a member function, and its shape.
template <class Method>
struct RPCMethodTraits;

template <class Server, class Request_, class Response_>
struct RPCMethodTraits<bool (Server::*)(const Request_&, Response_&)> {
  static constexpr int shape = 1;
  typedef Request_ Request;
  typedef Response_ Response;
};

template <class Server, class Request_, class Response_>
struct RPCMethodTraits<bool (Server::*)(const Request_&, Response_&, const std::string&)> {
  static constexpr int shape = 2;
  typedef Request_ Request;
  typedef Response_ Response;
};

// Instrumentation event with one unsigned 64-bit value.
void RPCEventWithValue(unsigned int module, unsigned int event, uint8_t flags, uint64_t value);
// The file segment behind the request: from the end of the record's segment into a
// new temporary file, whose path goes to `path` (cleared if none could be made).
// True if the file was made, received and closed; the reason of a failure is on the
// thread's error record. A stream that was reset in the middle of the file still
// gives true, with the reset on the record and a short file.
bool ReceiveRequestFile(CLogicalConnectionStream& stream, unsigned int module, std::string& path);
// Response headers: empty when the call succeeded; otherwise with the code and text
// of `scope` under keys 3 and 4, after a text event of the error.
void SendRPCResponseHeaders(CLogicalConnectionStream& stream, unsigned int module, bool succeeded,
                            const FamErrorBase& scope);
// Removes the temporary file of a call, if there is one.
void RemoveRequestFile(const std::string& path);

template <int N, class Server, class Method>
class RPCHandlerImpl : public GenericRPCHandler<unsigned short>, private boost::noncopyable {
 public:
  typedef typename RPCMethodTraits<Method>::Request Request;
  typedef typename RPCMethodTraits<Method>::Response Response;
  static_assert(RPCMethodTraits<Method>::shape == N, "the shape does not match the member function");

  RPCHandlerImpl(Server* rpc_server, Method rpc_method) : server(rpc_server), method(rpc_method) {}

  void Execute() override;

 private:
  typedef std::integral_constant<int, N> Shape;

  // The call of shape 1: the record in, the record out.
  bool Call(std::integral_constant<int, 1>, unsigned int module, std::string& /*path*/) {
    APMEvent(module, number, RPC_EVENT_LEVEL_CALL, APM_EVENT_BEGIN);
    const bool result = (server->*method)(request, response);
    APMEvent(module, number, RPC_EVENT_LEVEL_CALL, APM_EVENT_END);
    return result;
  }

  // The call of shape 2: the file segment first, then the call with its path. Without
  // the file the call counts as failed, with the reason on the error record.
  bool Call(std::integral_constant<int, 2>, unsigned int module, std::string& path) {
    if (!ReceiveRequestFile(*stream, module, path)) {
      APMEvent(module, number, RPC_EVENT_LEVEL_CALL, APM_EVENT_SINGLE);
      return false;
    }
    APMEvent(module, number, RPC_EVENT_LEVEL_CALL, APM_EVENT_BEGIN);
    const bool result = (server->*method)(request, response, path);
    APMEvent(module, number, RPC_EVENT_LEVEL_CALL, APM_EVENT_END);
    return result;
  }

  Server* server;
  Method method;
  Request request;
  Response response;
};

template <int N, class Server, class Method>
void RPCHandlerImpl<N, Server, Method>::Execute() {
  enter_thread();
  // From here on this thread's errors land in `scope`; its code and text are what
  // a failed call sends back.
  FamErrorBase scope(false);
  const unsigned int module = server->GetModule()->moduleId;
  CLogicalConnectionStream& connection = *stream;

  APMEvent(module, RPC_EVENT_UNMARSHAL_REQUEST, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_BEGIN);
  ReadStream<CLogicalConnectionStream> reader(connection);
  if (!request.Read(connection.GetVersion(), reader)) {
    // A request that cannot be read gets no response headers: the stream is reset.
    APMEvent(module, RPC_EVENT_UNMARSHAL_REQUEST_END, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_END_FAILED);
    APMEvent(module, number, RPC_EVENT_LEVEL_CALL, APM_EVENT_SINGLE);
    connection.Terminate();
  } else {
    RPCEventWithValue(module, RPC_EVENT_UNMARSHAL_REQUEST_END, APM_EVENT_END, connection.GetTotalReceived());
    std::string path;
    const bool succeeded = Call(Shape(), module, path);
    SendRPCResponseHeaders(connection, module, succeeded, scope);
    if (succeeded) {
      APMEvent(module, RPC_EVENT_MARSHAL_RESPONSE, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_BEGIN);
      WriteStream<CLogicalConnectionStream> writer(connection);
      if (response.Write(connection.GetVersion(), writer)) {
        RPCEventWithValue(module, RPC_EVENT_MARSHAL_RESPONSE_END, APM_EVENT_END, connection.GetTotalSent());
      } else {
        APMEvent(module, RPC_EVENT_MARSHAL_RESPONSE_END, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_END_FAILED);
      }
    }
    RemoveRequestFile(path);
  }
  APMReleaseContext(nullptr);
  // What is buffered goes out when the scheduler drops the handler and with it the
  // stream: the last data frame, then the end of the stream.
}

template <int N, class Server, class Method>
class RPCHandlerFactoryImpl : public GenericRPCHandlerFactory<unsigned short> {
 public:
  RPCHandlerFactoryImpl(Server* rpc_server, Method rpc_method) : server(rpc_server), method(rpc_method) {}

  CRefPtr<GenericRPCHandler<unsigned short>> create_rpc_handler(
      const unsigned short& number, unsigned int application, const RPCConnectionHeaders& headers,
      const boost::shared_ptr<ILogicalConnection>& connection) override {
    boost::shared_ptr<CLogicalConnectionStream> stream = CLogicalConnectionStream::create(connection);
    if (!stream) return CRefPtr<GenericRPCHandler<unsigned short>>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler(new RPCHandlerImpl<N, Server, Method>(server, method));
    handler->initialize(number, application, stream, headers);
    return handler;
  }

 private:
  Server* server;
  Method method;
};

}  // namespace detail

// A factory for the table: MakeRPCHandlerFactory<1>(this, &Server::Function).
template <int N, class Server, class Method>
GenericRPCHandlerFactory<unsigned short>* MakeRPCHandlerFactory(Server* server, Method method) {
  return new detail::RPCHandlerFactoryImpl<N, Server, Method>(server, method);
}

}  // namespace base
}  // namespace apm
