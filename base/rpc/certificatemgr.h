// The daemon's TLS identities: self-signed certificates made on first start, the
// fingerprint form by which peers trust each other, and the fixed Diffie-Hellman
// group of the TLS set-up.
//
// A certificate file holds the unencrypted private key first and the certificate
// second, both in PEM, with permissions 0600. CPrivateKey and CX509 each own one
// OpenSSL object (null until made or read) and free it on destruction; they are
// not copyable. CertificateManager keeps no state; making one sets OpenSSL's memory
// functions first (COpenSSLWrapper::init).
//
// Objects belong to one thread at a time. The static CX509::get_cn and
// CX509::get_fingerprint only touch their arguments and are called on I/O threads
// for a peer's certificate.
#pragma once

#include <openssl/types.h>

#include <string>

namespace apm {
namespace base {
namespace certificate {

class COpenSSLWrapper {
 public:
  // Points OpenSSL's allocator at malloc, realloc and free. OpenSSL accepts this
  // only before its first allocation; later calls change nothing and give false.
  static bool init();
  static void shutdown();
};

class CPrivateKey {
 public:
  CPrivateKey() = default;
  ~CPrivateKey();
  CPrivateKey(const CPrivateKey&) = delete;
  CPrivateKey& operator=(const CPrivateKey&) = delete;

  // A new RSA key of `bits` bits with the public exponent 65537, replacing any
  // key held.
  bool create(int bits);
  // The next PEM private key of `bio`, unencrypted; replaces any key held.
  bool read(BIO* bio);
  // The key as unencrypted PEM.
  bool write(BIO* bio) const;

  EVP_PKEY* get() const { return key_; }

 private:
  EVP_PKEY* key_ = nullptr;
};

class CX509 {
 public:
  CX509() = default;
  ~CX509();
  CX509(const CX509&) = delete;
  CX509& operator=(const CX509&) = delete;

  // A new self-signed CA certificate for `key`: X.509 v3, serial `serial`, valid
  // from now for `days` days, subject and issuer C="AT", OU="Norvanta kelvora",
  // CN=`cn`, the fixed extensions of a kelvora identity, signed with SHA-256.
  // Replaces any certificate held.
  bool mkcert(CPrivateKey& key, int serial, int days, const std::string& cn);
  // The next PEM certificate of `bio`; replaces any certificate held.
  bool read(BIO* bio);
  bool write(BIO* bio) const;
  // Adds an extension made from its configuration text, with this certificate as
  // both issuer and subject.
  bool add_ext(int nid, const char* value);

  // All common names of the subject, in UTF-8, joined by ", ". Clears `cn` first;
  // true if there is a subject.
  bool get_cn(std::string& cn) const { return get_cn(cert_, cn); }
  // SHA-256 over the certificate as 32 lower-case hex pairs joined by ":".
  // Clears `fingerprint` first; true if it could be computed.
  bool get_fingerprint(std::string& fingerprint) const { return get_fingerprint(cert_, fingerprint); }
  // The same for any certificate; a null certificate gives false and an empty string.
  static bool get_cn(X509* cert, std::string& cn);
  static bool get_fingerprint(X509* cert, std::string& fingerprint);

  X509* get() const { return cert_; }

 private:
  X509* cert_ = nullptr;
};

class CertificateManager {
 public:
  CertificateManager();

  // True if `path` holds a readable key followed by a readable certificate. Nothing
  // else is checked: an expired certificate, or one that does not belong to the key,
  // still counts. `cn` and `fingerprint` are those of the certificate read (empty
  // without one), and untouched if the file cannot be opened.
  bool ValidateCertificate(const std::string& path, std::string& cn, std::string& fingerprint);

  // Makes a new RSA 2048 key and a self-signed certificate for `cn`, valid for
  // 7305 days, and writes both to `path` (mode 0600, set before anything is
  // written). `fingerprint` receives the new certificate's fingerprint.
  bool CreateSelfSignedCertificate(const std::string& path, const std::string& cn,
                                   std::string& fingerprint);

  // Appends "\n<fingerprint> <cn>\n" to "/etc/kelvora/<service>/trusted_certificates.cfg",
  // making the directories if needed. Existing entries are never replaced.
  bool WriteFingerprintForService(const char* service, const std::string& fingerprint,
                                  const std::string& cn);

  // A new 2048-bit Diffie-Hellman group (a fixed public prime, generator 2) for the
  // TLS context, or null; the caller frees it with DH_free.
  static DH* get_dh2048();
};

}  // namespace certificate
}  // namespace base
}  // namespace apm
