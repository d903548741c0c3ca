// The TLS identity of ecomm-sim: a self-signed certificate of its own, made with the
// daemon's CertificateManager, and its entry in the daemon's trust file so that the
// daemon accepts the tool as a client, as it accepts the main server.
//
// Plain functions; they touch files only. Not meant for concurrent use on the same
// directory.
#pragma once

#include <string>

namespace apm {
namespace tools {

struct SimIdentity {
  std::string certificateFile;  // key, then certificate, in PEM
  std::string fingerprint;
  std::string cn;
};

// The file name of the certificate inside its directory.
extern const char kSimCertificateName[];

// Makes sure that `directory` holds "ecomm-sim_certificate.pem" with a key and a
// certificate, making the directory and a new certificate (common name
// "ecomm-sim") if needed. False with `error` set if that fails.
bool EnsureSimIdentity(const std::string& directory, SimIdentity& identity, std::string& error);

// Lists the identity in the daemon's trust file,
// "/etc/kelvora/ecomm/trusted_certificates.cfg" under ECOMM_ROOT, unless it is
// listed there already. False with `error` set if the file cannot be written.
bool RegisterWithDaemon(const SimIdentity& identity, std::string& error);

}  // namespace tools
}  // namespace apm
