// System: the daemon's questions to its host. Configuration files are scanned for a
// key at every lookup (no cache, so an edited file counts at the next call), and the
// fully qualified host name is resolved afresh at every call.
//
// Thread-safe: nothing is shared between calls; failures are reported to the calling
// thread's error record (base/famerror.h).
#pragma once

#include <string>

struct addrinfo;

namespace apm {
namespace base {
namespace System {

// Scans GetConfigPath() + `file` for the first line holding `key` and gives the rest
// of that line in `value`. The grammar:
// - The file is read in chunks of at most 1023 bytes, each ending at its first NUL.
//   The unfinished line at the end of a chunk is put in front of the next chunk's
//   first line; it replaces what was kept before, so a line longer than two chunks
//   loses its beginning.
// - A line ends at "\n"; a last line without "\n" is never looked at.
// - Everything from the first "#" on is a comment.
// - The key is searched case-insensitively (both sides through _ToLowerCase) as a
//   substring anywhere in the line: "MyListenPort 1" answers "ListenPort".
// - The value is the rest of the line behind the key, in its original case, with
//   white space trimmed at both ends ("ListenPort=1" gives "=1").
// Returns true when a line matched, even with an empty value. On false `value` is
// unchanged; a file that cannot be opened leaves errno's text in the error record.
bool GetValueFromConfigFile(const std::string& file, const std::string& key, std::string& value);

// The host's canonical name: gethostname, then getaddrinfo with AI_CANONNAME.
// Empty if either fails (the reason goes to the error record) or if no entry of the
// answer carries a canonical name.
std::string GetFQHostName();

// The first non-null canonical name in a getaddrinfo answer, or empty.
std::string FirstCanonicalName(const addrinfo* list);

}  // namespace System
}  // namespace base
}  // namespace apm
