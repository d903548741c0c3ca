// The calling side of RPCs: a manager that keeps one outgoing connection per target
// and makes it anew when it has died, and a small session object through which code
// makes one synchronous call at a time.
//
// SPDYRPCClientSessionManager<Server, MinVersion> owns the pool of I/O threads of its
// connections (when `owns_service`) and a table from target id to connection. A
// derived class (Server, the manager of one kind of peer) says where a target is by
// get_connection_parameters. get_connection hands out the table's connection, or
// starts a new one when there is none or the one there has stopped; it does not wait
// for the outcome, so callers that arrive during an attempt share it, and the first
// stream on it reports whether connecting worked. There is no retry and no back-off:
// every call that finds no usable connection makes one attempt. stop() closes every
// connection and shuts the I/O threads down; afterwards nothing new is handed out.
//
// SPDYRPCClientSession<Manager> is a cheap object made on the stack for a piece of
// work: module, target and manager, nothing else. ExecuteRPC opens a stream on the
// manager's connection, writes the request record (and, for RPC_KIND_REQUEST_FILE,
// a file as the second segment), ends its side of the stream, waits for the response
// headers and reads the response record. There is no call time-out: a call waits
// until it is answered or the connection fails. Failures are false with the reason
// on the thread's error record: the connector's text, the stream's reset status, or
// the code and text that the peer sent under header keys 3 and 4.
//
// CAPMWaitScope reports a wait on the instrumentation library: begin-of-wait when
// made, end-of-wait when destroyed.
//
// Threads: any number of threads may call ExecuteRPC at once, each on its own
// stream of the shared connection. The manager's `mutex` guards `connections` and
// `stopped`; connection_closed takes it on an I/O thread, so nothing done under it
// waits for an I/O thread, and stop() closes connections outside it. A derived
// manager calls stop() in its own destructor, so that no I/O thread calls into the
// object while it is torn down.
#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>

#include "base/apmmodule.h"
#include "base/criticalsection.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpchandler.h"
#include "base/rpc/rpcstreamconnection.h"
#include "base/rpc/streamserializer.h"
#include "base/stream.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace base {

// Instrumentation events of the calling side, at level RPC_EVENT_LEVEL_MARSHAL.
constexpr unsigned int RPC_EVENT_MARSHAL_REQUEST = 10000;
constexpr unsigned int RPC_EVENT_MARSHAL_REQUEST_END = 10001;
constexpr unsigned int RPC_EVENT_UNMARSHAL_RESPONSE = 10030;
constexpr unsigned int RPC_EVENT_UNMARSHAL_RESPONSE_END = 10031;

// The request class sent under header key 1.
constexpr unsigned short RPC_REQUEST_CLASS = 1;

// What a call carries: a record in and a record out, or a record and a file in (the
// file as the stream's second segment) and a record out.
enum rpc_kind_t { RPC_KIND_RECORD = 0, RPC_KIND_REQUEST_FILE = 1 };

class CAPMWaitScope : private boost::noncopyable {
 public:
  // Reports the begin of a wait (flag 5) for `event` now, its end (flag 6) when the
  // scope is left, by whatever way.
  CAPMWaitScope(unsigned int module, unsigned int event, uint8_t level);
  ~CAPMWaitScope();

 private:
  unsigned int module;
  unsigned int event;
  uint8_t level;
};

// Whether response `headers` report a failed call: key 4 is there and key 3 reads
// as an unsigned number. Then a text event of the message goes out under `module`
// and the code and text go to the thread's error record. Key 4 without a usable
// key 3 is no error.
bool TakeRPCErrorResponse(const RPCConnectionHeaders& headers, unsigned int module);

// Sends the file at `path` as the stream's next segment, behind the request record,
// between the events "Request File" and "Request File End". False, with the reason
// on the thread's error record, if the file cannot be read; the stream is then
// reset.
bool SendRequestFile(CLogicalConnectionStream& stream, unsigned int module, const std::string& path);

template <class Server, uint64_t MinVersion>
class SPDYRPCClientSessionManager : public IClientConnectionHandlerFactory {
 public:
  typedef std::map<unsigned int, boost::shared_ptr<IPhysicalConnection>> ConnectionMap;

  // Runs its connections on `io_service`, which stop() shuts down.
  explicit SPDYRPCClientSessionManager(const boost::shared_ptr<IConnectionIOService>& io_service)
      : service(io_service), owns_service(true) {}
  // Stops, if that has not happened yet.
  ~SPDYRPCClientSessionManager() override { stop(); }

  // Nobody opens streams towards this side: a stream from the peer is refused.
  boost::shared_ptr<IReceiveStream> create_client_connection(
      const boost::shared_ptr<IPhysicalConnection>& /*connection*/, RPCConnectionHeaders& /*headers*/,
      const boost::shared_ptr<ILogicalConnection>& /*logical_connection*/) override {
    return boost::shared_ptr<IReceiveStream>();
  }
  // On the connection's strand: forgets the connection if its target's entry still
  // holds this very connection; an entry that already holds a newer one stays.
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>& connection) override;
  void acceptor_closed(const boost::shared_ptr<IServerConnection>& /*server*/) override {}

  // Where `target` is and how to reach it; false for an unknown target.
  virtual bool get_connection_parameters(unsigned int target, RPCConnectionParameters& parameters) = 0;
  // The connection to `target`: the one in the table unless it has stopped, else a
  // new one that has begun connecting. Empty after stop(), or with the error
  // 0x80004005 "Invalid target." when get_connection_parameters refuses.
  virtual boost::shared_ptr<IPhysicalConnection> get_connection(unsigned int target);

  // Closes every connection, shuts the I/O threads down (waiting for the
  // connections to finish closing) and hands out nothing afterwards. Must not be
  // called on one of the manager's I/O threads.
  void stop();

 protected:
  boost::shared_ptr<IConnectionIOService> service;
  bool owns_service;
  bool stopped = false;
  ConnectionMap connections;
  CriticalSection mutex;
};

template <class Manager>
class SPDYRPCClientSession : private boost::noncopyable {
 public:
  SPDYRPCClientSession(CAPMModule* session_module, uint32_t session_target, Manager* session_manager)
      : module(session_module), target(session_target), manager(session_manager) {}
  virtual ~SPDYRPCClientSession() = default;

  // Calls RPC `rpc` on the target with `request` and fills `response`. For
  // RPC_KIND_REQUEST_FILE `request_file` names the file sent behind the record;
  // otherwise it is not read, nor are `response_file`, `stream` and `timeout`.
  template <rpc_kind_t Kind, class Request, class Response>
  bool ExecuteRPC(unsigned short rpc, const Request& request, Response& response, const std::string* request_file,
                  std::string* response_file, IStream* stream, unsigned int timeout);

 protected:
  CAPMModule* module;
  uint32_t target;
  Manager* manager;
};

template <class Server, uint64_t MinVersion>
void SPDYRPCClientSessionManager<Server, MinVersion>::connection_closed(
    const boost::shared_ptr<IPhysicalConnection>& connection) {
  const unsigned int target = connection->get_connection_id();
  CriticalSection::ScopedLock lock(mutex);
  typename ConnectionMap::iterator entry = connections.find(target);
  if (entry != connections.end() && entry->second.get() == connection.get()) connections.erase(entry);
}

template <class Server, uint64_t MinVersion>
boost::shared_ptr<IPhysicalConnection> SPDYRPCClientSessionManager<Server, MinVersion>::get_connection(
    unsigned int target) {
  CriticalSection::ScopedLock lock(mutex);
  boost::shared_ptr<IPhysicalConnection>& entry = connections[target];
  // The only test of a connection's health: the next caller after a failure
  // gets a new connection.
  if (entry && entry->is_stopped()) entry.reset();
  if (entry || stopped) return entry;

  RPCConnectionParameters parameters;
  if (!get_connection_parameters(target, parameters)) {
    FamErrorBase::SetError(E_FAIL_CODE, "Invalid target.", nullptr);
    return entry;
  }
  parameters.connection_id = target;
  parameters.min_version = MinVersion;
  entry = IPhysicalConnection::CreateSpdyClientConnection(service, this, parameters);
  return entry;
}

template <class Server, uint64_t MinVersion>
void SPDYRPCClientSessionManager<Server, MinVersion>::stop() {
  ConnectionMap closing;
  {
    CriticalSection::ScopedLock lock(mutex);
    closing.swap(connections);
    stopped = true;
  }
  // Outside the mutex: a closing connection reports on an I/O thread, which takes it.
  for (typename ConnectionMap::value_type& entry : closing) {
    if (entry.second) entry.second->close(false);
  }
  if (owns_service && service) service->shutdown();
}

template <class Manager>
template <rpc_kind_t Kind, class Request, class Response>
bool SPDYRPCClientSession<Manager>::ExecuteRPC(unsigned short rpc, const Request& request, Response& response,
                                               const std::string* request_file, std::string* /*response_file*/,
                                               IStream* /*stream*/, unsigned int /*timeout*/) {
  const unsigned int module_id = module != nullptr ? module->moduleId : 0;
  CAPMWaitScope wait(module_id, rpc, RPC_EVENT_LEVEL_CALL);

  boost::shared_ptr<IPhysicalConnection> connection = manager->get_connection(target);
  if (!connection) return false;
  // Waits for the outcome of connecting and for a stream id.
  boost::shared_ptr<CLogicalConnectionStream> call = CLogicalConnectionStream::create(connection);
  if (!call) return false;
  call->SendRequestHeaders(RPC_REQUEST_CLASS, rpc);

  APMEvent(module_id, RPC_EVENT_MARSHAL_REQUEST, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_BEGIN);
  WriteStream<CLogicalConnectionStream> writer(*call);
  if (!request.Write(call->GetVersion(), writer)) {
    APMEvent(module_id, RPC_EVENT_MARSHAL_REQUEST_END, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_END_FAILED);
    call->Terminate();
    return false;
  }
  {
    // The request's end, its file and the end of the stream leave in as few writes
    // as they fit in.
    SendBatch batch;
    call->Flush();
    detail::RPCEventWithValue(module_id, RPC_EVENT_MARSHAL_REQUEST_END, APM_EVENT_END, call->GetTotalSent());
    if (Kind == RPC_KIND_REQUEST_FILE && !SendRequestFile(*call, module_id, *request_file)) return false;
    // The request side is closed before the response is awaited.
    call->EndStream();
  }

  RPCConnectionHeaders headers;
  if (!call->ReadResponseHeaders(headers)) return false;
  if (TakeRPCErrorResponse(headers, module_id)) return false;

  APMEvent(module_id, RPC_EVENT_UNMARSHAL_RESPONSE, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_BEGIN);
  ReadStream<CLogicalConnectionStream> reader(*call);
  if (!response.Read(call->GetVersion(), reader)) {
    APMEvent(module_id, RPC_EVENT_UNMARSHAL_RESPONSE_END, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_END_FAILED);
    return false;
  }
  detail::RPCEventWithValue(module_id, RPC_EVENT_UNMARSHAL_RESPONSE_END, APM_EVENT_END, call->GetTotalReceived());
  // Dropping the stream releases whatever is left unread, acknowledging it to the peer.
  return true;
}

}  // namespace base
}  // namespace apm
