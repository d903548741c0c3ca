#include "base/jsonparser.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/jsonreader.h"
#include "base/jsonvalue.h"
#include "base/memorystream.h"
#include "tests/support/workerstack.h"

namespace apm {
namespace base {
namespace {

// Bytes below 32 and from 127 on as \xHH, so that table rows stay readable.
std::string Visible(const std::string& text) {
  std::string result;
  for (unsigned char byte : text) {
    if (byte < 32 || byte >= 127) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
      result += escaped;
    } else {
      result += static_cast<char>(byte);
    }
  }
  return result;
}

// All tokens of `text` as "name(text)", up to and including the first fetch that
// fails; a failure with a message ends in "!message".
std::string Tokens(const std::string& text) {
  CJsonStringReader reader(text.data(), text.data() + text.size());
  JsonParser parser(reader);
  std::string result;
  for (;;) {
    JsonTokenType token;
    const bool fetched = parser.getNextToken(token);
    if (!result.empty()) result += ' ';
    result += std::string(JsonParser::getTokenName(token)) + "(" + Visible(parser.tokenText()) + ")";
    if (!fetched) {
      if (!parser.getErrorMessage().empty()) result += "!" + parser.getErrorMessage();
      return result;
    }
  }
}

std::string Serialize(const JsonValue* value, bool pretty = false) {
  std::ostringstream out;
  JsonSerializationContext context;
  context.pretty = pretty;
  value->serializeCtx(out, context);
  return out.str();
}

// parseimpl of `text`: "ok " and the compact serialization, or "fail " and the text
// of the error record.
std::string Parse(const std::string& text) {
  FamError record(true);
  CRefPtr<JsonValue> value;
  if (!JsonParser::parseimpl(text, value)) {
    EXPECT_EQ(record.code, static_cast<int>(0x80004005)) << Visible(text);
    EXPECT_FALSE(value) << Visible(text);
    return "fail " + record.message;
  }
  EXPECT_EQ(record.code, 0) << Visible(text);
  return "ok " + Serialize(value.get());
}

std::string Nested(const char* open, const char* close, size_t depth, const char* inner = "") {
  std::string text;
  text.reserve(depth * (strlen(open) + strlen(close)) + strlen(inner));
  for (size_t level = 0; level < depth; ++level) text += open;
  text += inner;
  for (size_t level = 0; level < depth; ++level) text += close;
  return text;
}

struct Row {
  std::string input;
  std::string expected;
};

// ---------------------------------------------------------------------------
// Tokenizer

TEST(JsonTokenizer, EveryRuleOfTheTokenizerTable) {
  const std::vector<Row> rows = {
      // White space and the end of the input.
      {"", "json_end()"},
      {" \t\r\n\v\f", "json_end()"},
      // Structural bytes, each its own token with its byte as text.
      {"{}[],:", "json_object_start({) json_object_end(}) json_array_start([) json_array_end(]) "
                 "json_comma_separator(,) json_colon_separator(:) json_end()"},
      // Bytes outside 34..125, and bytes inside with no case.
      {std::string(1, '\0'), "json_error()!invalid character value"},  // text ends at its NUL
      {"\x01", "json_error(\\x01)!invalid character value"},
      {"!", "json_error(!)!invalid character value"},
      {"~", "json_error(~)!invalid character value"},
      {"\x7f", "json_error(\\x7f)!invalid character value"},
      {"\x80", "json_error(\\x80)!invalid character value"},
      {"\xff", "json_error(\\xff)!invalid character value"},
      {"#", "json_error(#)!invalid character value"},
      {"'", "json_error(')!invalid character value"},
      {"+1", "json_error(+)!invalid character value"},
      {".5", "json_error(.)!invalid character value"},
      {"/", "json_error(/)!invalid character value"},
      {"A", "json_error(A)!invalid character value"},
      {"T", "json_error(T)!invalid character value"},
      {"\\", "json_error(\\)!invalid character value"},
      {"a", "json_error(a)!invalid character value"},
      {"e", "json_error(e)!invalid character value"},
      {"|", "json_error(|)!invalid character value"},
      // Strings.
      {"\"abc\"", "json_string_token(abc) json_end()"},
      {"\"\"", "json_string_token() json_end()"},
      {"\"a b/\xc3\xa4\"", "json_string_token(a b/\\xc3\\xa4) json_end()"},
      {"\"\\b\\f\\n\\r\\t\"", "json_string_token(\\x08\\x0c\\x0a\\x0d\\x09) json_end()"},
      {"\"\\\"\\\\\\/\\q\\'\"", "json_string_token(\"\\/q') json_end()"},
      {"\"\\u0041\\u00e4\\u20AC\"", "json_string_token(A\\xc3\\xa4\\xe2\\x82\\xac) json_end()"},
      {"\"\\ud7ff\\ue000\\ufffd\"",
       "json_string_token(\\xed\\x9f\\xbf\\xee\\x80\\x80\\xef\\xbf\\xbd) json_end()"},
      {"\"<\\u000a\\u001f\\u0000>\"", "json_string_token(<>) json_end()"},
      {"\"<\\ud83d\\ude00>\"", "json_string_token(<>) json_end()"},
      {"\"<\\ufffe\\uFFFF>\"", "json_string_token(<>) json_end()"},
      {"\"<\\u0020>\"", "json_string_token(< >) json_end()"},
      {"\"<\\u004g>\"", "json_string_token(<>) json_end()"},   // not hexadecimal: nothing
      {"\"<\\u0x41>\"", "json_string_token(<A>) json_end()"},  // strtol takes "0x41"
      {"\"\\u12\"", "json_string_token() json_end()"},         // the escape takes the quote
      {"\"abc", "json_string_token(abc) json_end()"},          // the end ends the string
      {"\"ab\\", "json_string_token(ab) json_end()"},
      {std::string("\"ab\0cd\"", 7), "json_string_token(ab) json_error(c)!invalid character value"},
      {std::string("\"a\\\0b\"", 6), "json_string_token(a) json_end()"},
      {"\"a\" \"b\"", "json_string_token(a) json_string_token(b) json_end()"},
      // Numbers.
      {"0", "json_number_token(0) json_end()"},
      {"-12", "json_number_token(-12) json_end()"},
      {"007", "json_number_token(007) json_end()"},
      {"-", "json_number_token(-) json_end()"},
      {"1-2", "json_number_token(1) json_number_token(-2) json_end()"},
      {"1.5", "json_float_token(1.5) json_end()"},
      {"1.", "json_float_token(1.) json_end()"},
      {"-.5", "json_float_token(-.5) json_end()"},
      {"1.5e3", "json_float_token(1.5) json_end()"},
      {"2E2", "json_float_token(2) json_end()"},
      {"1e+5,", "json_float_token(1) json_comma_separator(,) json_end()"},
      {"1E-05]", "json_float_token(1) json_array_end(]) json_end()"},
      {"-e", "json_float_token(-) json_end()"},
      {"1.2.3", "json_float_token(1.2) json_error(.)!invalid character value"},
      {"12ab", "json_number_token(12) json_error(a)!invalid character value"},
      // Words.
      {"true", "json_bool_true(true) json_end()"},
      {"false", "json_bool_false(false) json_end()"},
      {"null", "json_null(null) json_end()"},
      {"trueX", "json_bool_true(true) json_error(X)!invalid character value"},
      {"true1", "json_bool_true(true) json_number_token(1) json_end()"},
      {"nul", "json_error(nul)!invalid identifier value"},
      {"truex", "json_error(truex)!invalid identifier value"},
      {"nullnull", "json_error(nullnull)!invalid identifier value"},
      {"t", "json_error(t)!invalid identifier value"},
      {"fALSE", "json_error(f)!invalid identifier value"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Tokens(row.input), row.expected) << "input: " << Visible(row.input);
  }
}

TEST(JsonTokenizer, TokenNamesAndTheNameOfAnUnknownNumber) {
  const char* names[] = {"json_object_start", "json_object_end", "json_array_start", "json_array_end",
                         "json_comma_separator", "json_string_token", "json_number_token",
                         "json_float_token", "json_colon_separator", "json_bool_true", "json_bool_false",
                         "json_null", "json_error", "json_end"};
  for (int number = 0; number < 14; ++number) {
    EXPECT_STREQ(JsonParser::getTokenName(static_cast<JsonTokenType>(number)), names[number]);
  }
  EXPECT_STREQ(JsonParser::getTokenName(static_cast<JsonTokenType>(14)), "json_token_invalid");
  EXPECT_STREQ(JsonParser::getTokenName(static_cast<JsonTokenType>(-1)), "json_token_invalid");
}

TEST(JsonTokenizer, LongStringGrowsTheTokenBufferWithoutLoss) {
  std::string content;
  for (int index = 0; index < 5000; ++index) content += static_cast<char>('a' + index % 26);
  EXPECT_EQ(Parse("\"" + content + "\""), "ok \"" + content + "\"");
}

// ---------------------------------------------------------------------------
// Parser

TEST(JsonParser, EveryRuleOfTheParserTables) {
  const std::vector<Row> rows = {
      // parse: empty input, trailing bytes.
      {"", "fail "},
      {"  \n ", "fail "},
      {"[1]x", "ok [1]"},
      {"[1] nope", "ok [1]"},
      {"[1] 2", "fail invalid token json_number_token after end"},
      {"[1]]", "fail invalid token json_array_end after end"},
      {"1 \"s\"", "fail invalid token json_string_token after end"},
      // parseValue, by token.
      {"{}", "ok {}"},
      {"[]", "ok []"},
      {"\"s\"", "ok \"s\""},
      {"12", "ok 12"},
      {"-0", "ok 0"},
      {"00012", "ok 12"},
      {"123456789012345678", "ok 123456789012345678"},
      {"-123456789012345678", "ok -123456789012345678"},
      {"1234567890123456789", "ok 1234567890123456789"},
      {"99999999999999999999", "ok 9223372036854775807"},
      {"-99999999999999999999", "ok -9223372036854775808"},
      {"-", "fail invalid integer value -"},
      {"1.5", "ok 1.5"},
      {"1.", "ok 1"},
      {"-.5", "ok -0.5"},
      {"0.1", "ok 0.10000000000000001"},
      {"1e400", "ok 1"},
      {"-.", "fail invalid float value -."},
      {"-e5", "fail invalid float value -"},
      {"true", "ok true"},
      {"false", "ok false"},
      {"null", "ok null"},
      {"}", "fail unexpected token json_object_end (})"},
      {"]", "fail unexpected token json_array_end (])"},
      {",", "fail unexpected token json_comma_separator (,)"},
      {":", "fail unexpected token json_colon_separator (:)"},
      {"x", "fail invalid character value"},
      {"nope", "fail invalid identifier value"},
      // parseObject.
      {"{\"a\":1}", "ok {\"a\":1}"},
      {"{\"b\":1,\"a\":[true,null]}", "ok {\"a\":[true,null],\"b\":1}"},
      {"{\"a\":1,\"a\":2}", "ok {\"a\":2}"},
      {"{\"a\":1,}", "ok {\"a\":1}"},
      {"{\"a\":1,]", "ok {\"a\":1}"},
      {"{\"a\":1,2}", "fail invalid token json_object_end after end"},
      {"{1:2}", "fail invalid token json_number_token (1), string expected"},
      {"{", "fail invalid token json_end (), string expected"},
      {"{x", "fail invalid token json_error (x), string expected"},
      {"{\"a\" 1}", "fail invalid token json_number_token (1), colon expected"},
      {"{\"a\"", "fail invalid token json_end (), colon expected"},
      {"{\"a\":1 \"b\":2}", "fail invalid token json_string_token (b), '}' expected"},
      {"{\"a\":1:", "fail invalid token json_colon_separator (:), '}' expected"},
      {"{\"a\":", "fail "},
      {"{\"a\":}", "fail unexpected token json_object_end (})"},
      {"{\"a\":1", "fail "},
      {"{\"a\":1,", "fail "},
      {"{\"a\":1,x", "fail invalid character value"},
      // parseArray.
      {"[1,2]", "ok [1,2]"},
      {"[", "ok []"},
      {"[x", "ok []"},
      {"[[x,1]", "ok [[],1]"},
      {"[1 2]", "fail unexpected token json_number_token (2)"},
      {"[1,]", "fail unexpected token json_array_end (])"},
      {"[,1]", "fail unexpected token json_comma_separator (,)"},
      {"[1:2]", "fail unexpected token json_colon_separator (:)"},
      {"[1", "fail "},
      {"[1,", "fail "},
      {"[1,x", "fail invalid character value"},
      // A message once stored stays; a later failure at the end does not clear it.
      {"[[x", "fail invalid character value"},
      // skipBOM.
      {"\xEF\xBB\xBF{}", "ok {}"},
      {"\xEF{}", "ok {}"},
      {"\xEF\xBB[1]", "ok [1]"},
      {"\xEF\xBF{}", "fail invalid character value"},
      {"\xBB{}", "fail invalid character value"},
      {" \xEF\xBB\xBF{}", "fail invalid character value"},
      {"\xEF\xBB\xBF", "fail "},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Parse(row.input), row.expected) << "input: " << Visible(row.input);
  }
}

// The edge cases that callers depend on, one test each.

TEST(JsonParser, DuplicateKeyKeepsTheLastValue) {
  CRefPtr<JsonValue> value;
  ASSERT_TRUE(JsonParser::parseimpl(std::string("{\"a\":1,\"a\":2}"), value));
  long number = 0;
  ASSERT_TRUE(value->toObject()->getValue("a", number));
  EXPECT_EQ(number, 2);
  EXPECT_EQ(value->toObject()->values.size(), 1u);
}

TEST(JsonParser, UnfinishedArrayFailsWithAnEmptyMessage) { EXPECT_EQ(Parse("[1,2"), "fail "); }

TEST(JsonParser, MissingCommaInArrayNamesTheToken) {
  EXPECT_EQ(Parse("[1 2]"), "fail unexpected token json_number_token (2)");
}

TEST(JsonParser, TrailingCommaInArrayFails) {
  EXPECT_EQ(Parse("[1,]"), "fail unexpected token json_array_end (])");
}

TEST(JsonParser, TrailingCommaInObjectIsAccepted) { EXPECT_EQ(Parse("{\"a\":1,}"), "ok {\"a\":1}"); }

TEST(JsonParser, IllegalByteBehindTheValueIsIgnored) { EXPECT_EQ(Parse("{}x"), "ok {}"); }

TEST(JsonParser, TokenBehindTheValueFails) {
  EXPECT_EQ(Parse("{} 1"), "fail invalid token json_number_token after end");
}

TEST(JsonParser, UnterminatedStringAtTheEndIsAccepted) {
  EXPECT_EQ(Parse("\"abc"), "ok \"abc\"");
  EXPECT_EQ(Parse("[\"abc"), "fail ");
}

TEST(JsonParser, SurrogatePairEscapeGivesTheEmptyString) {
  CRefPtr<JsonValue> value;
  ASSERT_TRUE(JsonParser::parseimpl(std::string("\"\\ud83d\\ude00\""), value));
  EXPECT_EQ(value->getType(), json_type_string);
  EXPECT_EQ(value->getString(), "");
}

TEST(JsonParser, EscapedLineFeedVanishes) {
  CRefPtr<JsonValue> value;
  ASSERT_TRUE(JsonParser::parseimpl(std::string("\"a\\u000ab\""), value));
  EXPECT_EQ(value->getString(), "ab");
}

TEST(JsonParser, LoneMinusIsAnInvalidInteger) { EXPECT_EQ(Parse("-"), "fail invalid integer value -"); }

TEST(JsonParser, ByteOrderMarkIsSkipped) { EXPECT_EQ(Parse("\xEF\xBB\xBF[1]"), "ok [1]"); }

TEST(JsonParser, LonePartOfTheByteOrderMarkIsDroppedAndParsingGoesOn) {
  EXPECT_EQ(Parse("\xEF{\"a\":true}"), "ok {\"a\":true}");
}

TEST(JsonParser, ExponentIsReadAndDropped) {
  CRefPtr<JsonValue> value;
  ASSERT_TRUE(JsonParser::parseimpl(std::string("[1.5e3,2E2]"), value));
  JsonValueArray* array = value->toArray();
  ASSERT_NE(array, nullptr);
  ASSERT_EQ(array->values.size(), 2u);
  EXPECT_EQ(array->values[0]->getString(), "1.5");
  EXPECT_EQ(array->values[1]->getString(), "2");
  EXPECT_NE(dynamic_cast<JsonValueDouble*>(array->values[1].get()), nullptr);
}

TEST(JsonParser, NulByteEndsAString) {
  // The quote behind the NUL opens the next string.
  EXPECT_EQ(Parse(std::string("[\"ab\0\",1]", 9)), "fail unexpected token json_string_token (,1])");
  EXPECT_EQ(Parse(std::string("[\"ab\0,1]", 8)), "ok [\"ab\",1]");
}

TEST(JsonParser, ThreeZeroSerializesAsThree) { EXPECT_EQ(Parse("3.0"), "ok 3"); }

TEST(JsonParser, ParseTemplateChecksTheTopLevelType) {
  std::string text = "[1]";
  CRefPtr<JsonValue> value;
  EXPECT_TRUE(JsonParser::parse(text, value));
  EXPECT_EQ(value->getType(), json_type_array);

  CComPtr<IStream> stream;
  ASSERT_TRUE(CreateMemoryStream(&stream));
  unsigned int written = 0;
  stream->Write(text.data(), static_cast<unsigned int>(text.size()), &written);
  _LARGE_INTEGER start;
  start.QuadPart = 0;
  _ULARGE_INTEGER position;
  stream->Seek(start, STREAM_SEEK_SET, &position);

  FamError record(true);
  CRefPtr<JsonValueObject> object(new JsonValueObject());
  JsonValueObject* before = object.get();
  EXPECT_FALSE(JsonParser::parse(stream, object));
  EXPECT_EQ(object.get(), before);  // unchanged
  EXPECT_EQ(record.code, 0);        // and no message
  EXPECT_EQ(record.message, "");
}

TEST(JsonParser, ParsesAnObjectFromAStreamAcrossBlockBoundaries) {
  // Strings, escapes and numbers straddle the 1024-byte blocks of the reader.
  std::string text = "{";
  for (int index = 0; index < 300; ++index) {
    if (index > 0) text += ",";
    text += "\"key" + std::to_string(index) + "\":[\"a\\u00e4\\n" + std::string(index % 17, 'x') +
            "\"," + std::to_string(index * 1000003) + ",1.25]";
  }
  text += "}";
  ASSERT_GT(text.size(), 4 * CJsonIStreamReader::blockSize);

  CRefPtr<JsonValue> fromString;
  ASSERT_TRUE(JsonParser::parseimpl(text, fromString));

  CComPtr<IStream> stream;
  ASSERT_TRUE(CreateMemoryStream(&stream));
  unsigned int written = 0;
  stream->Write(text.data(), static_cast<unsigned int>(text.size()), &written);
  _LARGE_INTEGER start;
  start.QuadPart = 0;
  _ULARGE_INTEGER position;
  stream->Seek(start, STREAM_SEEK_SET, &position);
  CRefPtr<JsonValueObject> fromStream;
  ASSERT_TRUE(JsonParser::parse(stream, fromStream));
  EXPECT_EQ(fromStream->values.size(), 300u);
  EXPECT_EQ(Serialize(fromStream.get()), Serialize(fromString.get()));
}

TEST(JsonParser, StreamFailureIsReportedInTheErrorRecord) {
  CComPtr<IStream> stream;
  ASSERT_TRUE(CreateMemoryStream(&stream));
  const std::string text = "{\"a\" 1}";
  unsigned int written = 0;
  stream->Write(text.data(), static_cast<unsigned int>(text.size()), &written);
  _LARGE_INTEGER start;
  start.QuadPart = 0;
  _ULARGE_INTEGER position;
  stream->Seek(start, STREAM_SEEK_SET, &position);
  FamError record(true);
  CRefPtr<JsonValue> value;
  EXPECT_FALSE(JsonParser::parseimpl(stream.get(), value));
  EXPECT_EQ(record.code, static_cast<int>(0x80004005));
  EXPECT_EQ(record.message, "invalid token json_number_token (1), colon expected");
}

TEST(JsonParser, NullStreamReadsAsEmptyInput) {
  FamError record(true);
  CRefPtr<JsonValue> value;
  EXPECT_FALSE(JsonParser::parseimpl(static_cast<IStream*>(nullptr), value));
  EXPECT_EQ(record.code, static_cast<int>(0x80004005));
  EXPECT_EQ(record.message, "");
}

// ---------------------------------------------------------------------------
// Nesting depth

// Parses `text` on a worker-sized stack and expects the tree to serialize back to
// it, as a deep copy does too: serializing, copying and destroying recurse as deep
// as parsing. One document per test, so that each stays within the time limit of
// a sanitizer build, where deep stacks are slow.
void ExpectRoundTripOnAWorkerSizedStack(const std::string& text) {
  test::RunOnWorkerSizedStack([&] {
    CRefPtr<JsonValue> value;
    EXPECT_TRUE(JsonParser::parseimpl(text, value));
    ASSERT_TRUE(value);
    EXPECT_EQ(Serialize(value.get()), text);
    CRefPtr<JsonValue> copy;
    value->Copy(copy);
    EXPECT_EQ(Serialize(copy.get()), text);
  });
}

TEST(JsonParser, ArraysNestedToTheLimitParseOnAWorkerSizedStack) {
  const size_t limit = JsonParser::maxNestingDepth;
  ASSERT_EQ(limit, 10000u);
  ExpectRoundTripOnAWorkerSizedStack(Nested("[", "]", limit, "1"));
}

TEST(JsonParser, ObjectsNestedToTheLimitParseOnAWorkerSizedStack) {
  const size_t limit = JsonParser::maxNestingDepth;
  ASSERT_EQ(limit, 10000u);
  ExpectRoundTripOnAWorkerSizedStack(Nested("{\"k\":", "}", limit, "true"));
}

TEST(JsonParser, MixedNestingToTheLimitParsesOnAWorkerSizedStack) {
  const size_t limit = JsonParser::maxNestingDepth;
  ASSERT_EQ(limit, 10000u);
  ExpectRoundTripOnAWorkerSizedStack(Nested("[{\"k\":", "}]", limit / 2, "null"));
}

TEST(JsonParser, NestingAtTheLimitParsesOnAStdThread) {
  const std::string text = Nested("[{\"k\":", "}]", JsonParser::maxNestingDepth / 2, "1");
  bool parsed = false;
  std::string serialized;
  std::thread worker([&] {
    CRefPtr<JsonValue> value;
    parsed = JsonParser::parseimpl(text, value);
    if (parsed) serialized = Serialize(value.get());
  });
  worker.join();
  EXPECT_TRUE(parsed);
  EXPECT_EQ(serialized, text);
}

TEST(JsonParser, OneLevelBeyondTheLimitFailsCleanly) {
  for (const std::string& text : {Nested("[", "]", JsonParser::maxNestingDepth + 1),
                                  Nested("{\"k\":", "}", JsonParser::maxNestingDepth + 1, "1"),
                                  Nested("[", "]", JsonParser::maxNestingDepth, "{}")}) {
    EXPECT_EQ(Parse(text), "fail maximum nesting depth exceeded");
  }
}

TEST(JsonParser, HostileDepthFailsCleanlyOnAWorkerSizedStack) {
  const std::string opening(4 << 20, '[');
  std::string result;
  test::RunOnWorkerSizedStack([&] { result = Parse(opening); });
  EXPECT_EQ(result, "fail maximum nesting depth exceeded");
  // Closed documents and streams of the same kind fail the same way.
  const std::string objects = Nested("{\"\":", "}", 100000, "0");
  test::RunOnWorkerSizedStack([&] { result = Parse(objects); });
  EXPECT_EQ(result, "fail maximum nesting depth exceeded");
}

}  // namespace
}  // namespace base
}  // namespace apm
