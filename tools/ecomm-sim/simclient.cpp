#include "tools/ecomm-sim/simclient.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/famerror.h"
#include "base/jsonparser.h"
#include "base/jsonvalue.h"
#include "base/strtools.h"
#include "protocol/rpcauthtoken.h"
#include "protocol/rpccloud.h"
#include "protocol/rpcservicedesk.h"
#include "tools/ecomm-sim/simidentity.h"

namespace apm {
namespace tools {

namespace {

const char kPropertiesPrefix[] = "properties.";

// Takes the fields of a request record by name, noting which were used and which
// could not be converted.
class FieldReader {
 public:
  explicit FieldReader(const SimFields& fields) : fields_(fields) {}

  void Text(const char* name, std::string& value) {
    const std::string* found = Find(name);
    if (found != nullptr) value = *found;
  }
  void Number(const char* name, uint32_t& value) {
    const std::string* found = Find(name);
    unsigned int number;
    if (found == nullptr) return;
    if (base::StringToInt(*found, number)) {
      value = number;
    } else {
      Invalid(name);
    }
  }
  void Number(const char* name, uint64_t& value) {
    const std::string* found = Find(name);
    unsigned long number;
    if (found == nullptr) return;
    if (base::StringToInt(*found, number)) {
      value = number;
    } else {
      Invalid(name);
    }
  }
  void Properties(base::ParameterMap& properties) {
    for (const auto& field : fields_) {
      if (field.first.compare(0, sizeof kPropertiesPrefix - 1, kPropertiesPrefix) != 0) continue;
      properties[field.first.substr(sizeof kPropertiesPrefix - 1)] = field.second;
      used_.push_back(field.first);
    }
  }
  // True if every field was used and converted; else `error` names the first that
  // was not.
  bool Finish(std::string& error) const {
    if (!error_.empty()) {
      error = error_;
      return false;
    }
    for (const auto& field : fields_) {
      bool used = false;
      for (const std::string& name : used_) used = used || name == field.first;
      if (!used) {
        error = "unknown field \"" + field.first + "\"";
        return false;
      }
    }
    return true;
  }

 private:
  const std::string* Find(const char* name) {
    used_.push_back(name);
    SimFields::const_iterator field = fields_.find(name);
    return field == fields_.end() ? nullptr : &field->second;
  }
  void Invalid(const char* name) {
    if (error_.empty()) error_ = std::string("field \"") + name + "\" is no number";
  }

  const SimFields& fields_;
  std::vector<std::string> used_;
  std::string error_;
};

void BuildRequest(FieldReader& reader, protocol::RPCCloudJsonRequest& request) {
  reader.Number("target", request.target);
  reader.Text("user", request.user);
  reader.Text("path", request.path);
  reader.Text("method", request.method);
  reader.Text("contentType", request.contentType);
  reader.Text("body", request.body);
}

void BuildRequest(FieldReader& reader, protocol::RPCCloudHttpRequest& request) {
  reader.Number("target", request.target);
  reader.Text("user", request.user);
  reader.Text("path", request.path);
  reader.Text("method", request.method);
  reader.Text("contentType", request.contentType);
}

void BuildRequest(FieldReader& reader, protocol::AuthToken& request) {
  reader.Text("user", request.user);
  reader.Number("target", request.target);
  reader.Text("tokenType", request.tokenType);
  reader.Text("accessToken", request.accessToken);
  reader.Number("expires", request.expires);
  reader.Text("idToken", request.idToken);
}

void BuildRequest(FieldReader& reader, protocol::InfrastructureTestServiceDeskRequest& request) {
  protocol::CISServiceDesk& desk = *request.serviceDesk;
  reader.Number("id", desk.id);
  reader.Text("name", desk.name);
  reader.Number("status", desk.status);
  reader.Text("reference", desk.reference);
  reader.Properties(desk.properties);
  reader.Text("type", desk.type);
  reader.Text("url", desk.url);
  reader.Text("authtype", desk.authtype);
  reader.Text("username", desk.username);
  reader.Text("password", desk.password);
  reader.Text("certificate", desk.certificate);
  reader.Text("proxyServer", desk.proxyServer);
  reader.Text("proxyUsername", desk.proxyUsername);
  reader.Text("proxyPassword", desk.proxyPassword);
}

void BuildRequest(FieldReader& reader, protocol::SWTServiceDeskSendFileRequest& request) {
  reader.Number("id", request.id);
  reader.Text("user", request.user);
}

void FormatResponse(const protocol::RPCCloudJsonResponse& response, base::JsonValueObject& json) {
  json.setValue("status", response.status);
  json.setValue("statusText", response.statusText);
  json.setValue("contentType", response.contentType);
  json.setValue("body", response.body);
}

void FormatResponse(const protocol::AuthTokenList& response, base::JsonValueObject& json) {
  base::CRefPtr<base::JsonValueArray> tokens(new base::JsonValueArray);
  for (const protocol::AuthToken& token : response) {
    base::CRefPtr<base::JsonValueObject> entry(new base::JsonValueObject);
    entry->setValue("user", token.user);
    entry->setValue("target", token.target);
    entry->setValue("tokenType", token.tokenType);
    entry->setValue("accessToken", token.accessToken);
    entry->setValue("expires", static_cast<unsigned long>(token.expires));
    entry->setValue("idToken", token.idToken);
    tokens->appendValue(entry.get());
  }
  json.setValue("tokens", tokens.get());
}

void FormatResponse(const protocol::InfrastructureTestResponse& response, base::JsonValueObject& json) {
  json.setValue("status", response.status);
  json.setValue("message", response.message);
}

void FormatResponse(const protocol::SWTServiceDeskSendResponse& response, base::JsonValueObject& json) {
  json.setValue("link", response.link);
}

std::string FormatError(int code, const std::string& text) {
  char number[16];
  std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned int>(code));
  return std::string("error ") + number + ": " + text;
}

template <base::rpc_kind_t Kind, class Request, class Response>
SimCallResult Call(SimClientSession& session, unsigned short rpc, const SimFields& fields,
                   const std::string& attachment, std::string& output, std::string& error) {
  Request request;
  FieldReader reader(fields);
  BuildRequest(reader, request);
  if (!reader.Finish(error)) return kSimCallInvalid;
  Response response;
  base::FamErrorBase record(true);
  if (!session.ExecuteRPC<Kind>(rpc, request, response, &attachment, nullptr, nullptr, 60)) {
    error = FormatError(record.code, record.message);
    return kSimCallFailed;
  }
  base::JsonValueObject json;
  FormatResponse(response, json);
  std::ostringstream text;
  base::JsonSerializationContext context;
  json.serializeCtx(text, context);
  output = text.str();
  return kSimCallDone;
}

bool ReadTextFile(const std::string& path, std::string& content) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  std::ostringstream text;
  text << file.rdbuf();
  content = text.str();
  return true;
}

}  // namespace

bool ReadFieldsFromJson(const std::string& json, SimFields& fields, std::string& error) {
  base::FamErrorBase record(true);
  base::CRefPtr<base::JsonValueObject> object;
  if (!base::JsonParser::parse(json, object)) {
    error = record.message.empty() ? "the request is no JSON object" : record.message;
    return false;
  }
  for (const auto& member : object->values) {
    const base::JsonValueType type = member.second->getType();
    if (member.first == "properties" && type == base::json_type_object) {
      for (const auto& property : member.second->toObject()->values) {
        fields[kPropertiesPrefix + property.first] = property.second->getString();
      }
    } else if (type == base::json_type_string || type == base::json_type_number) {
      fields[member.first] = member.second->getString();
    } else {
      error = "field \"" + member.first + "\" is neither a string nor a number";
      return false;
    }
  }
  return true;
}

void AddFieldArgument(const std::string& argument, SimFields& fields) {
  const size_t equals = argument.find('=');
  fields[argument.substr(0, equals)] = equals == std::string::npos ? std::string() : argument.substr(equals + 1);
}

SimClientManager::SimClientManager(const base::RPCConnectionParameters& parameters)
    : SPDYRPCClientSessionManager(base::IPhysicalConnection::CreateIOService(1)), parameters_(parameters) {}

SimClientManager::~SimClientManager() { stop(); }

bool SimClientManager::get_connection_parameters(unsigned int /*target*/,
                                                 base::RPCConnectionParameters& parameters) {
  parameters = parameters_;
  return true;
}

SimClientSession::SimClientSession(SimClientManager* manager) : SPDYRPCClientSession(nullptr, 0, manager) {}

SimCallResult CallDaemon(SimClientSession& session, unsigned short rpc, const SimFields& fields,
                         const std::string& attachment, std::string& output, std::string& error) {
  switch (rpc) {
    case 3600:
      return Call<base::RPC_KIND_RECORD, protocol::RPCCloudJsonRequest, protocol::RPCCloudJsonResponse>(
          session, rpc, fields, attachment, output, error);
    case 3601:
      return Call<base::RPC_KIND_REQUEST_FILE, protocol::RPCCloudHttpRequest, protocol::RPCCloudJsonResponse>(
          session, rpc, fields, attachment, output, error);
    case 3602:
      return Call<base::RPC_KIND_RECORD, protocol::AuthToken, protocol::AuthTokenList>(session, rpc, fields,
                                                                                        attachment, output, error);
    case 3603:
      return Call<base::RPC_KIND_RECORD, protocol::InfrastructureTestServiceDeskRequest,
                  protocol::InfrastructureTestResponse>(session, rpc, fields, attachment, output, error);
    case 3604:
      return Call<base::RPC_KIND_REQUEST_FILE, protocol::SWTServiceDeskSendFileRequest,
                  protocol::SWTServiceDeskSendResponse>(session, rpc, fields, attachment, output, error);
    default:
      error = "RPC " + std::to_string(rpc) + " is not one of the daemon's";
      return kSimCallInvalid;
  }
}

int RunCallCommand(const SimOptions& options, std::ostream& out, std::ostream& err) {
  std::string error;
  SimIdentity identity;
  if (!EnsureSimIdentity(options.certificateDirectory, identity, error) || !RegisterWithDaemon(identity, error)) {
    err << "ecomm-sim: " << error << std::endl;
    return kSimCallInvalid;
  }
  SimFields fields;
  if (!options.requestFile.empty()) {
    std::string json;
    if (!ReadTextFile(options.requestFile, json)) {
      err << "ecomm-sim: cannot read \"" << options.requestFile << "\"" << std::endl;
      return kSimCallInvalid;
    }
    if (!ReadFieldsFromJson(json, fields, error)) {
      err << "ecomm-sim: " << options.requestFile << ": " << error << std::endl;
      return kSimCallInvalid;
    }
  }
  for (const std::string& field : options.fields) AddFieldArgument(field, fields);

  base::RPCConnectionParameters parameters;
  parameters.host = options.host;
  parameters.port = options.port;
  parameters.connect_timeout = options.connectTimeout;
  parameters.certificate_file = identity.certificateFile;
  SimClientManager manager(parameters);
  SimClientSession session(&manager);
  std::string output;
  const SimCallResult result = CallDaemon(session, options.rpc, fields, options.attachment, output, error);
  if (result == kSimCallDone) {
    out << output << std::endl;
  } else {
    err << (result == kSimCallInvalid ? "ecomm-sim: " : "") << error << std::endl;
  }
  return result;
}

}  // namespace tools
}  // namespace apm
