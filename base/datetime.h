// Timestamp: a point in time as the count of 100-nanosecond units since
// 1601-01-01 00:00 UTC, in one unsigned 64-bit number; 0 means "no time".
//
// Converts from Unix seconds (where second 0 maps to 0, not to the epoch offset) and
// from date-time text. The daemon has no time-zone logic: all times are UTC.
// A Timestamp is a plain value; the functions keep no state and are thread-safe.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace apm {
namespace base {

class Timestamp {
 public:
  // 100-nanosecond units from 1601-01-01 to 1970-01-01.
  static constexpr uint64_t kUnixEpoch = 116444736000000000ULL;
  static constexpr uint64_t kUnitsPerSecond = 10000000ULL;

  Timestamp() = default;
  Timestamp(uint64_t units) : value(units) {}  // NOLINT: a Timestamp is used as a number
  operator uint64_t() const { return value; }  // NOLINT

  // seconds * 10000000 + kUnixEpoch; Unix second 0 gives 0.
  static Timestamp FromUnixTime(time_t seconds);
  // The present time, from time(nullptr).
  static Timestamp Now();

  // Reads "YYYY-MM-DD hh:mm:ss.fffffff" leniently, as UTC: separators ("-", ":", and
  // " " or "T" between date and time) are optional, each number takes up to its
  // width of digits, and missing parts default to 2008, January, day 1, 00:00:00.
  // Fractions count to 100 ns; further digits and any zone suffix are ignored.
  // Out-of-range fields are normalised by timegm. Always returns true.
  static bool parseDateTime(const std::string& text, Timestamp& result);

  uint64_t value = 0;
};

}  // namespace base
}  // namespace apm
