#include "tools/ecomm-sim/simdata.h"

#include <fstream>
#include <sstream>

#include "base/famerror.h"
#include "base/jsonparser.h"
#include "base/jsonvalue.h"
#include "base/strtools.h"

namespace apm {
namespace tools {

namespace {

// Reads the members of one JSON object into typed fields, remembering which
// members were used, so that unknown names can be refused.
class MemberReader {
 public:
  MemberReader(const base::JsonValueObject& object, const std::string& where) : object_(object), where_(where) {}

  bool Text(const char* name, std::string& value) {
    used_.push_back(name);
    base::CRefPtr<base::JsonValue> member;
    if (!object_.getValue(name, member)) return true;
    value = member->getString();
    return true;
  }
  template <class Number>
  bool Integer(const char* name, Number& value) {
    used_.push_back(name);
    base::CRefPtr<base::JsonValue> member;
    if (!object_.getValue(name, member)) return true;
    unsigned long number;
    if (!base::StringToInt(member->getString(), number)) return Fail(std::string("\"") + name + "\" is no number");
    value = static_cast<Number>(number);
    return true;
  }
  bool Properties(const char* name, base::ParameterMap& properties) {
    used_.push_back(name);
    base::CRefPtr<base::JsonValueObject> members;
    if (!object_.getValue(name, members)) return true;
    for (const auto& member : members->values) properties[member.first] = member.second->getString();
    return true;
  }
  // A member read by other means.
  void Known(const char* name) { used_.push_back(name); }
  // False for a member that no call above asked for.
  bool CheckAllUsed() {
    for (const auto& member : object_.values) {
      bool known = false;
      for (const std::string& name : used_) known = known || name == member.first;
      if (!known) return Fail("unknown member \"" + member.first + "\"");
    }
    return true;
  }
  const std::string& error() const { return error_; }

 private:
  bool Fail(const std::string& text) {
    error_ = where_ + ": " + text;
    return false;
  }

  const base::JsonValueObject& object_;
  std::string where_;
  std::vector<std::string> used_;
  std::string error_;
};

bool ReadServiceDesk(const base::JsonValueObject& object, protocol::CISServiceDesk& desk, std::string& error) {
  MemberReader reader(object, "service desk");
  const bool read =
      reader.Integer("id", desk.id) && reader.Text("name", desk.name) && reader.Integer("status", desk.status) &&
      reader.Integer("timestamp", desk.timestamp) && reader.Integer("changeServer", desk.changeServer) &&
      reader.Integer("changeTime", desk.changeTime) && reader.Text("reference", desk.reference) &&
      reader.Properties("properties", desk.properties) && reader.Text("type", desk.type) &&
      reader.Text("url", desk.url) && reader.Text("authtype", desk.authtype) &&
      reader.Text("username", desk.username) && reader.Text("password", desk.password) &&
      reader.Text("certificate", desk.certificate) && reader.Text("proxyServer", desk.proxyServer) &&
      reader.Text("proxyUsername", desk.proxyUsername) && reader.Text("proxyPassword", desk.proxyPassword) &&
      reader.CheckAllUsed();
  if (!read) error = reader.error();
  return read;
}

bool ReadToken(const base::JsonValueObject& object, protocol::AuthToken& token, std::string& error) {
  MemberReader reader(object, "token");
  const bool read = reader.Text("user", token.user) && reader.Integer("target", token.target) &&
                    reader.Text("tokenType", token.tokenType) && reader.Text("accessToken", token.accessToken) &&
                    reader.Integer("expires", token.expires) && reader.Text("idToken", token.idToken) &&
                    reader.CheckAllUsed();
  if (!read) error = reader.error();
  return read;
}

// The objects of the array member `name`; an absent member is an empty array.
bool ObjectsOf(const base::JsonValueObject& document, const char* name,
               std::vector<base::CRefPtr<base::JsonValueObject>>& objects, std::string& error) {
  base::CRefPtr<base::JsonValue> member;
  if (!document.getValue(name, member)) return true;
  base::JsonValueArray* array = member->toArray();
  if (array == nullptr) {
    error = std::string("\"") + name + "\" is no array";
    return false;
  }
  for (const base::CRefPtr<base::JsonValue>& element : array->values) {
    base::JsonValueObject* object = element->toObject();
    if (object == nullptr) {
      error = std::string("an element of \"") + name + "\" is no object";
      return false;
    }
    objects.push_back(object);
  }
  return true;
}

}  // namespace

bool SimData::Load(const std::string& json, std::string& error) {
  base::FamErrorBase record(true);
  base::CRefPtr<base::JsonValueObject> document;
  if (!base::JsonParser::parse(json, document)) {
    error = record.message.empty() ? "the document is no JSON object" : record.message;
    return false;
  }
  MemberReader reader(*document, "document");
  std::vector<base::CRefPtr<base::JsonValueObject>> desks;
  std::vector<base::CRefPtr<base::JsonValueObject>> tokens;
  if (!reader.Integer("changeCounter", changeCounter_) || !reader.Integer("generation", generation_) ||
      !reader.Integer("maxid", maxid_)) {
    error = reader.error();
    return false;
  }
  reader.Known("serviceDesks");
  reader.Known("tokens");
  if (!ObjectsOf(*document, "serviceDesks", desks, error) || !ObjectsOf(*document, "tokens", tokens, error)) {
    return false;
  }
  if (!reader.CheckAllUsed()) {
    error = reader.error();
    return false;
  }
  serviceDesks_.clear();
  for (const base::CRefPtr<base::JsonValueObject>& object : desks) {
    base::CRefPtr<protocol::CISServiceDesk> desk(new protocol::CISServiceDesk);
    if (!ReadServiceDesk(*object, *desk, error)) return false;
    serviceDesks_.push_back(desk);
  }
  std::lock_guard<std::mutex> lock(tokenMutex_);
  tokens_.clear();
  for (const base::CRefPtr<base::JsonValueObject>& object : tokens) {
    protocol::AuthToken token;
    if (!ReadToken(*object, token, error)) return false;
    tokens_.push_back(token);
  }
  return true;
}

bool SimData::LoadFile(const std::string& path, std::string& error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = "cannot read \"" + path + "\"";
    return false;
  }
  std::ostringstream content;
  content << file.rdbuf();
  return Load(content.str(), error);
}

void SimData::GetInfrastructure(const protocol::InfrastructureGetInfoRequest& request,
                                protocol::InfrastructureGetInfoResponse& response) const {
  response.changeCounter = changeCounter_;
  response.generation = generation_;
  response.maxid = maxid_;
  const bool current = request.changeCounter == changeCounter_ && request.generation == generation_;
  if (!current) response.infrastructure.serviceDesks = serviceDesks_;
}

void SimData::StoreToken(const protocol::AuthToken& token) {
  std::lock_guard<std::mutex> lock(tokenMutex_);
  for (protocol::AuthToken& stored : tokens_) {
    if (stored.user == token.user && stored.target == token.target && stored.tokenType == token.tokenType) {
      stored = token;
      return;
    }
  }
  tokens_.push_back(token);
}

protocol::AuthTokenList SimData::FindTokens(const protocol::AuthTokenRequest& request) const {
  protocol::AuthTokenList found;
  std::lock_guard<std::mutex> lock(tokenMutex_);
  for (const protocol::AuthToken& token : tokens_) {
    if (token.user == request.user && token.target == request.target &&
        (request.tokenType.empty() || token.tokenType == request.tokenType)) {
      found.push_back(token);
    }
  }
  return found;
}

}  // namespace tools
}  // namespace apm
