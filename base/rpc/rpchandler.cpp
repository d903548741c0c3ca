#include "base/rpc/rpchandler.h"

#include <sys/stat.h>
#include <unistd.h>

#include "base/directory.h"
#include "base/file.h"
#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

// The prefix of the temporary files that take a request's file segment.
const char kRequestFilePrefix[] = "data";

}  // namespace

boost::shared_ptr<IReceiveStream> ScheduleRPCHandler(const GenericRPCHandlerMap<unsigned short>& handlers,
                                                     Scheduler& scheduler, unsigned int application,
                                                     const RPCConnectionHeaders& headers,
                                                     const boost::shared_ptr<ILogicalConnection>& connection) {
  const std::string* function = headers.find_value(RPC_HEADER_FUNCTION);
  if (function == nullptr) return boost::shared_ptr<IReceiveStream>();
  unsigned short number;
  if (!StringToInt(*function, number)) return boost::shared_ptr<IReceiveStream>();
  GenericRPCHandlerFactory<unsigned short>* factory = handlers.find(number);
  if (factory == nullptr) return boost::shared_ptr<IReceiveStream>();
  CRefPtr<GenericRPCHandler<unsigned short>> handler =
      factory->create_rpc_handler(number, application, headers, connection);
  if (!handler) return boost::shared_ptr<IReceiveStream>();
  // The engine has stored the stream id already, so the handler may send at once.
  scheduler.ScheduleOnce(handler.get(), 0);
  return handler->get_stream();
}

namespace detail {

void RPCEventWithValue(unsigned int module, unsigned int event, uint8_t flags, uint64_t value) {
  const uint8_t typeCodes[1] = {APM_ARG_UINT64};
  APMEventArgs(module, event, RPC_EVENT_LEVEL_MARSHAL, flags, 1, typeCodes, &value, sizeof(value));
}

bool ReceiveRequestFile(CLogicalConnectionStream& stream, unsigned int module, std::string& path) {
  APMEvent(module, RPC_EVENT_REQUEST_FILE, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_BEGIN);
  const uint64_t receivedBefore = stream.GetTotalReceived();
  // Past the end of the record's segment; whatever the record left unread there is
  // thrown away.
  stream.NextSegment();
  bool arrived = false;
  File file;
  if (file.CreateTemporaryFile(Directory(Directory::GetTemporaryPath(true)), kRequestFilePrefix, path, 0)) {
    arrived = stream.ReadFile(file);
    if (!file.Close()) arrived = false;
  }
  if (arrived) {
    RPCEventWithValue(module, RPC_EVENT_REQUEST_FILE_END, APM_EVENT_END, stream.GetTotalReceived() - receivedBefore);
  } else {
    APMEvent(module, RPC_EVENT_REQUEST_FILE_END, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_END_FAILED);
  }
  return arrived;
}

void SendRPCResponseHeaders(CLogicalConnectionStream& stream, unsigned int module, bool succeeded,
                            const FamErrorBase& scope) {
  RPCConnectionHeaders headers;
  if (!succeeded) {
    APMEventStr(module, RPC_EVENT_ERROR_TEXT, RPC_EVENT_LEVEL_ERROR_TEXT, APM_EVENT_ERROR, scope.message.c_str());
    headers.set<unsigned int>(RPC_HEADER_ERROR_CODE, static_cast<unsigned int>(scope.code));
    headers[RPC_HEADER_ERROR_TEXT] = scope.message;
  }
  stream.SendResponseHeaders(headers);
}

void RemoveRequestFile(const std::string& path) {
  struct stat status;
  if (!path.empty() && stat(path.c_str(), &status) == 0) unlink(path.c_str());
}

}  // namespace detail

}  // namespace base
}  // namespace apm
