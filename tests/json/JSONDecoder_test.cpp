// The decoder: every error with its message, index and line, every entry point, the
// scanners; number text both ways, against strtod and printf's "%.17g".
#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>

#include "json/internal/JSONMessages.h"
#include "json/internal/JSONNumbers.h"

using namespace pxkit::json::internal;

namespace {

PXValue parse(std::string_view text, JSONParseOptionFlags options = 0, PXErrorRef* error = nullptr,
              bool mutableForm = false) {
  auto decoder = JSONDecoder::decoderWithParseOptions(options);
  return mutableForm ? decoder->mutableObjectWithUTF8String(text.data(), text.size(), error)
                     : decoder->objectWithUTF8String(text.data(), text.size(), error);
}

std::string onlyString(const std::string& literal, JSONParseOptionFlags options = 0) {
  PXValue doc = parse("[\"" + literal + "\"]", options);
  return doc.isArray() ? std::string(doc.arrayValue()->objectAtIndex(0).stringValue()) : "(none)";
}

uint64_t atIndex(const PXErrorRef& error, const char* key = "PXJSONAtIndexKey") {
  const PXValue* v = error->userInfo()->find(PXValue(key));
  EXPECT_TRUE(v && v->kind() == PXValue::Kind::UInt) << key;
  return v ? v->unsignedLongLongValue() : 0;
}

// A number alone in an array, read by one decoder: the value, or the error's message in `message`.
PXValue readNumber(JSONDecoder& decoder, const std::string& text, std::string* message = nullptr) {
  const std::string doc = "[" + text + "]";
  PXErrorRef error;
  PXValue parsed = decoder.objectWithUTF8String(doc.data(), doc.size(), &error);
  if (message) *message = error ? error->localizedDescription().str() : "";
  return parsed ? parsed.arrayValue()->objectAtIndex(0) : PXValue();
}

}  // namespace

TEST(JSONDecoder, EveryParseErrorHasItsMessageIndexAndLine) {
  struct Row {
    std::string input;
    const char* message;
    uint64_t index;
    uint64_t line = 1;
    JSONParseOptionFlags options = 0;
  };
  const char* const end = "Reached the end of the buffer.";
  const char* const after =
      "A valid JSON object was parsed but there were additional non-white-space characters remaining.";
  const char* const token =
      "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', "
      "'NUMBER'.";
  const char* const second =
      "Required a second \\u Unicode escape sequence following a surrogate \\u Unicode escape sequence.";
  const char* const utf8 = "Illegal UTF8 sequence found in \"\" string.";
  const char* const surrogate = "Illegal \\u Unicode escape sequence.";
  const char* const deep = "Unable to parse JSON.";
  const Row rows[] = {
      {"", end, 0},
      {"[-", "Invalid number.", 1},
      {"\"text\"", "Expected either '[' or '{'.", 0, 1, 15},  // nothing relaxes a bare top-level value
      {"[1] /* note */", after, 4},
      {std::string(kPXJSONMaxDepth + 1, '['), deep, kPXJSONMaxDepth},
      {"[1,]", "Unexpected ']'.", 3},
      {"[[] {}]", "Unexpected value.", 4},
      {"[}", "Expected a value or a ']', not '}'", 1},
      {"[1:", "Expected a comma or a ']', not ':'", 2},
      {"{\"a\":1,}", "Unexpected '}'.", 7},
      {"{,}", "Unexpected ','.", 1},
      {"{\"a\":1 \"b\":2}", "Unexpected string.", 7},
      {"{\"a\" 1}", "Expected ':'.", 5},
      {"{-12.5e3:1}", "Expected a \"STRING\" or a '}', not '-12.5e3'", 1},
      {"{\"a\":1 ]", "Expected a comma or a '}', not ']'", 7},
      {"{\"a\":1,null}", "Expected a \"STRING\", not 'null'", 7},
      {"{\"a\":,}", "Expected a value, not ','", 5},
      {std::string("[\"\0\"]", 5), "Invalid character < 0x20 found in string: 0x00.", 2},
      {"[\"abc\\", "Invalid string.", 1},
      {"[\"ok\\'\"]", "Invalid escape sequence found in \"\" string.", 4},
      {"[\"\\u12g4\"]",
       "Unexpected character found in \\u Unicode escape sequence.  Found 'g', expected [0-9a-fA-F].", 6},
      {"[\"\\ud800x\"]", second, 2},
      {"[\"\\udc00\"]", surrogate, 2},
      {"[\"ok\x80\"]", utf8, 4},
      {"[\"\xc0\xaf\"]", utf8, 2},
      {"[\"\xe2\x82", "End of buffer reached while parsing UTF8 in \"\" string.", 2},
      // Options change what counts as white space, and so the line numbers.
      {"[\n1,\r\n2,\r3,\n x]", token, 13, 5},
      {"[1,\r", end, 4, 2},
      {"[1,\xe2\x80\xa8 x]", token, 7, 2, kPXJSONParseOptionUnicodeNewlines},
      {"[1,\xc2\x85\xe2\x80\xa9x]", token, 8, 3, kPXJSONParseOptionUnicodeNewlines},
      {"[1, // one\n /* two\n */ x]", token, 23, 3, kPXJSONParseOptionComments},
      {"[1] /* open", end, 4, 1, kPXJSONParseOptionComments}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.input.substr(0, 40) + " options " + std::to_string(row.options));
    for (bool mutableForm : {false, true}) {
      PXErrorRef error;
      EXPECT_FALSE(parse(row.input, row.options, &error, mutableForm));
      ASSERT_TRUE(error);
      EXPECT_EQ(error->domain(), "PXJSONErrorDomain");
      EXPECT_EQ(error->code(), -1);
      EXPECT_EQ(error->localizedDescription().str(), row.message);
      EXPECT_EQ(atIndex(error), row.index);
      EXPECT_EQ(atIndex(error, "PXJSONLineNumberKey"), row.line);
    }
  }
  EXPECT_TRUE(parse(std::string(kPXJSONMaxDepth, '[') + std::string(kPXJSONMaxDepth, ']')));
  std::string objects;
  for (size_t i = 0; i < kPXJSONMaxDepth; ++i) objects += "{\"k\":";
  EXPECT_TRUE(parse(objects + "1" + std::string(kPXJSONMaxDepth, '}'), 0, nullptr, true));
}

TEST(JSONDecoder, MissingArgumentsAndInvalidOptionsFailWithTheirOwnMessages) {
  auto decoder = JSONDecoder::decoder();
  JSONDecoder& d = *decoder;
  const char* const data = "The jsonData argument is NULL.";
  const char* const string = "The string argument is NULL.";
  const char* const text = "An error occurred converting the contents of a NSString to UTF8.";
  const std::pair<std::function<PXValue(PXErrorRef*)>, const char*> rows[] = {
      {[&](PXErrorRef* e) { return d.objectWithData(nullptr, e); }, data},
      {[&](PXErrorRef* e) { return d.mutableObjectWithData(nullptr, e); }, data},
      {[](PXErrorRef* e) { return objectFromJSONDataWithParseOptions(nullptr, 0, e); }, data},
      {[](PXErrorRef* e) { return mutableObjectFromJSONDataWithParseOptions(nullptr, 15, e); }, data},
      {[&](PXErrorRef* e) { return d.objectWithUTF8String(nullptr, 3, e); }, string},
      {[&](PXErrorRef* e) { return d.mutableObjectWithUTF8String(nullptr, 0, e); }, string},
      {[](PXErrorRef* e) { return objectFromJSONStringWithParseOptions(PXString(), 0, e); }, text},
      {[](PXErrorRef* e) { return mutableObjectFromJSONStringWithParseOptions(PXString(), 0, e); }, text},
  };
  for (const auto& [call, message] : rows) {
    PXErrorRef error;
    EXPECT_FALSE(call(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->localizedDescription().str(), message);
    EXPECT_FALSE(call(nullptr));  // without an error parameter: just nothing
  }
  try {
    (void)JSONDecoder::decoderWithParseOptions(16);
    ADD_FAILURE() << "no exception for options of 16 or more";
  } catch (const PXException& e) {
    EXPECT_EQ(e.name(), kPXInvalidArgumentException);
    EXPECT_EQ(e.reason(), "Invalid parse options.");
  }
}

TEST(JSONDecoder, EveryEntryPointReadsTheSameDocumentTheMutableFormIsMutableAndTheCacheSharesStrings) {
  const std::string text =
      R"({"k": [1, "two", 3.5, null, [], [], {}, {"e": {}}], "s": "long enough to be shared"})";
  const PXValue expected = parse(text);
  auto data = PXData::dataWithString(text);
  auto decoder = JSONDecoder::decoder();
  PXErrorRef error;
  const PXValue results[] = {
      decoder->objectWithData(data.get(), &error),
      decoder->objectWithUTF8String(text.data(), text.size()),
      objectFromJSONString(PXString(text)),
      objectFromJSONStringWithParseOptions(PXString(text), 15, &error),
      objectFromJSONDataWithParseOptions(data, 1, &error),
      decoder->mutableObjectWithData(data),
      decoder->mutableObjectWithUTF8String(text.data(), text.size(), &error),
      mutableObjectFromJSONString(PXString(text)),
      mutableObjectFromJSONStringWithParseOptions(PXString(text), 0, &error),
      mutableObjectFromJSONDataWithParseOptions(data, 0, &error),
  };
  for (size_t i = 0; i < 10; ++i) {
    const bool mutableForm = i >= 5;
    EXPECT_TRUE(results[i].isEqual(expected)) << i;
    const PXValue list = results[i].dictionaryValue()->objectForKey("k");
    EXPECT_EQ(static_cast<bool>(list.mutableArrayValue()), mutableForm) << i;
    EXPECT_EQ(static_cast<bool>(list.arrayValue()->objectAtIndex(7).mutableDictionaryValue()), mutableForm)
        << i;
  }
  // Equal long strings of one decoder share their storage across documents, until its cache is cleared.
  auto shared = [&](const PXValue& doc) { return doc.dictionaryValue()->objectForKey("s"); };
  EXPECT_TRUE(shared(results[0]).isIdenticalTo(shared(results[1])));
  decoder->clearCache();
  EXPECT_FALSE(decoder->objectWithUTF8String("[[[1,", 5));  // a failure in between leaves it fit for use
  EXPECT_FALSE(shared(decoder->objectWithData(data)).isIdenticalTo(shared(results[0])));
  EXPECT_FALSE(decoder->objectWithUTF8String("[1]\0garbage", 11));  // the length ends the text, not NUL
}

// The scanners work in blocks of 16 and 32 bytes: every escape, at every offset across their edges.
TEST(JSONDecoder, EscapesDecodeAtEveryOffset) {
  const std::string raw = "\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\ud834\\udd1e\\u0000\xf0\x9f\x98\x80";
  const std::string decoded =
      std::string("\"\\/\b\f\n\r\t\xc3\xa9\xf0\x9d\x84\x9e\0", 15) + "\xf0\x9f\x98\x80";
  for (size_t at = 0; at <= 40; ++at)
    ASSERT_EQ(onlyString(std::string(at, 'a') + raw + "b"), std::string(at, 'a') + decoded + "b") << at;
  EXPECT_EQ(onlyString("a\\ud800b\xc3(", kPXJSONParseOptionLooseUnicode),
            "a\xef\xbf\xbd"
            "b\xef\xbf\xbd(");
}

TEST(JSONNumbers, EdgeCasesReadAsTheirKindOrFailWithTheirMessage) {
  using Kind = PXValue::Kind;
  struct Row {
    const char* text;
    Kind kind;
    const char* expected;  // the integer's digits, or the error message (kind Absent)
  };
  const char* const invalid = "Invalid number.";
  const Row rows[] = {
      {"-0", Kind::Int, "0"},  // without a fraction or exponent a number is an integer, "-0" included
      {"18446744073709551615", Kind::UInt, "18446744073709551615"},
      {"-9223372036854775808", Kind::Int, "-9223372036854775808"},
      {"-a", Kind::Absent, invalid},
      {"-", Kind::Absent, invalid},
      {"-00", Kind::Absent, invalid},
      {"1.e5", Kind::Absent, invalid},
      {"1E+", Kind::Absent, invalid},
      {"18446744073709551616", Kind::Absent,
       "The value '18446744073709551616' exceeded the maximum value that could be represented: "
       "18446744073709551615."},
      {"-9223372036854775809", Kind::Absent,
       "The value '-9223372036854775809' exceeded the minimum value that could be represented: "
       "-9223372036854775808."},
      {"-17.5E+308", Kind::Absent,
       "The value '-17.5E+308' could not be represented as a 'double' due to overflow."},
      {"100000e-330", Kind::Absent,
       "The value '100000e-330' could not be represented as a 'double' due to underflow."},
      {"0.000001e-320", Kind::Absent,
       "The value '0.000001e-320' could not be represented as a 'double' due to underflow."},
  };
  auto decoder = JSONDecoder::decoder();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    std::string message;
    const PXValue v = readNumber(*decoder, row.text, &message);
    ASSERT_EQ(v.kind(), row.kind);
    EXPECT_EQ(row.kind == Kind::Absent ? message
              : row.kind == Kind::Int  ? std::to_string(v.longLongValue())
                                       : std::to_string(v.unsignedLongLongValue()),
              row.expected);
  }
  // Doubles, bit for bit as strtod reads them: zero keeps its sign and is no underflow, a tie goes to even.
  for (const char* text : {"-0.0", "0e-999", "-0.0e-999", "9007199254740993.0", "2.2250738585072011e-308",
                           "8.5899345919999999e9", "1.00000000000000011102230246251565404e0",
                           "1.7976931348623157e308", "4.9406564584124654e-324", "2.2250738585072014e-308",
                           "1e-320", "43.420273000000009", "123456789012345678901234567890.5",
                           "3.141592653589793238462643383279502884197169399375105820974944592307816"}) {
    const PXValue v = readNumber(*decoder, text);
    ASSERT_EQ(v.kind(), Kind::Double) << text;
    EXPECT_EQ(std::bit_cast<uint64_t>(v.doubleValue()), std::bit_cast<uint64_t>(std::strtod(text, nullptr)))
        << text;
  }
  // The careful converter's own guard (the scanner never hands it such tokens), and its range errors.
  const std::string consumed = "The conversion function did not consume all of the number tokens characters.";
  const std::tuple<std::string, bool, std::string> tokens[] = {
      {"12x", false, consumed},
      {"-3-", false, consumed},
      {"-", false, consumed},
      {"x", false, consumed},
      {"1.5.2", true, consumed},
      {".", true, consumed},
      {"1" + std::string(400, '0'), true, "due to overflow."},
      {"0." + std::string(400, '0') + "1", true, "due to underflow."},
      {"1e+400", true, "due to overflow."},
      {"-1E-400", true, "due to underflow."},
  };
  for (const auto& [token, isFloat, ending] : tokens) {
    NumberValue number;
    std::string message;
    EXPECT_FALSE(convertNumberToken(token, isFloat, number, message)) << token;
    EXPECT_TRUE(message.ends_with(ending)) << token << ": " << message;
  }
  EXPECT_EQ(
      composeExpectedMessage(kAcceptValue | kAcceptComma | kAcceptEnd, kWordValue, kWordArrayEnd, ":").str(),
      "Expected a value, a comma, or a ']', not ':");
}

TEST(JSONNumbers, DoublesAreWrittenAsPrintfWritesThem) {
  std::mt19937_64 rng(20240521);
  auto check = [](double v) {
    char expected[64], written[kMaxDoubleChars];
    std::snprintf(expected, sizeof expected, "%.17g", v);
    ASSERT_EQ(std::string(written, writeDouble(v, written)), expected) << std::hexfloat << v;
  };
  std::uniform_real_distribution<double> exponent(-5.5, 17.5);
  for (int i = 0; i < 100000; ++i) {
    if (const double any = std::bit_cast<double>(rng()); std::isfinite(any))
      check(any);                          // every finite bit pattern
    check(std::pow(10.0, exponent(rng)));  // the common magnitudes, which take the exact integer path
    // Short decimals and their neighbours, where ties and near-ties sit.
    double v = static_cast<double>(rng() % 100000000) / std::pow(10.0, static_cast<int>(rng() % 12));
    check((rng() & 1) ? std::nextafter(v, (rng() & 2) ? 0.0 : 1e30) : v);
  }
}
