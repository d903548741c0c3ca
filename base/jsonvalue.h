// The JSON value tree: JsonValue and its seven classes (string, integer, double,
// object, array, boolean, null), reference-counted through IRefCounted.
//
// A tree is built by the parser (base/jsonparser.h) or by code, and written out with
// serializeCtx. Containers own their children through CRefPtr; a child may be held
// by several containers at once. Objects keep their keys in a std::map, so keys are
// unique and sorted bytewise, and serialization writes them in that order.
//
// Copy, serializeCtx and the destruction of a tree recurse once per level of
// nesting. Trees come from the parser, which refuses documents nested deeper than
// JsonParser::maxNestingDepth, or from code, which builds a few levels; at that
// depth the recursion fits a worker thread's default stack with room to spare.
//
// Values are not locked: a tree belongs to one thread. Reference counts are
// atomic, so a subtree may be shared read-only between threads.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "base/refcounted.h"

namespace apm {
namespace base {

class JsonValueObject;
class JsonValueArray;

// What getType returns. Integers and doubles share json_type_number; a boolean's
// type tells its value.
enum JsonValueType {
  json_type_string = 0,
  json_type_number = 1,
  json_type_object = 2,
  json_type_array = 3,
  json_type_true = 4,
  json_type_false = 5,
  json_type_null = 6
};

// State of one serialization: compact or indented by two blanks per level.
struct JsonSerializationContext {
  bool pretty = false;
  uint32_t level = 0;
};

class JsonValue : public IRefCounted {
 public:
  ~JsonValue() override = default;

  virtual JsonValueType getType() const = 0;
  // The value as text: a string as it is, a number in decimal, "(...)" for an
  // object, "[...]" for an array, "true", "false", "null".
  virtual std::string getString() const = 0;
  virtual void serializeCtx(std::ostream& out, JsonSerializationContext& context) const = 0;
  // The value as a whole number; false where there is none.
  virtual bool getInteger(long& value) const = 0;
  virtual bool isEmpty() const = 0;
  // Stores a deep copy, made of new objects, in `copy`.
  virtual void Copy(CRefPtr<JsonValue>& copy) const = 0;

  // The value as an object or array; null for another type and for a null `this`.
  JsonValueObject* toObject();
  JsonValueArray* toArray();

  // Writes `text` as a JSON string literal, in double quotes: control bytes escaped,
  // every complete UTF-8 sequence as one "\u" escape of its code point (above 0xFFFF
  // with 5 or 6 hexadecimal digits), other bytes as they stand.
  static void escapeJsonString(std::ostream& out, const std::string& text);
};

class JsonValueString : public JsonValue {
 public:
  explicit JsonValueString(const std::string& text) : value(text) {}
  explicit JsonValueString(std::string&& text) : value(std::move(text)) {}

  JsonValueType getType() const override { return json_type_string; }
  std::string getString() const override { return value; }
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  // StringToInt of the text: false unless the whole text is a number.
  bool getInteger(long& result) const override;
  bool isEmpty() const override { return value.empty(); }
  void Copy(CRefPtr<JsonValue>& copy) const override;

  std::string value;
};

class JsonValueInteger : public JsonValue {
 public:
  explicit JsonValueInteger(int64_t number) : value(number) {}

  JsonValueType getType() const override { return json_type_number; }
  std::string getString() const override;
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  bool getInteger(long& result) const override;
  bool isEmpty() const override { return false; }
  void Copy(CRefPtr<JsonValue>& copy) const override;

  int64_t value;
};

class JsonValueDouble : public JsonValue {
 public:
  explicit JsonValueDouble(double number) : value(number) {}

  JsonValueType getType() const override { return json_type_number; }
  // "nan", "-nan", "inf", "-inf", or "%.*g" with precision 17.
  std::string getString() const override;
  // getString, unquoted: a non-finite value comes out as a bare word.
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  // The value cut towards zero; a value outside the range of long (or not a
  // number) gives LONG_MIN, as the processor's conversion does.
  bool getInteger(long& result) const override;
  bool isEmpty() const override { return false; }
  void Copy(CRefPtr<JsonValue>& copy) const override;

  double value;
};

class JsonValueObject : public JsonValue {
 public:
  typedef std::map<std::string, CRefPtr<JsonValue>> Members;

  JsonValueType getType() const override { return json_type_object; }
  std::string getString() const override { return "(...)"; }
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  bool getInteger(long&) const override { return false; }
  bool isEmpty() const override { return values.empty(); }
  void Copy(CRefPtr<JsonValue>& copy) const override;

  // Replace the value under `key` or insert it. A null JsonValue* erases the key.
  // The integer forms store a JsonValueInteger; the text forms a JsonValueString,
  // a null const char* counting as the empty text.
  void setValue(const std::string& key, JsonValue* value);
  void setValue(const std::string& key, int value);
  void setValue(const std::string& key, unsigned int value);
  void setValue(const std::string& key, long value);
  void setValue(const std::string& key, unsigned long value);
  void setValue(const std::string& key, const char* value);
  void setValue(const std::string& key, const std::string& value);
  // Does nothing for an empty `value`.
  void setValueIfNotEmpty(const std::string& key, const std::string& value);

  // True if `key` is present.
  bool getValue(const std::string& key, CRefPtr<JsonValue>& value) const;
  // True if `key` holds an object, or an array.
  bool getValue(const std::string& key, CRefPtr<JsonValueObject>& value) const;
  bool getValue(const std::string& key, CRefPtr<JsonValueArray>& value) const;
  // True if `key` is present; getString of whatever stands there.
  bool getValue(const std::string& key, std::string& value) const;
  // getInteger of the value; false if absent or not convertible.
  bool getValue(const std::string& key, long& value) const;
  bool getValue(const std::string& key, unsigned long& value) const;
  // As the long form, cut to 32 bits and stored only on success.
  bool getValue(const std::string& key, unsigned int& value) const;

  // The members; code that fills this map directly must not store null pointers.
  Members values;
};

class JsonValueArray : public JsonValue {
 public:
  JsonValueType getType() const override { return json_type_array; }
  std::string getString() const override { return "[...]"; }
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  bool getInteger(long&) const override { return false; }
  bool isEmpty() const override { return values.empty(); }
  void Copy(CRefPtr<JsonValue>& copy) const override;

  // Appends `value`; a null pointer is ignored.
  void appendValue(JsonValue* value);

  // The elements; code that fills this vector directly must not store null pointers.
  std::vector<CRefPtr<JsonValue>> values;
};

class JsonValueBoolean : public JsonValue {
 public:
  explicit JsonValueBoolean(bool flag) : value(flag) {}

  JsonValueType getType() const override { return value ? json_type_true : json_type_false; }
  std::string getString() const override { return value ? "true" : "false"; }
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  bool getInteger(long& result) const override;
  bool isEmpty() const override { return false; }
  void Copy(CRefPtr<JsonValue>& copy) const override;

  bool value;
};

class JsonValueNull : public JsonValue {
 public:
  JsonValueType getType() const override { return json_type_null; }
  std::string getString() const override { return "null"; }
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override;
  bool getInteger(long&) const override { return false; }
  bool isEmpty() const override { return true; }
  void Copy(CRefPtr<JsonValue>& copy) const override;
};

}  // namespace base
}  // namespace apm
