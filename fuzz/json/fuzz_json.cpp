// Fuzz target of JsonParser::parseimpl. Every input must parse or fail without a
// crash, with one of the parser's messages, and the same through both readers.
// What parses must serialize, compact and pretty, into text that parses again to
// the same tree; where the tree holds nothing that the text form changes on the way
// (see IsStable), the second serialization must equal the first byte for byte.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "base/famerror.h"
#include "base/jsonparser.h"
#include "base/jsonvalue.h"
#include "base/memorystream.h"

using apm::base::CComPtr;
using apm::base::CRefPtr;
using apm::base::IStream;
using apm::base::JsonParser;
using apm::base::JsonSerializationContext;
using apm::base::JsonValue;
using apm::base::JsonValueArray;
using apm::base::JsonValueDouble;
using apm::base::JsonValueObject;
using apm::base::JsonValueString;

namespace {

void Check(bool condition, const char* what) {
  if (!condition) {
    fprintf(stderr, "JSON fuzz check failed: %s\n", what);
    abort();
  }
}

bool IsKnownMessage(const std::string& message) {
  static const char* const exact[] = {"", "invalid character value", "invalid identifier value",
                                      "maximum nesting depth exceeded"};
  for (const char* text : exact) {
    if (message == text) return true;
  }
  static const char* const prefixes[] = {"invalid integer value ", "invalid float value ",
                                         "unexpected token ", "invalid token "};
  for (const char* prefix : prefixes) {
    if (message.compare(0, strlen(prefix), prefix) == 0) return true;
  }
  return false;
}

// A string comes back unchanged from escaping and parsing if it is valid UTF-8 of
// the Basic Multilingual Plane, in shortest form, with no code point that a "\u"
// escape drops (control characters other than the five short escapes, surrogates,
// 0xFFFE, 0xFFFF).
bool IsStableString(const std::string& text) {
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t size = text.size();
  for (size_t index = 0; index < size;) {
    const unsigned char byte = bytes[index];
    if (byte < 0x80) {
      if (byte < 32 && byte != 8 && byte != 9 && byte != 10 && byte != 12 && byte != 13) return false;
      ++index;
    } else if (byte >= 0xC2 && byte < 0xE0) {
      if (index + 1 >= size || (bytes[index + 1] & 0xC0) != 0x80) return false;
      index += 2;
    } else if (byte >= 0xE0 && byte < 0xF0) {
      if (index + 2 >= size || (bytes[index + 1] & 0xC0) != 0x80 || (bytes[index + 2] & 0xC0) != 0x80) {
        return false;
      }
      const unsigned int codePoint =
          ((byte & 0x0Fu) << 12) | ((bytes[index + 1] & 0x3Fu) << 6) | (bytes[index + 2] & 0x3Fu);
      if (codePoint < 0x800 || (codePoint >= 0xD800 && codePoint < 0xE000) || codePoint >= 0xFFFE) {
        return false;
      }
      index += 3;
    } else {
      return false;
    }
  }
  return true;
}

struct TreeFacts {
  bool finite = true;  // no "nan" or "inf" in the text form
  bool stable = true;  // the text form parses back to the same text form
  size_t depth = 0;
};

void Inspect(const JsonValue* value, size_t depth, TreeFacts& facts) {
  if (depth > facts.depth) facts.depth = depth;
  if (const JsonValueObject* object = dynamic_cast<const JsonValueObject*>(value)) {
    for (const auto& member : object->values) {
      if (!IsStableString(member.first)) facts.stable = false;
      Inspect(member.second.get(), depth + 1, facts);
    }
  } else if (const JsonValueArray* array = dynamic_cast<const JsonValueArray*>(value)) {
    for (const auto& element : array->values) Inspect(element.get(), depth + 1, facts);
  } else if (const JsonValueString* text = dynamic_cast<const JsonValueString*>(value)) {
    if (!IsStableString(text->value)) facts.stable = false;
  } else if (const JsonValueDouble* number = dynamic_cast<const JsonValueDouble*>(value)) {
    // The exponent of "%.17g" is dropped when parsed again, and "-0" comes back as 0.
    if (!std::isfinite(number->value)) facts.finite = false;
    const std::string shown = number->getString();
    if (shown.find('e') != std::string::npos || (number->value == 0 && std::signbit(number->value))) {
      facts.stable = false;
    }
  }
}

std::string Serialize(const JsonValue* value, bool pretty) {
  std::ostringstream out;
  JsonSerializationContext context;
  context.pretty = pretty;
  value->serializeCtx(out, context);
  Check(context.level == 0, "level restored");
  return out.str();
}

bool ParseStream(const std::string& text, CRefPtr<JsonValue>& value) {
  CComPtr<IStream> stream;
  apm::base::CreateMemoryStream(&stream);
  unsigned int written = 0;
  if (!text.empty()) stream->Write(text.data(), static_cast<unsigned int>(text.size()), &written);
  apm::base::_LARGE_INTEGER start;
  start.QuadPart = 0;
  apm::base::_ULARGE_INTEGER position;
  stream->Seek(start, apm::base::STREAM_SEEK_SET, &position);
  return JsonParser::parseimpl(stream.get(), value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  apm::base::FamError record(true);
  const std::string text(reinterpret_cast<const char*>(data), size);

  CRefPtr<JsonValue> value;
  const bool parsed = JsonParser::parseimpl(text, value);
  const std::string message = record.message;
  Check(parsed || IsKnownMessage(message), "known error message");

  CRefPtr<JsonValue> streamed;
  record.message.clear();
  Check(ParseStream(text, streamed) == parsed, "both readers agree on the result");
  if (!parsed) {
    Check(record.message == message, "both readers give the same message");
    return 0;
  }

  TreeFacts facts;
  Inspect(value.get(), 0, facts);
  const std::string compact = Serialize(value.get(), false);
  Check(Serialize(streamed.get(), false) == compact, "both readers give the same tree");

  CRefPtr<JsonValue> copy;
  value->Copy(copy);
  Check(Serialize(copy.get(), false) == compact, "a copy serializes the same");

  if (!facts.finite) return 0;  // "nan" and "inf" are no JSON
  CRefPtr<JsonValue> again;
  Check(JsonParser::parseimpl(compact, again), "compact text parses again");
  const std::string recompact = Serialize(again.get(), false);
  if (facts.stable) Check(recompact == compact, "compact text round-trips");

  if (facts.depth <= 64) {
    CRefPtr<JsonValue> fromPretty;
    Check(JsonParser::parseimpl(Serialize(value.get(), true), fromPretty), "pretty text parses again");
    Check(Serialize(fromPretty.get(), false) == recompact, "pretty and compact text give the same tree");
  }
  return 0;
}
