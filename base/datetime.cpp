#include "base/datetime.h"

#include <cctype>

namespace apm {
namespace base {
namespace {

// Reads up to `width` decimal digits at `*cursor`; `fallback` if there are none.
int ReadNumber(const char*& cursor, int width, int fallback) {
  if (!std::isdigit(static_cast<unsigned char>(*cursor))) return fallback;
  int number = 0;
  for (int i = 0; i < width && std::isdigit(static_cast<unsigned char>(*cursor)); ++i) {
    number = number * 10 + (*cursor++ - '0');
  }
  return number;
}

void SkipOptional(const char*& cursor, char separator) {
  if (*cursor == separator) ++cursor;
}

}  // namespace

Timestamp Timestamp::FromUnixTime(time_t seconds) {
  if (seconds == 0) return Timestamp(0);
  return Timestamp(static_cast<uint64_t>(seconds) * kUnitsPerSecond + kUnixEpoch);
}

Timestamp Timestamp::Now() { return FromUnixTime(time(nullptr)); }

bool Timestamp::parseDateTime(const std::string& text, Timestamp& result) {
  const char* cursor = text.c_str();
  while (*cursor != '\0' && std::isspace(static_cast<unsigned char>(*cursor))) ++cursor;

  struct tm fields = {};
  fields.tm_year = ReadNumber(cursor, 4, 2008) - 1900;
  SkipOptional(cursor, '-');
  fields.tm_mon = ReadNumber(cursor, 2, 1) - 1;
  SkipOptional(cursor, '-');
  fields.tm_mday = ReadNumber(cursor, 2, 1);
  if (*cursor == ' ' || *cursor == 'T') ++cursor;
  fields.tm_hour = ReadNumber(cursor, 2, 0);
  SkipOptional(cursor, ':');
  fields.tm_min = ReadNumber(cursor, 2, 0);
  SkipOptional(cursor, ':');
  fields.tm_sec = ReadNumber(cursor, 2, 0);

  uint64_t units = FromUnixTime(timegm(&fields));
  if (cursor[0] == '.' && cursor[1] != '\0') {
    // Fractional seconds: the first digit weighs a tenth of a second, each further
    // one a tenth of that; beyond the seventh the weight is 0.
    uint64_t weight = kUnitsPerSecond / 10;
    for (++cursor; std::isdigit(static_cast<unsigned char>(*cursor)); ++cursor) {
      units += static_cast<uint64_t>(*cursor - '0') * weight;
      weight /= 10;
    }
  }
  result = Timestamp(units);
  return true;
}

}  // namespace base
}  // namespace apm
