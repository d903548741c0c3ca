#include "base/jsonvalue.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <typeinfo>

#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

// Collects the output of one serialization in a block of its own and hands it to
// the stream's buffer in large pieces: a tree is written as many short pieces, and
// a stream buffer takes each piece at a cost. Whatever is left goes out when the
// writer dies.
class StreamWriter {
 public:
  explicit StreamWriter(std::ostream& out) : out_(out) {}
  ~StreamWriter() { flush(); }
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  void put(char c) {
    if (used_ == sizeof(block_)) flush();
    block_[used_++] = c;
  }
  void write(const char* data, size_t length) {
    if (length > sizeof(block_) - used_) {
      flush();
      if (length >= sizeof(block_)) {
        pass(data, length);
        return;
      }
    }
    memcpy(block_ + used_, data, length);
    used_ += length;
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

  // The stream, with everything written so far handed over.
  std::ostream& stream() {
    flush();
    return out_;
  }

  void flush() {
    if (used_ == 0) return;
    pass(block_, used_);
    used_ = 0;
  }

 private:
  void pass(const char* data, size_t length) {
    std::streambuf* buffer = out_.rdbuf();
    if (buffer == nullptr ||
        buffer->sputn(data, static_cast<std::streamsize>(length)) != static_cast<std::streamsize>(length)) {
      out_.setstate(std::ios_base::badbit);
    }
  }

  std::ostream& out_;
  size_t used_ = 0;
  char block_[8192];
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

// The text of JsonValueDouble::getString into `text` (at least 40 bytes); returns
// its length.
size_t formatDouble(double value, char* text) {
  const char* special = nullptr;
  if (std::isnan(value)) {
    special = std::signbit(value) ? "-nan" : "nan";
  } else if (std::isinf(value)) {
    special = value < 0 ? "-inf" : "inf";
  }
  if (special != nullptr) {
    const size_t length = strlen(special);
    memcpy(text, special, length);
    return length;
  }
  // The same text as "%.*g" with precision 17, without the locale.
  std::to_chars_result result = std::to_chars(text, text + 40, value, std::chars_format::general, 17);
  return static_cast<size_t>(result.ptr - text);
}

void writeValue(StreamWriter& writer, const JsonValue& value, JsonSerializationContext& context);

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
  StreamWriter writer(out);
  escapeInto(writer, value);
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
  char text[40];
  return std::string(text, formatDouble(value, text));
}

void JsonValueDouble::serializeCtx(std::ostream& out, JsonSerializationContext&) const {
  StreamWriter writer(out);
  char text[40];
  writer.write(text, formatDouble(value, text));
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
// Writing a tree. The classes of this file are written through one StreamWriter
// for the whole tree; a value of another class derived from JsonValue writes
// itself through its own serializeCtx.

namespace {

void writeObject(StreamWriter& writer, const JsonValueObject& object, JsonSerializationContext& context) {
  writer.put('{');
  ++context.level;
  const bool indent = context.pretty && !object.values.empty();
  if (indent) writer.newLine(context.level);
  bool first = true;
  for (const auto& entry : object.values) {
    if (!first) {
      writer.put(',');
      if (context.pretty) writer.newLine(context.level);
    }
    first = false;
    escapeInto(writer, entry.first);
    writer.put(':');
    if (context.pretty) writer.put(' ');
    writeValue(writer, *entry.second, context);
  }
  if (context.level > 0) --context.level;
  if (indent) writer.newLine(context.level);
  writer.put('}');
}

void writeArray(StreamWriter& writer, const JsonValueArray& array, JsonSerializationContext& context) {
  writer.put('[');
  ++context.level;
  const bool indent = context.pretty && !array.values.empty();
  if (indent) writer.newLine(context.level);
  bool first = true;
  for (const CRefPtr<JsonValue>& element : array.values) {
    if (!first) {
      writer.put(',');
      if (context.pretty) writer.newLine(context.level);
    }
    first = false;
    writeValue(writer, *element, context);
  }
  if (context.level > 0) --context.level;
  if (indent) writer.newLine(context.level);
  writer.put(']');
}

void writeValue(StreamWriter& writer, const JsonValue& value, JsonSerializationContext& context) {
  const std::type_info& type = typeid(value);
  switch (value.getType()) {
    case json_type_string:
      if (type == typeid(JsonValueString)) {
        escapeInto(writer, static_cast<const JsonValueString&>(value).value);
        return;
      }
      break;
    case json_type_number:
      if (type == typeid(JsonValueInteger)) {
        writeInteger(writer, static_cast<const JsonValueInteger&>(value).value);
        return;
      }
      if (type == typeid(JsonValueDouble)) {
        char text[40];
        writer.write(text, formatDouble(static_cast<const JsonValueDouble&>(value).value, text));
        return;
      }
      break;
    case json_type_object:
      if (type == typeid(JsonValueObject)) {
        writeObject(writer, static_cast<const JsonValueObject&>(value), context);
        return;
      }
      break;
    case json_type_array:
      if (type == typeid(JsonValueArray)) {
        writeArray(writer, static_cast<const JsonValueArray&>(value), context);
        return;
      }
      break;
    case json_type_true:
    case json_type_false:
      if (type == typeid(JsonValueBoolean)) {
        if (static_cast<const JsonValueBoolean&>(value).value) {
          writer.write("true", 4);
        } else {
          writer.write("false", 5);
        }
        return;
      }
      break;
    case json_type_null:
      if (type == typeid(JsonValueNull)) {
        writer.write("null", 4);
        return;
      }
      break;
  }
  value.serializeCtx(writer.stream(), context);
}

}  // namespace

// ---------------------------------------------------------------------------
// JsonValueObject

void JsonValueObject::serializeCtx(std::ostream& out, JsonSerializationContext& context) const {
  StreamWriter writer(out);
  writeValue(writer, *this, context);
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
  writeValue(writer, *this, context);
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
