#include "base/jsonvalue.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/workerstack.h"

namespace apm {
namespace base {
namespace {

std::string Serialize(const JsonValue* value, bool pretty = false, uint32_t level = 0) {
  std::ostringstream out;
  JsonSerializationContext context;
  context.pretty = pretty;
  context.level = level;
  value->serializeCtx(out, context);
  EXPECT_EQ(context.level, level);
  return out.str();
}

std::string Escape(const std::string& text) {
  std::ostringstream out;
  JsonValue::escapeJsonString(out, text);
  return out.str();
}

// Calls toObject/toArray through a pointer that may be null, as callers do with the
// result of a lookup.
__attribute__((noinline, no_sanitize("undefined"))) bool NullThisGivesNull(JsonValue* value) {
  return value->toObject() == nullptr && value->toArray() == nullptr;
}

// ---------------------------------------------------------------------------
// Types and conversions

TEST(JsonValue, TypeNumbersStringsAndEmptiness) {
  struct Row {
    CRefPtr<JsonValue> value;
    JsonValueType type;
    std::string text;
    bool empty;
  };
  const std::vector<Row> rows = {
      {new JsonValueString("abc"), json_type_string, "abc", false},
      {new JsonValueString(""), json_type_string, "", true},
      {new JsonValueInteger(-42), json_type_number, "-42", false},
      {new JsonValueInteger(INT64_MIN), json_type_number, "-9223372036854775808", false},
      {new JsonValueDouble(2.5), json_type_number, "2.5", false},
      {new JsonValueObject(), json_type_object, "(...)", true},
      {new JsonValueArray(), json_type_array, "[...]", true},
      {new JsonValueBoolean(true), json_type_true, "true", false},
      {new JsonValueBoolean(false), json_type_false, "false", false},
      {new JsonValueNull(), json_type_null, "null", true},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.value->getType(), row.type) << row.text;
    EXPECT_EQ(row.value->getString(), row.text);
    EXPECT_EQ(row.value->isEmpty(), row.empty) << row.text;
  }
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  object->setValue("k", 1);
  EXPECT_FALSE(object->isEmpty());
  CRefPtr<JsonValueArray> array(new JsonValueArray());
  array->appendValue(new JsonValueNull());
  EXPECT_FALSE(array->isEmpty());
}

TEST(JsonValue, GetIntegerOfEveryClass) {
  long number = 7;
  EXPECT_TRUE(JsonValueString("42").getInteger(number));
  EXPECT_EQ(number, 42);
  EXPECT_TRUE(JsonValueString("-3").getInteger(number));
  EXPECT_EQ(number, -3);
  EXPECT_FALSE(JsonValueString("12x").getInteger(number));
  EXPECT_EQ(number, 12);  // written as StringToInt writes it
  EXPECT_FALSE(JsonValueString("").getInteger(number));
  EXPECT_FALSE(JsonValueString("abc").getInteger(number));

  EXPECT_TRUE(JsonValueInteger(INT64_MAX).getInteger(number));
  EXPECT_EQ(number, LONG_MAX);

  EXPECT_TRUE(JsonValueDouble(2.9).getInteger(number));
  EXPECT_EQ(number, 2);
  EXPECT_TRUE(JsonValueDouble(-2.9).getInteger(number));
  EXPECT_EQ(number, -2);
  EXPECT_TRUE(JsonValueDouble(std::numeric_limits<double>::infinity()).getInteger(number));
  EXPECT_EQ(number, LONG_MIN);
  EXPECT_TRUE(JsonValueDouble(std::nan("")).getInteger(number));
  EXPECT_EQ(number, LONG_MIN);
  EXPECT_TRUE(JsonValueDouble(-9223372036854775808.0).getInteger(number));
  EXPECT_EQ(number, LONG_MIN);

  EXPECT_TRUE(JsonValueBoolean(true).getInteger(number));
  EXPECT_EQ(number, 1);
  EXPECT_TRUE(JsonValueBoolean(false).getInteger(number));
  EXPECT_EQ(number, 0);

  number = 5;
  EXPECT_FALSE(JsonValueObject().getInteger(number));
  EXPECT_FALSE(JsonValueArray().getInteger(number));
  EXPECT_FALSE(JsonValueNull().getInteger(number));
  EXPECT_EQ(number, 5);
}

TEST(JsonValueDouble, TextOfSpecialAndOrdinaryValues) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(JsonValueDouble(std::nan("")).getString(), "nan");
  EXPECT_EQ(JsonValueDouble(-std::nan("")).getString(), "-nan");
  EXPECT_EQ(JsonValueDouble(infinity).getString(), "inf");
  EXPECT_EQ(JsonValueDouble(-infinity).getString(), "-inf");
  EXPECT_EQ(JsonValueDouble(3.0).getString(), "3");
  EXPECT_EQ(JsonValueDouble(0.1).getString(), "0.10000000000000001");
  EXPECT_EQ(JsonValueDouble(1e300).getString(), "1.0000000000000001e+300");
  EXPECT_EQ(JsonValueDouble(1e-5).getString(), "1.0000000000000001e-05");
  EXPECT_EQ(JsonValueDouble(-0.0).getString(), "-0");
  EXPECT_EQ(JsonValueDouble(123456789012345678.0).getString(), "1.2345678901234568e+17");
}

TEST(JsonValueDouble, TextMatchesPrintfWithPrecisionSeventeen) {
  std::mt19937_64 random(12345);
  std::uniform_int_distribution<uint64_t> bits;
  for (int round = 0; round < 20000; ++round) {
    uint64_t pattern = bits(random);
    double value;
    memcpy(&value, &pattern, sizeof(value));
    if (!std::isfinite(value)) continue;
    if (round % 2 == 0) value = static_cast<double>(static_cast<int64_t>(pattern % 2000001) - 1000000) / 64.0;
    char expected[64];
    snprintf(expected, sizeof(expected), "%.*g", 17, value);
    ASSERT_EQ(JsonValueDouble(value).getString(), expected);
  }
}

TEST(JsonValue, ThreeZeroSerializesAsThree) {
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueDouble(3.0)).get()), "3");
}

TEST(JsonValue, NonFiniteDoublesSerializeAsBareWords) {
  CRefPtr<JsonValueArray> array(new JsonValueArray());
  array->appendValue(new JsonValueDouble(std::numeric_limits<double>::infinity()));
  array->appendValue(new JsonValueDouble(-std::numeric_limits<double>::infinity()));
  array->appendValue(new JsonValueDouble(std::nan("")));
  EXPECT_EQ(Serialize(array.get()), "[inf,-inf,nan]");
}

TEST(JsonValue, ToObjectAndToArrayByType) {
  CRefPtr<JsonValue> object(new JsonValueObject());
  CRefPtr<JsonValue> array(new JsonValueArray());
  CRefPtr<JsonValue> text(new JsonValueString("x"));
  EXPECT_EQ(object->toObject(), object.get());
  EXPECT_EQ(object->toArray(), nullptr);
  EXPECT_EQ(array->toArray(), array.get());
  EXPECT_EQ(array->toObject(), nullptr);
  EXPECT_EQ(text->toObject(), nullptr);
  EXPECT_EQ(text->toArray(), nullptr);
  JsonValue* volatile missing = nullptr;
  EXPECT_TRUE(NullThisGivesNull(missing));
}

// ---------------------------------------------------------------------------
// Objects and arrays

TEST(JsonValueObject, SetValueOverloadsStoreTheRightClasses) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  object->setValue("int", -5);
  object->setValue("uint", 4294967295u);
  object->setValue("long", -5000000000L);
  object->setValue("ulong", ULONG_MAX);
  object->setValue("chars", "text");
  object->setValue("nullchars", static_cast<const char*>(nullptr));
  object->setValue("string", std::string("more"));
  object->setValue("value", new JsonValueBoolean(true));
  EXPECT_EQ(Serialize(object.get()),
            "{\"chars\":\"text\",\"int\":-5,\"long\":-5000000000,\"nullchars\":\"\",\"string\":\"more\","
            "\"uint\":4294967295,\"ulong\":-1,\"value\":true}");
  for (const char* key : {"int", "uint", "long", "ulong"}) {
    EXPECT_NE(dynamic_cast<JsonValueInteger*>(object->values[key].get()), nullptr) << key;
  }
  EXPECT_NE(dynamic_cast<JsonValueString*>(object->values["chars"].get()), nullptr);
}

TEST(JsonValueObject, SetValueReplacesAndNullErases) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  object->setValue("a", 1);
  object->setValue("a", "one");
  EXPECT_EQ(Serialize(object.get()), "{\"a\":\"one\"}");
  object->setValue("a", static_cast<JsonValue*>(nullptr));
  EXPECT_TRUE(object->isEmpty());
  object->setValue("missing", static_cast<JsonValue*>(nullptr));
  EXPECT_TRUE(object->isEmpty());
}

TEST(JsonValueObject, SetValueIfNotEmptySkipsEmptyText) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  object->setValueIfNotEmpty("a", "");
  EXPECT_TRUE(object->isEmpty());
  object->setValue("b", 2);
  object->setValueIfNotEmpty("b", "");
  object->setValueIfNotEmpty("c", "x");
  EXPECT_EQ(Serialize(object.get()), "{\"b\":2,\"c\":\"x\"}");
}

TEST(JsonValueObject, KeysAreSortedBytewise) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  for (const char* key : {"b", "a", "B", "\xc3\xa4", "aa", ""}) object->setValue(key, 0);
  EXPECT_EQ(Serialize(object.get()), "{\"\":0,\"B\":0,\"a\":0,\"aa\":0,\"b\":0,\"\\u00e4\":0}");
}

TEST(JsonValueObject, GetValueOverloads) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  CRefPtr<JsonValueObject> inner(new JsonValueObject());
  CRefPtr<JsonValueArray> list(new JsonValueArray());
  object->setValue("object", inner.get());
  object->setValue("array", list.get());
  object->setValue("number", 12);
  object->setValue("numeric", "34");
  object->setValue("text", "abc");
  object->setValue("double", new JsonValueDouble(-7.9));
  object->setValue("big", 0x100000005L);
  object->setValue("negative", -1);

  CRefPtr<JsonValue> any;
  EXPECT_TRUE(object->getValue("text", any));
  EXPECT_EQ(any->getString(), "abc");
  EXPECT_FALSE(object->getValue("absent", any));

  CRefPtr<JsonValueObject> gotObject;
  EXPECT_TRUE(object->getValue("object", gotObject));
  EXPECT_EQ(gotObject.get(), inner.get());
  EXPECT_FALSE(object->getValue("array", gotObject));
  EXPECT_FALSE(object->getValue("absent", gotObject));
  EXPECT_EQ(gotObject.get(), inner.get());

  CRefPtr<JsonValueArray> gotArray;
  EXPECT_TRUE(object->getValue("array", gotArray));
  EXPECT_EQ(gotArray.get(), list.get());
  EXPECT_FALSE(object->getValue("object", gotArray));

  std::string text;
  EXPECT_TRUE(object->getValue("number", text));
  EXPECT_EQ(text, "12");
  EXPECT_TRUE(object->getValue("object", text));
  EXPECT_EQ(text, "(...)");
  EXPECT_TRUE(object->getValue("array", text));
  EXPECT_EQ(text, "[...]");
  text = "kept";
  EXPECT_FALSE(object->getValue("absent", text));
  EXPECT_EQ(text, "kept");

  long number = 0;
  EXPECT_TRUE(object->getValue("number", number));
  EXPECT_EQ(number, 12);
  EXPECT_TRUE(object->getValue("numeric", number));
  EXPECT_EQ(number, 34);
  EXPECT_TRUE(object->getValue("double", number));
  EXPECT_EQ(number, -7);
  EXPECT_FALSE(object->getValue("text", number));
  EXPECT_FALSE(object->getValue("object", number));
  EXPECT_FALSE(object->getValue("absent", number));

  unsigned long unsignedNumber = 0;
  EXPECT_TRUE(object->getValue("negative", unsignedNumber));
  EXPECT_EQ(unsignedNumber, ULONG_MAX);
  EXPECT_FALSE(object->getValue("array", unsignedNumber));

  unsigned int cut = 99;
  EXPECT_TRUE(object->getValue("big", cut));
  EXPECT_EQ(cut, 5u);
  cut = 99;
  EXPECT_FALSE(object->getValue("text", cut));
  EXPECT_EQ(cut, 99u);  // stored only on success
  EXPECT_FALSE(object->getValue("absent", cut));
  EXPECT_EQ(cut, 99u);
}

TEST(JsonValueArray, AppendIgnoresNull) {
  CRefPtr<JsonValueArray> array(new JsonValueArray());
  array->appendValue(nullptr);
  array->appendValue(new JsonValueInteger(1));
  array->appendValue(nullptr);
  EXPECT_EQ(array->values.size(), 1u);
  EXPECT_EQ(Serialize(array.get()), "[1]");
}

TEST(JsonValue, CopyIsDeep) {
  CRefPtr<JsonValueObject> original(new JsonValueObject());
  CRefPtr<JsonValueArray> list(new JsonValueArray());
  list->appendValue(new JsonValueString("s"));
  list->appendValue(new JsonValueDouble(0.5));
  list->appendValue(new JsonValueBoolean(false));
  list->appendValue(new JsonValueNull());
  original->setValue("list", list.get());
  original->setValue("n", 3);
  CRefPtr<JsonValueObject> inner(new JsonValueObject());
  inner->setValue("x", "y");
  original->setValue("inner", inner.get());

  CRefPtr<JsonValue> copy;
  original->Copy(copy);
  ASSERT_TRUE(copy);
  EXPECT_NE(copy.get(), original.get());
  EXPECT_EQ(Serialize(copy.get()), Serialize(original.get()));

  JsonValueObject* copiedObject = copy->toObject();
  ASSERT_NE(copiedObject, nullptr);
  EXPECT_NE(copiedObject->values["list"].get(), list.get());
  EXPECT_NE(copiedObject->values["inner"].get(), inner.get());
  EXPECT_NE(copiedObject->values["list"]->toArray()->values[0].get(), list->values[0].get());
  copiedObject->values["inner"]->toObject()->setValue("x", "changed");
  copiedObject->values["list"]->toArray()->appendValue(new JsonValueInteger(9));
  EXPECT_EQ(Serialize(original.get()),
            "{\"inner\":{\"x\":\"y\"},\"list\":[\"s\",0.5,false,null],\"n\":3}");

  for (JsonValue* scalar : {static_cast<JsonValue*>(list->values[0].get()), list->values[1].get(),
                            list->values[2].get(), list->values[3].get(), original->values["n"].get()}) {
    CRefPtr<JsonValue> scalarCopy;
    scalar->Copy(scalarCopy);
    EXPECT_NE(scalarCopy.get(), scalar);
    EXPECT_EQ(scalarCopy->getType(), scalar->getType());
    EXPECT_EQ(scalarCopy->getString(), scalar->getString());
  }
}

// ---------------------------------------------------------------------------
// Serialization

TEST(JsonValue, CompactAndPrettySerialization) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  CRefPtr<JsonValueArray> list(new JsonValueArray());
  list->appendValue(new JsonValueInteger(1));
  list->appendValue(new JsonValueObject());
  list->appendValue(new JsonValueArray());
  object->setValue("list", list.get());
  CRefPtr<JsonValueObject> inner(new JsonValueObject());
  inner->setValue("b", new JsonValueNull());
  object->setValue("inner", inner.get());
  object->setValue("s", "t");

  EXPECT_EQ(Serialize(object.get()), "{\"inner\":{\"b\":null},\"list\":[1,{},[]],\"s\":\"t\"}");
  EXPECT_EQ(Serialize(object.get(), true),
            "{\n"
            "  \"inner\": {\n"
            "    \"b\": null\n"
            "  },\n"
            "  \"list\": [\n"
            "    1,\n"
            "    {},\n"
            "    []\n"
            "  ],\n"
            "  \"s\": \"t\"\n"
            "}");
  // A starting level indents everything inside further; the level is restored.
  EXPECT_EQ(Serialize(inner.get(), true, 1), "{\n    \"b\": null\n  }");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueObject()).get(), true), "{}");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueArray()).get(), true), "[]");
}

TEST(JsonValue, ScalarSerialization) {
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueInteger(-9)).get()), "-9");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueInteger(INT64_MIN)).get()), "-9223372036854775808");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueDouble(0.25)).get()), "0.25");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueBoolean(true)).get()), "true");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueBoolean(false)).get()), "false");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueNull()).get()), "null");
  EXPECT_EQ(Serialize(CRefPtr<JsonValue>(new JsonValueString("a\"b")).get()), "\"a\\\"b\"");
}

TEST(JsonValue, EscapeTableRowByRow) {
  struct Row {
    std::string input;
    std::string expected;
  };
  const std::vector<Row> rows = {
      // 8, 9, 10, 12, 13.
      {"\b\t\n\f\r", "\"\\b\\t\\n\\f\\r\""},
      // 34, 92.
      {"\"\\", "\"\\\"\\\\\""},
      // Other bytes below 32: four lower-case digits.
      {std::string("\x01\x1f\x0b\x00", 4), "\"\\u0001\\u001f\\u000b\\u0000\""},
      {"\x1b", "\"\\u001b\""},
      // Other bytes below 128 as they stand; "/" is not escaped.
      {" /~\x7f", "\" /~\x7f\""},
      {"plain text 123", "\"plain text 123\""},
      // Two-byte sequences.
      {"\xc3\xa4", "\"\\u00e4\""},
      {"\xc2\x80", "\"\\u0080\""},
      {"\xdf\xbf", "\"\\u07ff\""},
      {"\xc1\x81", "\"\\u0041\""},  // decoded as it stands, overlong or not
      // Three-byte sequences.
      {"\xe2\x82\xac", "\"\\u20ac\""},
      {"\xe0\xa0\x80", "\"\\u0800\""},
      {"\xed\xa0\x80", "\"\\ud800\""},
      {"\xef\xbf\xbf", "\"\\uffff\""},
      // Four-byte sequences: one escape of 5 or 6 digits, no surrogate pair.
      {"\xf0\x9f\x98\x80", "\"\\u1f600\""},
      {"\xf0\x90\x80\x80", "\"\\u10000\""},
      {"\xf4\x8f\xbf\xbf", "\"\\u10ffff\""},
      {"\xf7\xbf\xbf\xbf", "\"\\u1fffff\""},
      // Broken or cut-off sequences: the bytes as they stand.
      {"\xc3", "\"\xc3\""},
      {"\xc3" "A", "\"\xc3" "A\""},
      {"\xe2\x82", "\"\xe2\x82\""},
      {"\xe2\x82" "A", "\"\xe2\x82" "A\""},
      {"\xf0\x9f\x98", "\"\xf0\x9f\x98\""},
      {"\x80\xbf", "\"\x80\xbf\""},
      {"\xf8\x88\x80\x80\x80", "\"\xf8\x88\x80\x80\x80\""},
      {"\xff\xfe", "\"\xff\xfe\""},
      {"\xc3\xc3\xa4", "\"\xc3\\u00e4\""},
      // Mixed.
      {"a\xc3\xa4" "b\n", "\"a\\u00e4b\\n\""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Escape(row.input), row.expected);
  }
}

// A value class of a caller's own, which serializes itself.
class Placeholder : public JsonValue {
 public:
  JsonValueType getType() const override { return json_type_string; }
  std::string getString() const override { return "placeholder"; }
  void serializeCtx(std::ostream& out, JsonSerializationContext& context) const override {
    out << "<" << context.level << ">";
  }
  bool getInteger(long&) const override { return false; }
  bool isEmpty() const override { return false; }
  void Copy(CRefPtr<JsonValue>& copy) const override { copy = new Placeholder(); }
};

TEST(JsonValue, ValueOfAnotherClassWritesItselfInPlace) {
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  object->setValue("a", 1);
  object->setValue("b", new Placeholder());
  CRefPtr<JsonValueArray> list(new JsonValueArray());
  list->appendValue(new Placeholder());
  list->appendValue(new JsonValueString("c"));
  object->setValue("c", list.get());
  EXPECT_EQ(Serialize(object.get()), "{\"a\":1,\"b\":<1>,\"c\":[<2>,\"c\"]}");
}

TEST(JsonValue, DeepTreeBuiltByCodeSerializesCopiesAndDies) {
  // A tree at the parser's nesting limit, made directly; serializing, copying and
  // destroying recurse as deep as the tree, on a worker-sized stack.
  test::RunOnWorkerSizedStack([] {
    CRefPtr<JsonValueArray> root(new JsonValueArray());
    JsonValueArray* level = root.get();
    for (int depth = 1; depth < 10000; ++depth) {
      JsonValueArray* child = new JsonValueArray();
      level->appendValue(child);
      level = child;
    }
    const std::string serialized = Serialize(root.get());
    EXPECT_EQ(serialized, std::string(10000, '[') + std::string(10000, ']'));
    CRefPtr<JsonValue> copy;
    root->Copy(copy);
    EXPECT_EQ(Serialize(copy.get()), serialized);
  });
}

}  // namespace
}  // namespace base
}  // namespace apm
