// Free functions for text: character-set conversion, case, numbers, Base64, URL
// encoding. Strings are std::string holding UTF-8.
//
// ConvertToUTF8, ConvertToWideStr and the case functions set the process's LC_CTYPE
// (to "de_DE.UTF-8" for UTF-8); every caller sets the same value, so they are safe
// to call from any thread in this program. The rest keep no state.
#pragma once

#include <string>

namespace apm {
namespace base {

constexpr unsigned int CP_ENVIRONMENT = 0;
constexpr unsigned int CP_UTF8_CODEPAGE = 65001;

std::string ConvertToUTF8(const wchar_t* text, int length);
std::wstring ConvertToWideStr(const char* text, int length, unsigned int codePage);
std::string CharToUTF8(unsigned int codePoint);

std::string _ToLowerCase(const std::string& text);
std::string _ToUpperCase(const std::string& text);
bool _CompareCaseInsensitive(const std::string& a, const std::string& b);

bool StringToInt(const std::string& text, unsigned short& value);
bool StringToInt(const std::string& text, unsigned int& value);
bool StringToInt(const std::string& text, long& value);
bool StringToInt(const std::string& text, unsigned long& value);

std::string IntToString(int value);
std::string IntToString(long value);
std::string IntToString(unsigned int value);
std::string IntToString(unsigned long value);

void Trim(std::string& text);
bool StartsWith(const std::string& text, const char* prefix);
unsigned int ReplaceAllOccurences(std::string& text, const std::string& what, const std::string& with);

std::string ConvertToBase64(const void* data, unsigned long size, unsigned long lineLength);
// `size`: capacity of `buffer` on entry, decoded byte count on return. A null buffer
// only counts.
void ConvertFromBase64(const char* text, unsigned long length, void* buffer, unsigned long& size);
void ConvertFromBase64(const std::string& text, void* buffer, unsigned long& size);

std::string URLencode(const std::string& text);

}  // namespace base
}  // namespace apm
