// The RSA key generation and the DH group use OpenSSL's low-level key API, which
// OpenSSL 3 keeps but marks deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "base/rpc/certificatemgr.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cstdlib>
#include <ctime>

#include "base/apmmodule.h"
#include "base/directory.h"
#include "base/famerror.h"
#include "base/rootpath.h"

namespace apm {
namespace base {
namespace certificate {
namespace {

void* PlainMalloc(size_t size, const char*, int) { return std::malloc(size); }
void* PlainRealloc(void* block, size_t size, const char*, int) { return std::realloc(block, size); }
void PlainFree(void* block, const char*, int) { std::free(block); }

// Keys are stored unencrypted; an encrypted one is refused instead of prompting.
int RefusePassphrase(char*, int, int, void*) { return -1; }

// Makes the extension from its configuration text in a context where `cert` is
// both issuer and subject, and appends it.
bool AddExtension(X509* cert, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) return false;
  bool added = X509_add_ext(cert, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

bool AddNameEntry(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                    0) == 1;
}

}  // namespace

bool COpenSSLWrapper::init() {
  return CRYPTO_set_mem_functions(PlainMalloc, PlainRealloc, PlainFree) == 1;
}

void COpenSSLWrapper::shutdown() {}

CPrivateKey::~CPrivateKey() { EVP_PKEY_free(key_); }

bool CPrivateKey::create(int bits) {
  BIGNUM* exponent = BN_new();
  RSA* rsa = RSA_new();
  EVP_PKEY* key = EVP_PKEY_new();
  bool created = exponent != nullptr && rsa != nullptr && key != nullptr &&
                 BN_set_word(exponent, 0x10001) == 1 &&
                 RSA_generate_key_ex(rsa, bits, exponent, nullptr) == 1 &&
                 EVP_PKEY_assign_RSA(key, rsa) == 1;
  BN_free(exponent);
  if (!created) {
    RSA_free(rsa);
    EVP_PKEY_free(key);
    return false;
  }
  // The key owns the RSA object now.
  EVP_PKEY_free(key_);
  key_ = key;
  return true;
}

bool CPrivateKey::read(BIO* bio) {
  if (bio == nullptr) return false;
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, RefusePassphrase, nullptr);
  if (key == nullptr) {
    ERR_clear_error();
    return false;
  }
  EVP_PKEY_free(key_);
  key_ = key;
  return true;
}

bool CPrivateKey::write(BIO* bio) const {
  if (key_ == nullptr || bio == nullptr) return false;
  return PEM_write_bio_PrivateKey(bio, key_, nullptr, nullptr, 0, nullptr, nullptr) == 1;
}

CX509::~CX509() { X509_free(cert_); }

bool CX509::mkcert(CPrivateKey& key, int serial, int days, const std::string& cn) {
  if (key.get() == nullptr) return false;
  X509* cert = X509_new();
  if (cert == nullptr) return false;

  // Both ends of the validity from one reading of the clock.
  time_t now = time(nullptr);
  X509_NAME* subject = X509_get_subject_name(cert);
  bool made = X509_set_version(cert, 2) == 1 &&
              ASN1_INTEGER_set(X509_get_serialNumber(cert), serial) == 1 &&
              X509_time_adj(X509_getm_notBefore(cert), 0, &now) != nullptr &&
              X509_time_adj(X509_getm_notAfter(cert), 60L * 60 * 24 * days, &now) != nullptr &&
              X509_set_pubkey(cert, key.get()) == 1 && AddNameEntry(subject, "C", "AT") &&
              AddNameEntry(subject, "OU", "Norvanta kelvora") && AddNameEntry(subject, "CN", cn) &&
              X509_set_issuer_name(cert, subject) == 1 &&
              AddExtension(cert, NID_basic_constraints, "critical,CA:TRUE") &&
              AddExtension(cert, NID_key_usage, "critical,digitalSignature,keyCertSign,cRLSign") &&
              AddExtension(cert, NID_ext_key_usage, "serverAuth,clientAuth") &&
              AddExtension(cert, NID_subject_key_identifier, "hash") &&
              AddExtension(cert, NID_netscape_cert_type, "sslCA") &&
              AddExtension(cert, NID_netscape_comment, "Self signed certificate for SSL connection");
  if (!made) {
    ERR_clear_error();
    X509_free(cert);
    return false;
  }
  if (X509_sign(cert, key.get(), EVP_sha256()) == 0) {
    ERR_clear_error();
    X509_free(cert);
    FamErrorBase::SetError(E_FAIL_CODE, "cannot sign certificate", GetModuleOperatingSystem());
    return false;
  }
  X509_free(cert_);
  cert_ = cert;
  return true;
}

bool CX509::read(BIO* bio) {
  if (bio == nullptr) return false;
  X509* cert = PEM_read_bio_X509(bio, nullptr, RefusePassphrase, nullptr);
  if (cert == nullptr) {
    ERR_clear_error();
    return false;
  }
  X509_free(cert_);
  cert_ = cert;
  return true;
}

bool CX509::write(BIO* bio) const {
  if (cert_ == nullptr || bio == nullptr) return false;
  return PEM_write_bio_X509(bio, cert_) == 1;
}

bool CX509::add_ext(int nid, const char* value) {
  if (cert_ == nullptr) return false;
  return AddExtension(cert_, nid, value);
}

bool CX509::get_cn(X509* cert, std::string& cn) {
  cn.clear();
  if (cert == nullptr) return false;
  X509_NAME* subject = X509_get_subject_name(cert);
  if (subject == nullptr) return false;
  bool first = true;
  for (int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1); index >= 0;
       index = X509_NAME_get_index_by_NID(subject, NID_commonName, index)) {
    unsigned char* text = nullptr;
    int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
    if (length < 0) continue;
    if (!first) cn += ", ";
    first = false;
    cn.append(reinterpret_cast<const char*>(text), length);
    OPENSSL_free(text);
  }
  return true;
}

bool CX509::get_fingerprint(X509* cert, std::string& fingerprint) {
  fingerprint.clear();
  if (cert == nullptr) return false;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(cert, EVP_sha256(), digest, &length) != 1) return false;
  static const char kHexDigits[] = "0123456789abcdef";
  fingerprint.reserve(length * 3);
  for (unsigned int i = 0; i < length; ++i) {
    if (i > 0) fingerprint += ':';
    fingerprint += kHexDigits[digest[i] >> 4];
    fingerprint += kHexDigits[digest[i] & 0x0f];
  }
  return true;
}

CertificateManager::CertificateManager() { COpenSSLWrapper::init(); }

bool CertificateManager::ValidateCertificate(const std::string& path, std::string& cn,
                                             std::string& fingerprint) {
  BIO* bio = BIO_new_file(path.c_str(), "r");
  if (bio == nullptr) {
    ERR_clear_error();
    return false;
  }
  CPrivateKey key;
  CX509 cert;
  bool valid = key.read(bio) && cert.read(bio);
  cert.get_cn(cn);
  cert.get_fingerprint(fingerprint);
  BIO_free(bio);
  return valid;
}

bool CertificateManager::CreateSelfSignedCertificate(const std::string& path, const std::string& cn,
                                                     std::string& fingerprint) {
  CPrivateKey key;
  if (!key.create(2048)) return false;
  CX509 cert;
  if (!cert.mkcert(key, 12345, 7305, cn)) return false;

  BIO* bio = BIO_new_file(path.c_str(), "w");
  if (bio == nullptr) {
    ERR_clear_error();
    return false;
  }
  // Narrowed before the key is written, so it never stands in a readable file.
  boost::system::error_code ignored;
  boost::filesystem::permissions(path, boost::filesystem::owner_read | boost::filesystem::owner_write,
                                 ignored);
  bool written = key.write(bio) && cert.write(bio) && BIO_flush(bio) == 1;
  cert.get_fingerprint(fingerprint);
  BIO_free(bio);
  return written;
}

bool CertificateManager::WriteFingerprintForService(const char* service, const std::string& fingerprint,
                                                    const std::string& cn) {
  const std::string directory = RootedPath(std::string("/etc/kelvora/") + service + "/");
  // A failure here shows up as a failed open below.
  Directory(RootedPath("/etc/kelvora/")).Create(true, 0);
  Directory(directory).Create(true, 0);

  const std::string path = directory + "trusted_certificates.cfg";
  int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0660);
  if (descriptor < 0) {
    FamErrorBase::SetLastError(GetModuleOperatingSystem());
    return false;
  }
  const std::string entry = "\n" + fingerprint + " " + cn + "\n";
  [[maybe_unused]] ssize_t written = ::write(descriptor, entry.data(), entry.size());
  ::close(descriptor);
  return true;
}

DH* CertificateManager::get_dh2048() { return DH_new_by_nid(NID_ffdhe2048); }

}  // namespace certificate
}  // namespace base
}  // namespace apm
