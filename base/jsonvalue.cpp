#include "base/jsonvalue.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>

#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

// Writes straight into the stream's buffer; serialization emits many short pieces
// and the buffer takes them without a sentry for each.
class StreamWriter {
 public:
  explicit StreamWriter(std::ostream& out) : out_(out), buffer_(out.rdbuf()) {}

  void put(char c) {
    if (buffer_ == nullptr || buffer_->sputc(c) == std::char_traits<char>::eof()) fail();
  }
  void write(const char* data, size_t length) {
    if (length == 0) return;
    if (buffer_ == nullptr ||
        buffer_->sputn(data, static_cast<std::streamsize>(length)) != static_cast<std::streamsize>(length)) {
      fail();
    }
  }
  void write(const std::string& text) { write(text.data(), text.size()); }

  // A line feed and two blanks per level.
  void newLine(uint32_t level) {
    static const char blanks[] = "                                                                ";
    put('\n');
    size_t remaining = static_cast<size_t>(level) * 2;
    while (remaining > 0) {
      size_t chunk = remaining < sizeof(blanks) - 1 ? remaining : sizeof(blanks) - 1;
      write(blanks, chunk);
      remaining -= chunk;
    }
  }

 private:
  void fail() { out_.setstate(std::ios_base::badbit); }

  std::ostream& out_;
  std::streambuf* buffer_;
};

// Byte classes of escapeJsonString.
enum EscapeClass : unsigned char {
  kPlain = 0,       // written as it stands
  kShortEscape,     // backslash and a letter or the byte itself
  kControl,         // "\u" and four hexadecimal digits
  kLead2,           // first byte of a two-byte sequence
  kLead3,
  kLead4
};

struct EscapeTable {
  unsigned char byteClass[256];
  char shortEscape[256];

  EscapeTable() {
    for (int byte = 0; byte < 256; ++byte) {
      shortEscape[byte] = 0;
      if (byte < 32) {
        byteClass[byte] = kControl;
      } else if (byte < 0xC0) {
        byteClass[byte] = kPlain;  // ASCII and stray continuation bytes
      } else if (byte < 0xE0) {
        byteClass[byte] = kLead2;
      } else if (byte < 0xF0) {
        byteClass[byte] = kLead3;
      } else if (byte < 0xF8) {
        byteClass[byte] = kLead4;
      } else {
        byteClass[byte] = kPlain;
      }
    }
    const struct {
      unsigned char byte;
      char letter;
    } escapes[] = {{8, 'b'}, {9, 't'}, {10, 'n'}, {12, 'f'}, {13, 'r'}, {'"', '"'}, {'\\', '\\'}};
    for (const auto& escape : escapes) {
      byteClass[escape.byte] = kShortEscape;
      shortEscape[escape.byte] = escape.letter;
    }
  }
};

const EscapeTable& escapeTable() {
  static const EscapeTable table;
  return table;
}

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// "\u" and the code point in lower-case hexadecimal, at least four digits.
void writeUnicodeEscape(StreamWriter& writer, uint32_t codePoint) {
  static const char digits[] = "0123456789abcdef";
  char text[8];
  int count = 4;
  while (count < 6 && (codePoint >> (4 * count)) != 0) ++count;
  text[0] = '\\';
  text[1] = 'u';
  for (int index = 0; index < count; ++index) {
    text[2 + index] = digits[(codePoint >> (4 * (count - 1 - index))) & 0xF];
  }
  writer.write(text, static_cast<size_t>(2 + count));
}

void writeInteger(StreamWriter& writer, int64_t value) {
  char text[24];
  std::to_chars_result result = std::to_chars(text, text + sizeof(text), value);
  writer.write(text, static_cast<size_t>(result.ptr - text));
}

}  // namespace

// ---------------------------------------------------------------------------
// JsonValue

JsonValueObject* JsonValue::toObject() {
  JsonValue* self = this;
  // Callers use it on pointers that may be null; keep the compiler from assuming
  // `this` is never null and dropping the check.
  asm("" : "+r"(self));
  return self == nullptr ? nullptr : dynamic_cast<JsonValueObject*>(self);
}

JsonValueArray* JsonValue::toArray() {
  JsonValue* self = this;
  asm("" : "+r"(self));
  return self == nullptr ? nullptr : dynamic_cast<JsonValueArray*>(self);
}

static void escapeInto(StreamWriter& writer, const std::string& text) {
  const EscapeTable& table = escapeTable();
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t size = text.size();
  writer.put('"');
  size_t runStart = 0;
  size_t index = 0;
  while (index < size) {
    const unsigned char byte = bytes[index];
    const unsigned char byteClass = table.byteClass[byte];
    if (byteClass == kPlain) {
      ++index;
      continue;
    }
    uint32_t codePoint = 0;
    size_t sequence = 1;
    switch (byteClass) {
      case kLead2:
        if (index + 1 < size && isContinuation(bytes[index + 1])) {
          codePoint = (static_cast<uint32_t>(byte & 0x1F) << 6) | (bytes[index + 1] & 0x3F);
          sequence = 2;
        }
        break;
      case kLead3:
        if (index + 2 < size && isContinuation(bytes[index + 1]) && isContinuation(bytes[index + 2])) {
          codePoint = (static_cast<uint32_t>(byte & 0x0F) << 12) |
                      (static_cast<uint32_t>(bytes[index + 1] & 0x3F) << 6) | (bytes[index + 2] & 0x3F);
          sequence = 3;
        }
        break;
      case kLead4:
        if (index + 3 < size && isContinuation(bytes[index + 1]) && isContinuation(bytes[index + 2]) &&
            isContinuation(bytes[index + 3])) {
          codePoint = (static_cast<uint32_t>(byte & 0x07) << 18) |
                      (static_cast<uint32_t>(bytes[index + 1] & 0x3F) << 12) |
                      (static_cast<uint32_t>(bytes[index + 2] & 0x3F) << 6) | (bytes[index + 3] & 0x3F);
          sequence = 4;
        }
        break;
      default:
        break;
    }
    if (sequence == 1 && byteClass >= kLead2) {
      // A broken or cut-off sequence: the lead byte goes out as it stands.
      ++index;
      continue;
    }
    writer.write(text.data() + runStart, index - runStart);
    if (byteClass == kShortEscape) {
      const char escape[2] = {'\\', table.shortEscape[byte]};
      writer.write(escape, 2);
    } else if (byteClass == kControl) {
      writeUnicodeEscape(writer, byte);
    } else {
      writeUnicodeEscape(writer, codePoint);
    }
    index += sequence;
    runStart = index;
  }
  writer.write(text.data() + runStart, size - runStart);
  writer.put('"');
}

void JsonValue::escapeJsonString(std::ostream& out, const std::string& text) {
  StreamWriter writer(out);
  escapeInto(writer, text);
}

// ---------------------------------------------------------------------------
// Scalars

void JsonValueString::serializeCtx(std::ostream& out, JsonSerializationContext&) const {
  escapeJsonString(out, value);
}

bool JsonValueString::getInteger(long& result) const { return StringToInt(value, result); }

void JsonValueString::Copy(CRefPtr<JsonValue>& copy) const { copy = new JsonValueString(value); }

std::string JsonValueInteger::getString() const {
  char text[24];
  std::to_chars_result result = std::to_chars(text, text + sizeof(text), value);
  return std::string(text, result.ptr);
}

void JsonValueInteger::serializeCtx(std::ostream& out, JsonSerializationContext&) const {
  StreamWriter writer(out);
  writeInteger(writer, value);
}

bool JsonValueInteger::getInteger(long& result) const {
  result = static_cast<long>(value);
  return true;
}

void JsonValueInteger::Copy(CRefPtr<JsonValue>& copy) const { copy = new JsonValueInteger(value); }

std::string JsonValueDouble::getString() const {
  if (std::isnan(value)) return std::signbit(value) ? "-nan" : "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  // The same text as "%.*g" with precision 17, without the locale.
  char text[40];
  std::to_chars_result result =
      std::to_chars(text, text + sizeof(text), value, std::chars_format::general, 17);
  return std::string(text, result.ptr);
}

void JsonValueDouble::serializeCtx(std::ostream& out, JsonSerializationContext&) const {
  StreamWriter writer(out);
  writer.write(getString());
}

bool JsonValueDouble::getInteger(long& result) const {
  // 2^63 as a double; the range of long is [-2^63, 2^63).
  const double limit = 9223372036854775808.0;
  if (std::isnan(value) || value >= limit || value < -limit) {
    result = LONG_MIN;
  } else {
    result = static_cast<long>(value);
  }
  return true;
}

void JsonValueDouble::Copy(CRefPtr<JsonValue>& copy) const { copy = new JsonValueDouble(value); }

void JsonValueBoolean::serializeCtx(std::ostream& out, JsonSerializationContext&) const {
  StreamWriter writer(out);
  if (value) {
    writer.write("true", 4);
  } else {
    writer.write("false", 5);
  }
}

bool JsonValueBoolean::getInteger(long& result) const {
  result = value ? 1 : 0;
  return true;
}

void JsonValueBoolean::Copy(CRefPtr<JsonValue>& copy) const { copy = new JsonValueBoolean(value); }

void JsonValueNull::serializeCtx(std::ostream& out, JsonSerializationContext&) const {
  StreamWriter writer(out);
  writer.write("null", 4);
}

void JsonValueNull::Copy(CRefPtr<JsonValue>& copy) const { copy = new JsonValueNull(); }

// ---------------------------------------------------------------------------
// JsonValueObject

void JsonValueObject::serializeCtx(std::ostream& out, JsonSerializationContext& context) const {
  StreamWriter writer(out);
  writer.put('{');
  ++context.level;
  const bool indent = context.pretty && !values.empty();
  if (indent) writer.newLine(context.level);
  bool first = true;
  for (const auto& entry : values) {
    if (!first) {
      writer.put(',');
      if (context.pretty) writer.newLine(context.level);
    }
    first = false;
    escapeInto(writer, entry.first);
    writer.put(':');
    if (context.pretty) writer.put(' ');
    entry.second->serializeCtx(out, context);
  }
  if (context.level > 0) --context.level;
  if (indent) writer.newLine(context.level);
  writer.put('}');
}

void JsonValueObject::Copy(CRefPtr<JsonValue>& copy) const {
  CRefPtr<JsonValueObject> result(new JsonValueObject());
  for (const auto& entry : values) {
    CRefPtr<JsonValue> member;
    entry.second->Copy(member);
    result->values.emplace_hint(result->values.end(), entry.first, std::move(member));
  }
  copy = result.get();
}

void JsonValueObject::setValue(const std::string& key, JsonValue* value) {
  if (value == nullptr) {
    values.erase(key);
    return;
  }
  values[key] = value;
}

void JsonValueObject::setValue(const std::string& key, int value) {
  setValue(key, new JsonValueInteger(value));
}

void JsonValueObject::setValue(const std::string& key, unsigned int value) {
  setValue(key, new JsonValueInteger(value));
}

void JsonValueObject::setValue(const std::string& key, long value) {
  setValue(key, new JsonValueInteger(value));
}

void JsonValueObject::setValue(const std::string& key, unsigned long value) {
  setValue(key, new JsonValueInteger(static_cast<int64_t>(value)));
}

void JsonValueObject::setValue(const std::string& key, const char* value) {
  setValue(key, new JsonValueString(value == nullptr ? std::string() : std::string(value)));
}

void JsonValueObject::setValue(const std::string& key, const std::string& value) {
  setValue(key, new JsonValueString(value));
}

void JsonValueObject::setValueIfNotEmpty(const std::string& key, const std::string& value) {
  if (!value.empty()) setValue(key, value);
}

bool JsonValueObject::getValue(const std::string& key, CRefPtr<JsonValue>& value) const {
  Members::const_iterator found = values.find(key);
  if (found == values.end()) return false;
  value = found->second;
  return true;
}

bool JsonValueObject::getValue(const std::string& key, CRefPtr<JsonValueObject>& value) const {
  Members::const_iterator found = values.find(key);
  if (found == values.end() || found->second->getType() != json_type_object) return false;
  value = static_cast<JsonValueObject*>(found->second.get());
  return true;
}

bool JsonValueObject::getValue(const std::string& key, CRefPtr<JsonValueArray>& value) const {
  Members::const_iterator found = values.find(key);
  if (found == values.end() || found->second->getType() != json_type_array) return false;
  value = static_cast<JsonValueArray*>(found->second.get());
  return true;
}

bool JsonValueObject::getValue(const std::string& key, std::string& value) const {
  Members::const_iterator found = values.find(key);
  if (found == values.end()) return false;
  value = found->second->getString();
  return true;
}

bool JsonValueObject::getValue(const std::string& key, long& value) const {
  Members::const_iterator found = values.find(key);
  if (found == values.end()) return false;
  return found->second->getInteger(value);
}

bool JsonValueObject::getValue(const std::string& key, unsigned long& value) const {
  long number = static_cast<long>(value);
  const bool converted = getValue(key, number);
  value = static_cast<unsigned long>(number);
  return converted;
}

bool JsonValueObject::getValue(const std::string& key, unsigned int& value) const {
  long number = 0;
  if (!getValue(key, number)) return false;
  value = static_cast<unsigned int>(number);
  return true;
}

// ---------------------------------------------------------------------------
// JsonValueArray

void JsonValueArray::serializeCtx(std::ostream& out, JsonSerializationContext& context) const {
  StreamWriter writer(out);
  writer.put('[');
  ++context.level;
  const bool indent = context.pretty && !values.empty();
  if (indent) writer.newLine(context.level);
  bool first = true;
  for (const CRefPtr<JsonValue>& element : values) {
    if (!first) {
      writer.put(',');
      if (context.pretty) writer.newLine(context.level);
    }
    first = false;
    element->serializeCtx(out, context);
  }
  if (context.level > 0) --context.level;
  if (indent) writer.newLine(context.level);
  writer.put(']');
}

void JsonValueArray::Copy(CRefPtr<JsonValue>& copy) const {
  CRefPtr<JsonValueArray> result(new JsonValueArray());
  result->values.reserve(values.size());
  for (const CRefPtr<JsonValue>& element : values) {
    CRefPtr<JsonValue> member;
    element->Copy(member);
    result->values.push_back(std::move(member));
  }
  copy = result.get();
}

void JsonValueArray::appendValue(JsonValue* value) {
  if (value != nullptr) values.emplace_back(value);
}

}  // namespace base
}  // namespace apm
