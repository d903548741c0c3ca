// The trust decision on a peer's TLS certificate: a list of fingerprints in a text
// file, one entry a line, the fingerprint up to the first blank and anything behind
// it a comment (usually the certificate's common name).
//
// The verdict of the TLS library is not consulted: self-signed certificates are the
// normal case, and trust means a listed fingerprint. Thread-safe: the file is read
// anew on every call; concurrent appends by trust_first_certificate may interleave.
#pragma once

#include <string>

namespace apm {
namespace base {

// Whether a certificate with `fingerprint` (and common name `cn`) is trusted by the
// file at `path`:
// - an empty `path` trusts every certificate;
// - the file is read by lines of up to 255 characters (a longer line ends the
//   reading, as the end of the file does; a missing file reads as empty); a line
//   whose text up to its first blank equals `fingerprint`, ignoring case, trusts it;
// - with no match, the certificate is refused, unless every line read was empty and
//   `trust_first_certificate` is set: then "\n<fingerprint> <cn>\n" is appended to
//   the file (made with mode 0600 if missing) and the certificate is trusted,
//   whether that write worked or not.
bool IsTrustedCertificate(const std::string& path, const std::string& fingerprint, const std::string& cn,
                          bool trust_first_certificate);

}  // namespace base
}  // namespace apm
