#include "base/strtools.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <locale>

namespace apm {
namespace base {

namespace {

// The locale every UTF-8 conversion of this program runs under.
const char kUtf8Locale[] = "de_DE.UTF-8";

const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Value of a Base64 alphabet byte, or -1 for any other byte.
int Base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

std::string MapCase(const std::string& text, std::wint_t (*map)(std::wint_t)) {
  std::wstring wide = ConvertToWideStr(text.c_str(), static_cast<int>(text.size()), CP_UTF8_CODEPAGE);
  for (wchar_t& c : wide) c = static_cast<wchar_t>(map(static_cast<std::wint_t>(c)));
  return ConvertToUTF8(wide.c_str(), static_cast<int>(wide.size()));
}

}  // namespace

std::string ConvertToUTF8(const wchar_t* text, int /*length: the text ends at its NUL*/) {
  if (text == nullptr) return std::string();
  std::setlocale(LC_CTYPE, kUtf8Locale);
  size_t needed = std::wcstombs(nullptr, text, 0);
  if (needed == static_cast<size_t>(-1)) return std::string();
  std::string result(needed, '\0');
  std::wcstombs(&result[0], text, needed + 1);
  return result;
}

std::wstring ConvertToWideStr(const char* text, int /*length: the text ends at its NUL*/,
                              unsigned int codePage) {
  if (text == nullptr) return std::wstring();
  if (codePage == CP_ENVIRONMENT) {
    std::setlocale(LC_CTYPE, "");
  } else if (codePage == CP_UTF8_CODEPAGE) {
    std::setlocale(LC_CTYPE, kUtf8Locale);
  }
  size_t needed = std::mbstowcs(nullptr, text, 0);
  if (needed == static_cast<size_t>(-1)) return std::wstring();
  std::wstring result(needed, L'\0');
  std::mbstowcs(&result[0], text, needed + 1);
  return result;
}

std::string CharToUTF8(unsigned int codePoint) {
  std::string result;
  if (codePoint < 32 || (codePoint > 0xD7FF && codePoint < 0xE000) || codePoint == 0xFFFE ||
      codePoint == 0xFFFF || codePoint > 0x10FFFF) {
    return result;
  }
  if (codePoint < 0x80) {
    result += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    result += static_cast<char>(0xC0 | (codePoint >> 6));
    result += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    result += static_cast<char>(0xE0 | (codePoint >> 12));
    result += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    result += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    result += static_cast<char>(0xF0 | (codePoint >> 18));
    result += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    result += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    result += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
  return result;
}

std::string _ToLowerCase(const std::string& text) { return MapCase(text, std::towlower); }

std::string _ToUpperCase(const std::string& text) { return MapCase(text, std::towupper); }

bool _CompareCaseInsensitive(const std::string& a, const std::string& b) {
  if (a == b) return true;
  std::string lowerA = _ToLowerCase(a);
  std::string lowerB = _ToLowerCase(b);
  return lowerA.size() == lowerB.size() && std::memcmp(lowerA.data(), lowerB.data(), lowerA.size()) == 0;
}

// The numeric conversions write the variable even when text follows the digits, so
// that a caller sees the leading number; the result tells whether all was consumed.
bool StringToInt(const std::string& text, unsigned short& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  value = static_cast<unsigned short>(std::strtoul(text.c_str(), &end, 10));
  return end == text.c_str() + text.size();
}

bool StringToInt(const std::string& text, unsigned int& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  value = static_cast<unsigned int>(std::strtoul(text.c_str(), &end, 10));
  return end == text.c_str() + text.size();
}

bool StringToInt(const std::string& text, long& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  value = static_cast<long>(std::strtoll(text.c_str(), &end, 10));
  return end == text.c_str() + text.size();
}

bool StringToInt(const std::string& text, unsigned long& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  value = static_cast<unsigned long>(std::strtoll(text.c_str(), &end, 10));
  return end == text.c_str() + text.size();
}

std::string IntToString(int value) { return std::to_string(value); }
std::string IntToString(long value) { return std::to_string(value); }
std::string IntToString(unsigned int value) { return std::to_string(value); }
std::string IntToString(unsigned long value) { return std::to_string(value); }

void Trim(std::string& text) {
  const std::locale locale;
  size_t end = text.size();
  while (end > 0 && std::isspace(text[end - 1], locale)) --end;
  text.erase(end);
  size_t begin = 0;
  while (begin < text.size() && std::isspace(text[begin], locale)) ++begin;
  text.erase(0, begin);
}

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

unsigned int ReplaceAllOccurences(std::string& text, const std::string& what, const std::string& with) {
  if (what.empty()) return 0;
  unsigned int count = 0;
  size_t position = 0;
  while ((position = text.find(what, position)) != std::string::npos) {
    text.replace(position, what.size(), with);
    position += with.size();
    ++count;
  }
  return count;
}

std::string ConvertToBase64(const void* data, unsigned long size, unsigned long lineLength) {
  std::string result;
  if (data == nullptr || size == 0) return result;
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  result.reserve((size + 2) / 3 * 4 + (lineLength != 0 ? size / lineLength + 1 : 0));
  unsigned long lineCount = 0;
  unsigned long i = 0;
  for (; i + 3 <= size; i += 3) {
    unsigned int group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    result += kBase64Alphabet[(group >> 18) & 0x3F];
    result += kBase64Alphabet[(group >> 12) & 0x3F];
    result += kBase64Alphabet[(group >> 6) & 0x3F];
    result += kBase64Alphabet[group & 0x3F];
    lineCount += 4;
    if (lineLength != 0 && lineCount >= lineLength && i + 3 < size) {
      result += '\n';
      lineCount = 0;
    }
  }
  unsigned long rest = size - i;
  if (rest > 0) {
    unsigned int group = bytes[i] << 16;
    if (rest == 2) group |= bytes[i + 1] << 8;
    result += kBase64Alphabet[(group >> 18) & 0x3F];
    result += kBase64Alphabet[(group >> 12) & 0x3F];
    result += rest == 2 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    result += '=';
  }
  return result;
}

void ConvertFromBase64(const char* text, unsigned long length, void* buffer, unsigned long& size) {
  const unsigned long capacity = size;
  unsigned char* out = static_cast<unsigned char*>(buffer);
  unsigned long count = 0;
  auto emit = [&](unsigned char byte) {
    if (out != nullptr && count < capacity) out[count] = byte;
    ++count;
  };
  unsigned int bits = 0;
  int pending = 0;  // alphabet characters in the current group
  for (unsigned long i = 0; i < length; ++i) {
    int v = Base64Value(static_cast<unsigned char>(text[i]));
    if (v < 0) continue;
    bits = (bits << 6) | static_cast<unsigned int>(v);
    if (++pending == 4) {
      emit(static_cast<unsigned char>(bits >> 16));
      emit(static_cast<unsigned char>(bits >> 8));
      emit(static_cast<unsigned char>(bits));
      bits = 0;
      pending = 0;
    }
  }
  // A short last group gives the bytes its bits complete: 2 characters one, 3 two.
  if (pending == 2) {
    emit(static_cast<unsigned char>(bits >> 4));
  } else if (pending == 3) {
    emit(static_cast<unsigned char>(bits >> 10));
    emit(static_cast<unsigned char>(bits >> 2));
  }
  size = count;
}

void ConvertFromBase64(const std::string& text, void* buffer, unsigned long& size) {
  ConvertFromBase64(text.c_str(), text.size(), buffer, size);
}

std::string URLencode(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_' || c == '~') {
      result += c;
    } else {
      // The byte goes through as a signed char widened to int, so bytes of 128 and
      // more print as eight hexadecimal digits ("%ffffffe4").
      char encoded[16];
      std::snprintf(encoded, sizeof(encoded), "%%%02x", static_cast<int>(static_cast<signed char>(c)));
      result += encoded;
    }
  }
  return result;
}

}  // namespace base
}  // namespace apm
