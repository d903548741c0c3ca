#include "tools/ecomm-sim/simidentity.h"

#include <boost/filesystem.hpp>

#include "base/rootpath.h"
#include "base/rpc/certificatemgr.h"
#include "base/rpc/rpctrustedcertificates.h"

namespace apm {
namespace tools {

const char kSimCertificateName[] = "ecomm-sim_certificate.pem";

namespace {

const char kSimCommonName[] = "ecomm-sim";
const char kDaemonService[] = "ecomm";
const char kDaemonTrustFile[] = "/etc/kelvora/ecomm/trusted_certificates.cfg";

}  // namespace

bool EnsureSimIdentity(const std::string& directory, SimIdentity& identity, std::string& error) {
  boost::system::error_code ignored;
  boost::filesystem::create_directories(directory, ignored);
  identity.certificateFile = (boost::filesystem::path(directory) / kSimCertificateName).string();
  base::certificate::CertificateManager manager;
  if (manager.ValidateCertificate(identity.certificateFile, identity.cn, identity.fingerprint)) return true;
  identity.cn = kSimCommonName;
  if (!manager.CreateSelfSignedCertificate(identity.certificateFile, identity.cn, identity.fingerprint)) {
    error = "cannot make the certificate \"" + identity.certificateFile + "\"";
    return false;
  }
  return true;
}

bool RegisterWithDaemon(const SimIdentity& identity, std::string& error) {
  if (base::IsTrustedCertificate(base::RootedPath(kDaemonTrustFile), identity.fingerprint, identity.cn, false)) {
    return true;
  }
  base::certificate::CertificateManager manager;
  if (!manager.WriteFingerprintForService(kDaemonService, identity.fingerprint, identity.cn)) {
    error = "cannot write \"" + base::RootedPath(kDaemonTrustFile) + "\"";
    return false;
  }
  return true;
}

}  // namespace tools
}  // namespace apm
