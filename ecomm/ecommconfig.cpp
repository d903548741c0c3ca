#include "ecomm/ecommconfig.h"

#include "base/directory.h"

namespace apm {
namespace ecomm {

namespace {

const char kDefaultServerHost[] = "127.0.0.1";
const char kAnyAddress[] = "0.0.0.0";
const char kDefaultCiphers[] = "ECDHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES128-GCM-SHA256";
const unsigned int kDefaultServerPort = 10000;
const unsigned int kDefaultListenPort = 10003;

// A file in the daemon's own configuration folder, made on the way if missing.
std::string LocalConfigFile(const char* name) {
  return base::_Directory<base::_apm_traits_os>::GetLocalAppConfigPath(true) + name;
}

// For settings whose empty value counts as missing: true if `key` has a non-empty value.
bool FoundNonEmpty(const base::Config& config, const char* key, std::string& value) {
  return config.GetConfigValue(key, value) && !value.empty();
}

}  // namespace

EcommConfig::EcommConfig()
    : ecommConfig_("ecomm.conf"), ecommConfigSecond_("ecomm.conf"), serverConfig_("server.conf") {}

bool EcommConfig::GetConfigValue(unsigned int id, unsigned int& value) {
  switch (id) {
    case kServerPort:
      if (!ecommConfig_.GetConfigValue("ServerPort", value) &&
          !serverConfig_.GetConfigValue("ListenPort", value) &&
          !ecommConfigSecond_.GetConfigValue("ServerPort", value)) {
        value = kDefaultServerPort;
      }
      return true;
    case kListenPort:
      if (!ecommConfig_.GetConfigValue("ListenPort", value) &&
          !serverConfig_.GetConfigValue("EcommPort", value) &&
          !ecommConfigSecond_.GetConfigValue("EcommPort", value)) {
        value = kDefaultListenPort;
      }
      return true;
    default:
      return false;
  }
}

bool EcommConfig::GetConfigValue(unsigned int id, std::string& value) {
  switch (id) {
    case kServerHost:
      if (!ecommConfig_.GetConfigValue("ServerHost", value) &&
          !serverConfig_.GetConfigValue("ListenHost", value)) {
        value = kDefaultServerHost;
      }
      // The main server listening on all interfaces is reached on the loopback.
      if (value == kAnyAddress) value = kDefaultServerHost;
      return true;
    case kListenHost:
      ecommConfig_.GetConfigValue("ListenHost", value, kAnyAddress);
      return true;
    case kClientCertificateFile:
      if (!FoundNonEmpty(ecommConfig_, "ClientCertificateFile", value)) value = LocalConfigFile("cli_certificate.pem");
      return true;
    case kClientCertificateCiphers:
      if (!FoundNonEmpty(ecommConfig_, "ClientCertificateCiphers", value)) value = kDefaultCiphers;
      return true;
    case kServerCertificateFile:
      if (!FoundNonEmpty(ecommConfig_, "ServerCertificateFile", value)) value = LocalConfigFile("srv_certificate.pem");
      return true;
    case kServerCertificateCiphers:
      if (!FoundNonEmpty(ecommConfig_, "ServerCertificateCiphers", value)) value = kDefaultCiphers;
      return true;
    case kTrustedCertificatesFile:
      if (!FoundNonEmpty(ecommConfig_, "ServerTrustedCertificatesFile", value)) {
        value = LocalConfigFile("trusted_certificates.cfg");
      }
      return true;
    default:
      return false;
  }
}

EcommConfig* GetEcommConfig() {
  static EcommConfig instance;
  return &instance;
}

}  // namespace ecomm
}  // namespace apm
