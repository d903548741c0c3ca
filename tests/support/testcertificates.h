// Test TLS identities for RPC connections: self-signed certificate files made with
// the daemon's own CertificateManager, and trust files listing their fingerprints.
//
// An identity is made once per build tree (under ECOMM_BINARY_DIR
// "/test-certificates/") and reused by later test processes, since making an RSA
// key is slow; a new file is written under a temporary name and renamed into place,
// so parallel test processes never see half a file. Thread-safe after the first
// call for a name; make identities before starting threads.
#pragma once

#include <string>
#include <vector>

namespace apm {
namespace test {

struct TestIdentity {
  std::string certificate_file;  // key, then certificate, in PEM
  std::string fingerprint;       // lower-case hex pairs joined by ":"
  std::string cn;
};

// The identity called `name` (any short word, e.g. "server", "client", "rogue"),
// made on first use. Aborts the test process if it cannot be made.
const TestIdentity& GetTestIdentity(const std::string& name);

// Writes `content` to `path`, replacing the file.
void WriteTextFile(const std::string& path, const std::string& content);

// A trust file text listing the identities, one "fingerprint cn" line each.
std::string TrustFileText(const std::vector<const TestIdentity*>& identities);

}  // namespace test
}  // namespace apm
