#include "tests/support/testcertificates.h"

#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>

#include "base/rpc/certificatemgr.h"

namespace apm {
namespace test {

const TestIdentity& GetTestIdentity(const std::string& name) {
  static std::map<std::string, std::unique_ptr<TestIdentity>> identities;
  auto found = identities.find(name);
  if (found != identities.end()) return *found->second;

  const std::string directory = std::string(ECOMM_BINARY_DIR) + "/test-certificates/";
  boost::filesystem::create_directories(directory);
  std::unique_ptr<TestIdentity> identity(new TestIdentity);
  identity->certificate_file = directory + name + ".pem";
  base::certificate::CertificateManager manager;
  std::string cn, fingerprint;
  if (!manager.ValidateCertificate(identity->certificate_file, cn, fingerprint)) {
    // Test processes run in parallel and may all find the identity missing. Each
    // makes its own and offers it with link(), which fails if the file is there
    // already: the first one wins and everybody uses that same file.
    const std::string temporary = identity->certificate_file + "." + std::to_string(getpid()) + ".tmp";
    const bool made = manager.CreateSelfSignedCertificate(temporary, "kelvora.test." + name, fingerprint);
    const bool offered = made && (link(temporary.c_str(), identity->certificate_file.c_str()) == 0 || errno == EEXIST);
    unlink(temporary.c_str());
    if (!offered || !manager.ValidateCertificate(identity->certificate_file, cn, fingerprint)) {
      std::fprintf(stderr, "cannot make the test identity %s\n", name.c_str());
      std::abort();
    }
  }
  identity->cn = cn;
  identity->fingerprint = fingerprint;
  const TestIdentity& result = *identity;
  identities[name] = std::move(identity);
  return result;
}

void WriteTextFile(const std::string& path, const std::string& content) {
  std::ofstream file(path.c_str(), std::ios::binary | std::ios::trunc);
  file << content;
}

std::string TrustFileText(const std::vector<const TestIdentity*>& identities) {
  std::string text;
  for (const TestIdentity* identity : identities) text += identity->fingerprint + " " + identity->cn + "\n";
  return text;
}

}  // namespace test
}  // namespace apm
