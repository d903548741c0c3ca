#include "base/jsonparser.h"

#include <cstdlib>
#include <cstring>

#include "base/apmmodule.h"
#include "base/famerror.h"
#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

// White space as isspace has it for bytes of the C and UTF-8 locales.
inline bool isJsonSpace(unsigned char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

inline bool isDigit(unsigned char byte) { return byte >= '0' && byte <= '9'; }

// Bytes that a string takes as they stand: all but the quote, the backslash and NUL.
struct PlainStringBytes {
  bool plain[256];
  PlainStringBytes() {
    for (int byte = 0; byte < 256; ++byte) plain[byte] = true;
    plain[static_cast<unsigned char>('"')] = false;
    plain[static_cast<unsigned char>('\\')] = false;
    plain[0] = false;
  }
};

const PlainStringBytes plainStringBytes;

}  // namespace

const char* JsonParser::getTokenName(JsonTokenType token) {
  switch (token) {
    case json_object_start: return "json_object_start";
    case json_object_end: return "json_object_end";
    case json_array_start: return "json_array_start";
    case json_array_end: return "json_array_end";
    case json_comma_separator: return "json_comma_separator";
    case json_string_token: return "json_string_token";
    case json_number_token: return "json_number_token";
    case json_float_token: return "json_float_token";
    case json_colon_separator: return "json_colon_separator";
    case json_bool_true: return "json_bool_true";
    case json_bool_false: return "json_bool_false";
    case json_null: return "json_null";
    case json_error: return "json_error";
    case json_end: return "json_end";
  }
  return "json_token_invalid";
}

bool JsonParser::parseimpl(const std::string& text, CRefPtr<JsonValue>& value) {
  CJsonStringReader source(text.data(), text.data() + text.size());
  JsonParser parser(source);
  if (!parser.parse(value)) {
    FamErrorBase::SetError(E_FAIL_CODE, parser.errorMessage, GetModuleOperatingSystem());
    return false;
  }
  return true;
}

bool JsonParser::parseimpl(IStream* stream, CRefPtr<JsonValue>& value) {
  CJsonIStreamReader source(stream);
  JsonParser parser(source);
  if (!parser.parse(value)) {
    FamErrorBase::SetError(E_FAIL_CODE, parser.errorMessage, GetModuleOperatingSystem());
    return false;
  }
  return true;
}

JsonParser::JsonParser(IJsonCharReader& source) : reader(source) { advance(); }

bool JsonParser::parse(CRefPtr<JsonValue>& value) {
  skipBOM();
  JsonTokenType token;
  if (!getNextToken(token)) return false;
  CRefPtr<JsonValue> parsed;
  if (!parseValue(token, parsed)) return false;
  // Only a token behind the value fails; an illegal byte there is no failure.
  if (getNextToken(token) && token != json_end) {
    errorMessage = std::string("invalid token ") + getTokenName(token) + " after end";
    return false;
  }
  value = std::move(parsed);
  return true;
}

void JsonParser::skipBOM() {
  static const unsigned char bom[] = {0xEF, 0xBB, 0xBF};
  // A part of the mark is dropped as far as it matches.
  for (unsigned char byte : bom) {
    if (!hasCurrentByte || currentByte != byte) return;
    advance();
  }
}

// ---------------------------------------------------------------------------
// Tokenizer

bool JsonParser::getNextToken(JsonTokenType& token) {
  tokenBuffer.clear();
  tokenHasNul = false;
  while (hasCurrentByte && isJsonSpace(currentByte)) {
    // The rest of a run of white space straight from the reader's window.
    const unsigned char* position = reader.pending();
    const unsigned char* end = reader.pendingEnd();
    while (position != end && isJsonSpace(*position)) ++position;
    reader.consume(position);
    advance();
  }
  if (!hasCurrentByte) {
    token = json_end;
    return false;
  }
  const unsigned char byte = currentByte;
  switch (byte) {
    case '{': token = json_object_start; break;
    case '}': token = json_object_end; break;
    case '[': token = json_array_start; break;
    case ']': token = json_array_end; break;
    case ',': token = json_comma_separator; break;
    case ':': token = json_colon_separator; break;
    case '"':
      token = json_string_token;
      readString();
      return true;
    case '-': case '0': case '1': case '2': case '3': case '4':
    case '5': case '6': case '7': case '8': case '9':
      readNumber(token);
      return true;
    case 't': case 'f': case 'n':
      return readWord(token);
    default:
      tokenBuffer.append(static_cast<char>(byte));
      advance();
      token = json_error;
      errorMessage = "invalid character value";
      return false;
  }
  tokenBuffer.append(static_cast<char>(byte));
  advance();
  return true;
}

void JsonParser::readString() {
  // The opening quote is the current byte; the string's bytes are taken from the
  // reader directly, runs of plain bytes at once from its window.
  for (;;) {
    const unsigned char* begin = reader.pending();
    const unsigned char* end = reader.pendingEnd();
    const unsigned char* position = begin;
    while (position != end && plainStringBytes.plain[*position]) ++position;
    if (position != begin) {
      tokenBuffer.append(reinterpret_cast<const char*>(begin), static_cast<size_t>(position - begin));
      reader.consume(position);
    }
    unsigned char byte;
    if (!reader.next(byte)) break;              // the end of the input ends the string
    if (byte == '"' || byte == '\0') break;     // so does a NUL
    if (byte != '\\') {
      tokenBuffer.append(static_cast<char>(byte));  // first byte of a new block
      continue;
    }
    if (!reader.next(byte)) break;
    switch (byte) {
      case 'b': tokenBuffer.append('\b'); break;
      case 'f': tokenBuffer.append('\f'); break;
      case 'n': tokenBuffer.append('\n'); break;
      case 'r': tokenBuffer.append('\r'); break;
      case 't': tokenBuffer.append('\t'); break;
      case 'u': readUnicodeEscape(); break;
      default:
        if (byte == '\0') tokenHasNul = true;
        tokenBuffer.append(static_cast<char>(byte));
        break;
    }
  }
  advance();
}

void JsonParser::readUnicodeEscape() {
  char digits[5];
  size_t count = 0;
  unsigned char byte;
  while (count < 4 && reader.next(byte)) digits[count++] = static_cast<char>(byte);
  digits[count] = '\0';
  char* end = nullptr;
  const long codeUnit = strtol(digits, &end, 16);
  if (*end != '\0') return;  // not entirely hexadecimal: nothing is added
  // CharToUTF8 gives nothing for control characters, surrogates, 0xFFFE and 0xFFFF.
  const std::string encoded = CharToUTF8(static_cast<unsigned int>(codeUnit));
  tokenBuffer.append(encoded.data(), encoded.size());
}

void JsonParser::readNumber(JsonTokenType& token) {
  token = json_number_token;
  if (currentByte == '-') {
    tokenBuffer.append('-');
    advance();
  }
  takeDigits(true);
  if (hasCurrentByte && currentByte == '.') {
    token = json_float_token;
    tokenBuffer.append('.');
    advance();
    takeDigits(true);
  }
  if (hasCurrentByte && (currentByte == 'e' || currentByte == 'E')) {
    // The exponent is read and dropped: "1.5e3" is 1.5.
    token = json_float_token;
    advance();
    if (hasCurrentByte && (currentByte == '+' || currentByte == '-')) advance();
    takeDigits(false);
  }
}

void JsonParser::takeDigits(bool keep) {
  while (hasCurrentByte && isDigit(currentByte)) {
    if (keep) tokenBuffer.append(static_cast<char>(currentByte));
    // The rest of the run straight from the reader's window.
    const unsigned char* begin = reader.pending();
    const unsigned char* end = reader.pendingEnd();
    const unsigned char* position = begin;
    while (position != end && isDigit(*position)) ++position;
    if (keep) tokenBuffer.append(reinterpret_cast<const char*>(begin), static_cast<size_t>(position - begin));
    reader.consume(position);
    advance();
  }
}

bool JsonParser::readWord(JsonTokenType& token) {
  do {
    tokenBuffer.append(static_cast<char>(currentByte));
    advance();
  } while (hasCurrentByte && currentByte >= 'a' && currentByte <= 'z');
  const size_t length = tokenBuffer.length();
  const char* word = tokenBuffer.data();
  if (length == 4 && memcmp(word, "true", 4) == 0) {
    token = json_bool_true;
  } else if (length == 5 && memcmp(word, "false", 5) == 0) {
    token = json_bool_false;
  } else if (length == 4 && memcmp(word, "null", 4) == 0) {
    token = json_null;
  } else {
    token = json_error;
    errorMessage = "invalid identifier value";
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Parser. parseValue, parseObject and parseArray recurse once per level; whatever
// needs a std::string or more lives in the out-of-line helpers below, so that a
// level costs only these small frames.

bool JsonParser::parseValue(JsonTokenType token, CRefPtr<JsonValue>& value) {
  switch (token) {
    case json_object_start: {
      if (depth >= maxNestingDepth) {
        setDepthExceeded();
        return false;
      }
      JsonValueObject* object = new JsonValueObject();
      value = object;
      ++depth;
      const bool parsed = parseObject(*object);
      --depth;
      return parsed;
    }
    case json_array_start: {
      if (depth >= maxNestingDepth) {
        setDepthExceeded();
        return false;
      }
      JsonValueArray* array = new JsonValueArray();
      value = array;
      ++depth;
      const bool parsed = parseArray(*array);
      --depth;
      return parsed;
    }
    case json_string_token: return makeString(value);
    case json_number_token: return makeInteger(value);
    case json_float_token: return makeDouble(value);
    case json_bool_true: value = new JsonValueBoolean(true); return true;
    case json_bool_false: value = new JsonValueBoolean(false); return true;
    case json_null: value = new JsonValueNull(); return true;
    default:
      setUnexpectedToken(token);
      return false;
  }
}

bool JsonParser::parseObject(JsonValueObject& object) {
  JsonTokenType token;
  getNextToken(token);
  if (token == json_object_end) return true;
  if (token != json_string_token) {
    setInvalidToken(token, "), string expected");
    return false;
  }
  while (token == json_string_token) {
    // Of duplicate keys the last one stays, as with setValue.
    CRefPtr<JsonValue>& slot = memberSlot(object);
    getNextToken(token);
    if (token != json_colon_separator) {
      setInvalidToken(token, "), colon expected");
      return false;
    }
    if (!getNextToken(token) || !parseValue(token, slot)) return false;
    if (!getNextToken(token)) return false;
    if (token == json_object_end) return true;
    if (token != json_comma_separator) {
      setInvalidToken(token, "), '}' expected");
      return false;
    }
    if (!getNextToken(token)) return false;
  }
  // A token other than a string behind a comma ends the object: "{\"a\":1,}".
  return true;
}

bool JsonParser::parseArray(JsonValueArray& array) {
  JsonTokenType token;
  if (!getNextToken(token) || token == json_array_end) return true;
  for (;;) {
    array.values.emplace_back();
    if (!parseValue(token, array.values.back())) return false;
    if (!getNextToken(token)) return false;
    if (token == json_array_end) return true;
    if (token != json_comma_separator) {
      setUnexpectedToken(token);
      return false;
    }
    // "]" behind a comma reaches parseValue and fails there.
    if (!getNextToken(token)) return false;
  }
}

__attribute__((noinline)) CRefPtr<JsonValue>& JsonParser::memberSlot(JsonValueObject& object) {
  const char* text = tokenBuffer;
  const size_t length = tokenHasNul || text != tokenBuffer.data() ? strlen(text) : tokenBuffer.length();
  return object.values[std::string(text, length)];
}

__attribute__((noinline)) bool JsonParser::makeString(CRefPtr<JsonValue>& value) {
  const char* text = tokenBuffer;
  const size_t length = tokenHasNul || text != tokenBuffer.data() ? strlen(text) : tokenBuffer.length();
  value = new JsonValueString(std::string(text, length));
  return true;
}

__attribute__((noinline)) bool JsonParser::makeInteger(CRefPtr<JsonValue>& value) {
  const char* text = tokenBuffer;
  const size_t length = tokenBuffer.length();
  // Up to 18 digits cannot overflow: add them up directly. Longer numbers, and the
  // lone "-", take the general conversion.
  const size_t sign = text[0] == '-' ? 1 : 0;
  if (length > sign && length - sign <= 18) {
    int64_t number = 0;
    for (size_t index = sign; index < length; ++index) number = number * 10 + (text[index] - '0');
    value = new JsonValueInteger(sign ? -number : number);
    return true;
  }
  long number = 0;
  if (!StringToInt(std::string(text), number)) {
    errorMessage = std::string("invalid integer value ") + text;
    return false;
  }
  value = new JsonValueInteger(number);
  return true;
}

__attribute__((noinline)) bool JsonParser::makeDouble(CRefPtr<JsonValue>& value) {
  const char* text = tokenBuffer;
  char* end = nullptr;
  const double number = strtod(text, &end);
  if (*end != '\0') {
    errorMessage = std::string("invalid float value ") + text;
    return false;
  }
  value = new JsonValueDouble(number);
  return true;
}

__attribute__((noinline)) void JsonParser::setInvalidToken(JsonTokenType token, const char* suffix) {
  errorMessage = std::string("invalid token ") + getTokenName(token) + " (" + tokenText() + suffix;
}

__attribute__((noinline)) void JsonParser::setUnexpectedToken(JsonTokenType token) {
  errorMessage = std::string("unexpected token ") + getTokenName(token) + " (" + tokenText() + ")";
}

__attribute__((noinline)) void JsonParser::setDepthExceeded() {
  errorMessage = "maximum nesting depth exceeded";
}

}  // namespace base
}  // namespace apm
