// JsonParser: the pull tokenizer and recursive-descent parser that turn JSON text
// into a JsonValue tree (base/jsonvalue.h).
//
// The usual entry is the static JsonParser::parse, for a std::string or an IStream;
// on failure it leaves the reason in the thread's error record (base/famerror.h).
// A JsonParser object parses one document from an IJsonCharReader, which it borrows;
// the tree it returns belongs to the caller.
//
// The grammar is lenient in ways callers rely on: a string may end at a NUL byte or
// at the end of the input, an exponent is read and dropped ("1.5e3" is 1.5), "\u"
// escapes for control characters, surrogates and 0xFFFE/0xFFFF vanish, an object may
// end with a comma and anything behind the value that is no token is ignored.
// Documents nested deeper than maxNestingDepth are refused with "maximum nesting
// depth exceeded", which keeps the recursion well inside a worker thread's stack.
//
// A parser object belongs to one thread; the static functions are thread-safe.
#pragma once

#include <string>

#include "base/jsonreader.h"
#include "base/jsontokenbuffer.h"
#include "base/jsonvalue.h"
#include "base/refcounted.h"
#include "base/stream.h"

namespace apm {
namespace base {

enum JsonTokenType {
  json_object_start = 0,
  json_object_end = 1,
  json_array_start = 2,
  json_array_end = 3,
  json_comma_separator = 4,
  json_string_token = 5,
  json_number_token = 6,
  json_float_token = 7,
  json_colon_separator = 8,
  json_bool_true = 9,
  json_bool_false = 10,
  json_null = 11,
  json_error = 12,
  json_end = 13
};

class JsonParser {
 public:
  // Objects and arrays may nest this deep; one level more fails the parse.
  static const unsigned int maxNestingDepth = 10000;

  // Parses `source` (a std::string, or a CComPtr<IStream> read from its current
  // position). False if the text is no JSON, with the reason in the error record;
  // false without a reason if the top-level value is no `Value`. `value` is
  // written only on success.
  template <class Source, class Value>
  static bool parse(Source& source, CRefPtr<Value>& value) {
    CRefPtr<JsonValue> parsed;
    if (!parseimpl(source, parsed)) return false;
    Value* typed = dynamic_cast<Value*>(parsed.get());
    if (typed == nullptr) return false;
    value = typed;
    return true;
  }

  // Parse a whole document; on failure SetError(0x80004005, errorMessage) against
  // the "Operating System" module. `value` is written only on success.
  static bool parseimpl(const std::string& text, CRefPtr<JsonValue>& value);
  static bool parseimpl(IStream* stream, CRefPtr<JsonValue>& value);

  // "json_object_start" ... "json_end"; "json_token_invalid" for other numbers.
  static const char* getTokenName(JsonTokenType token);

  // Takes the first byte from `reader`, which must outlive the parser.
  explicit JsonParser(IJsonCharReader& reader);
  JsonParser(const JsonParser&) = delete;
  JsonParser& operator=(const JsonParser&) = delete;

  // Parses one document: a byte order mark, a value, and nothing but white space
  // or an illegal byte behind it. `value` is written only on success; on failure
  // the reason, if any, is in getErrorMessage().
  bool parse(CRefPtr<JsonValue>& value);

  // The tokenizer: the next token and its text (tokenText). False at the end of
  // the input (json_end) and for an illegal byte or word (json_error, with a
  // message).
  bool getNextToken(JsonTokenType& token);
  // The text of the last token, ending at its first NUL.
  const char* tokenText() { return tokenBuffer; }

  const std::string& getErrorMessage() const { return errorMessage; }

 private:
  void advance() { hasCurrentByte = reader.next(currentByte); }
  void skipBOM();

  void readString();
  void readUnicodeEscape();
  void readNumber(JsonTokenType& token);
  // Takes the digits from the current byte on, into the token buffer if `keep`.
  void takeDigits(bool keep);
  bool readWord(JsonTokenType& token);

  bool parseValue(JsonTokenType token, CRefPtr<JsonValue>& value);
  bool parseObject(JsonValueObject& object);
  bool parseArray(JsonValueArray& array);
  // The member slot for the key in the token buffer, inserted if new.
  CRefPtr<JsonValue>& memberSlot(JsonValueObject& object);
  bool makeString(CRefPtr<JsonValue>& value);
  bool makeInteger(CRefPtr<JsonValue>& value);
  bool makeDouble(CRefPtr<JsonValue>& value);
  // errorMessage = "invalid token " + name + " (" + text + suffix.
  void setInvalidToken(JsonTokenType token, const char* suffix);
  // errorMessage = "unexpected token " + name + " (" + text + ")".
  void setUnexpectedToken(JsonTokenType token);
  void setDepthExceeded();

  IJsonCharReader& reader;
  unsigned char currentByte = 0;
  bool hasCurrentByte = false;
  TokenBuffer tokenBuffer;
  // The token buffer holds a NUL from an escape, so its text ends early.
  bool tokenHasNul = false;
  std::string errorMessage;
  unsigned int depth = 0;
};

}  // namespace base
}  // namespace apm
