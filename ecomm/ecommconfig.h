// EcommConfig: the daemon's numbered configuration settings. Each identifier maps to
// an ordered list of (file, key) attempts and a default; the first attempt that
// succeeds ends the search. The files are "ecomm.conf" of this daemon and
// "server.conf" of the main server, read afresh at every lookup (base/config.h).
//
// One process-wide instance, made on first use by GetEcommConfig() and destroyed at
// exit. Thread-safe: lookups share no state.
#pragma once

#include <string>

#include "base/config.h"

namespace apm {
namespace ecomm {

class EcommConfig {
 public:
  // Integer settings.
  static constexpr unsigned int kServerPort = 10;  // port of the main server, default 10000
  static constexpr unsigned int kListenPort = 30;  // port this daemon listens on, default 10003
  // String settings.
  static constexpr unsigned int kServerHost = 11;  // host of the main server, default "127.0.0.1"
  static constexpr unsigned int kListenHost = 41;  // default "0.0.0.0"; the listener takes no host
  static constexpr unsigned int kClientCertificateFile = 100;
  static constexpr unsigned int kClientCertificateCiphers = 101;
  static constexpr unsigned int kServerCertificateFile = 105;
  static constexpr unsigned int kServerCertificateCiphers = 106;
  static constexpr unsigned int kTrustedCertificatesFile = 107;
  // The identifier the daemon's start-up asks for the listen host. It is not served,
  // so the host handed to the server stays empty.
  static constexpr unsigned int kStartupListenHost = 31;

  EcommConfig();
  EcommConfig(const EcommConfig&) = delete;
  EcommConfig& operator=(const EcommConfig&) = delete;

  // False for an identifier not served here, `value` then unchanged. True for a
  // served one, with the default filled in when no attempt succeeded.
  bool GetConfigValue(unsigned int id, unsigned int& value);
  bool GetConfigValue(unsigned int id, std::string& value);

 private:
  base::Config ecommConfig_;
  base::Config ecommConfigSecond_;
  base::Config serverConfig_;
};

// The process-wide instance.
EcommConfig* GetEcommConfig();

}  // namespace ecomm
}  // namespace apm
