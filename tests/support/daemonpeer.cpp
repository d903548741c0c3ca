#include "tests/support/daemonpeer.h"

#include <boost/filesystem.hpp>
#include <fstream>

#include "base/famerror.h"
#include "base/rootpath.h"
#include "base/rpc/rpcstreamconnection.h"
#include "protocol/rpccloud.h"

namespace apm {
namespace test {

Bytes JsonRequestRecord() {
  protocol::RPCCloudJsonRequest request;
  request.target = 1;
  request.user = "ann";
  request.path = "v1/items";
  request.method = "GET";
  return EncodeRecord(request);
}

namespace {

const char kDaemonTrustFile[] = "/etc/kelvora/ecomm/trusted_certificates.cfg";

// Collects the buffers of one segment.
class SegmentCollector : public base::CLogicalConnectionStreamWriter {
 public:
  explicit SegmentCollector(Bytes& bytes) : bytes_(bytes) {}
  bool Write(const base::CNetworkBuffer* buffer) override {
    bytes_.insert(bytes_.end(), buffer->data, buffer->data + buffer->length);
    return true;
  }

 private:
  Bytes& bytes_;
};

}  // namespace

const TestIdentity& MainServerIdentity() { return GetTestIdentity("mainserver"); }

void TrustAtDaemon(const TestIdentity& identity) {
  const boost::filesystem::path file(base::RootedPath(kDaemonTrustFile));
  boost::filesystem::create_directories(file.parent_path());
  std::ofstream out(file.string(), std::ios::binary | std::ios::app);
  out << identity.fingerprint << " " << identity.cn << "\n";
}

std::string PeerReply::ErrorCode() const {
  const std::string* value = headers.find_value(base::RPC_HEADER_ERROR_CODE);
  return value != nullptr ? *value : std::string();
}

std::string PeerReply::ErrorText() const {
  const std::string* value = headers.find_value(base::RPC_HEADER_ERROR_TEXT);
  return value != nullptr ? *value : std::string();
}

DaemonPeer::DaemonPeer(unsigned short port, const TestIdentity& identity)
    : service_(base::IPhysicalConnection::CreateIOService(2)) {
  base::RPCConnectionParameters parameters;
  parameters.host = "127.0.0.1";
  parameters.port = port;
  parameters.min_version = base::RPC_MINIMUM_VERSION;
  parameters.certificate_file = identity.certificate_file;
  parameters.connect_timeout = 10;
  parameters.ping_interval = 0;
  connection_ = base::IPhysicalConnection::CreateSpdyClientConnection(service_, &factory_, parameters);
}

DaemonPeer::~DaemonPeer() {
  connection_->close(true);
  connection_.reset();
  service_->shutdown();
}

PeerReply DaemonPeer::Call(const base::RPCConnectionHeaders& headers, const Bytes& record, const Bytes* file) {
  PeerReply reply;
  base::FamErrorBase error(true);
  boost::shared_ptr<base::CLogicalConnectionStream> stream = base::CLogicalConnectionStream::create(connection_);
  if (!stream) {
    reply.resetStatus = error.code;
    return reply;
  }
  base::RPCConnectionHeaders sent = headers;
  stream->SendRequestHeaders(sent);
  if (!record.empty()) stream->Write(record.data(), static_cast<unsigned int>(record.size()));
  if (file != nullptr) {
    stream->Flush();
    if (!file->empty()) stream->Write(file->data(), static_cast<unsigned int>(file->size()));
  }
  stream->EndStream();
  reply.headersReceived = stream->ReadResponseHeaders(reply.headers);
  if (!reply.headersReceived) {
    reply.resetStatus = error.code;
    return reply;
  }
  SegmentCollector collector(reply.data);
  error.code = 0;
  if (!stream->Read(collector) || error.code != 0) return reply;
  stream->NextSegment();
  uint8_t byte;
  error.code = -1;
  reply.endedCleanly = !stream->Read(&byte, 1) && error.code == 0;
  return reply;
}

PeerReply DaemonPeer::Call(const std::string& number, const Bytes& record, const Bytes* file) {
  base::RPCConnectionHeaders headers;
  headers[base::RPC_HEADER_CLASS] = "1";
  headers[base::RPC_HEADER_FUNCTION] = number;
  return Call(headers, record, file);
}

}  // namespace test
}  // namespace apm
