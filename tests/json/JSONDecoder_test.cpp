#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>

namespace {

PXValue parse(std::string_view text, JSONParseOptionFlags options = 0, PXErrorRef* error = nullptr) {
  return JSONDecoder::decoderWithParseOptions(options)->objectWithUTF8String(text.data(), text.size(), error);
}

PXValue parseMutable(std::string_view text, JSONParseOptionFlags options = 0, PXErrorRef* error = nullptr) {
  return JSONDecoder::decoderWithParseOptions(options)->mutableObjectWithUTF8String(text.data(), text.size(),
                                                                                    error);
}

// The first element of a one-element array document.
PXValue only(std::string_view text, JSONParseOptionFlags options = 0) {
  PXErrorRef error;
  PXValue doc = parse(text, options, &error);
  EXPECT_TRUE(doc) << text << ": " << (error ? error->localizedDescription().str() : "");
  if (!doc.isArray() || doc.arrayValue()->count() != 1) return PXValue();
  return doc.arrayValue()->objectAtIndex(0);
}

std::string hex(std::string_view bytes) {
  std::string out;
  char buf[4];
  for (unsigned char c : bytes) {
    std::snprintf(buf, sizeof buf, "%02x", c);
    out += buf;
  }
  return out;
}

const PXValue& info(const PXErrorRef& error, const char* key) {
  static const PXValue absent;
  const PXValue* v = error->userInfo()->find(PXValue(key));
  return v ? *v : absent;
}

}  // namespace

// ---- Errors --------------------------------------------------------------------

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
  const char* const utf8 = "Illegal UTF8 sequence found in \"\" string.";
  const char* const surrogate = "Illegal \\u Unicode escape sequence.";
  const Row rows[] = {
      // The document as a whole, arrays, dictionaries.
      {"", end, 0},
      {"  \n\t ", end, 5, 2},
      {"{\"a\":", end, 5},
      {"[fals", end, 5},
      {"\"text\"", "Expected either '[' or '{'.", 0},
      {" 42", "Expected either '[' or '{'.", 1, 1, 15},
      {"{}\n\n]", after, 4, 3},
      {"[1] /* note */", after, 4},
      {std::string(kPXJSONMaxDepth + 1, '['), "Unable to parse JSON.", kPXJSONMaxDepth},
      {"[1,]", "Unexpected ']'.", 3},
      {"[1,,2]", "Unexpected ','.", 3},
      {"[[] {}]", "Unexpected value.", 4},
      {"[}", "Expected a value or a ']', not '}'", 1},
      {"[1:", "Expected a comma or a ']', not ':'", 2},
      {"[1,}", "Expected a value, not '}'", 3},
      {"{\"a\":1,}", "Unexpected '}'.", 7},
      {"{,}", "Unexpected ','.", 1},
      {"{\"a\":1 \"b\":2}", "Unexpected string.", 7},
      {"{\"a\" 1}", "Expected ':'.", 5},
      {"{\"a\"}", "Expected ':'.", 4},
      {"{-12.5e3:1}", "Expected a \"STRING\" or a '}', not '-12.5e3'", 1},
      {"{[", "Expected a \"STRING\" or a '}', not '['", 1},
      {"{\"a\":1 ]", "Expected a comma or a '}', not ']'", 7},
      {"{\"a\":1,null}", "Expected a \"STRING\", not 'null'", 7},
      {"{\"a\":,}", "Expected a value, not ','", 5},
      {"[tru]", token, 1},
      {"[.5]", token, 1},
      {"{x}", token, 1},
      // Numbers.
      {"[-a]", "Invalid number.", 1},
      {"[-00]", "Invalid number.", 1},
      {"[1.e5]", "Invalid number.", 1},
      {"[1E+]", "Invalid number.", 1},
      {"[2.5e", "Invalid number.", 1},
      {"[1.5", end, 4},
      {"[18446744073709551616]",
       "The value '18446744073709551616' exceeded the maximum value that could be represented: "
       "18446744073709551615.",
       1},
      {"[-9223372036854775809]",
       "The value '-9223372036854775809' exceeded the minimum value that could be represented: "
       "-9223372036854775808.",
       1},
      {"[-17.5E+308]", "The value '-17.5E+308' could not be represented as a 'double' due to overflow.", 1},
      {"[100000e-330]", "The value '100000e-330' could not be represented as a 'double' due to underflow.",
       1},
      {"[0.000001e-320]",
       "The value '0.000001e-320' could not be represented as a 'double' due to underflow.", 1},
      // Strings.
      {"[\"a\\n\x1f\"]", "Invalid character < 0x20 found in string: 0x1f.", 5},
      {std::string("[\"\0\"]", 5), "Invalid character < 0x20 found in string: 0x00.", 2},
      {"[\"abc\\", "Invalid string.", 1},
      {"[\"\\u00", "Invalid string.", 1},
      {"[\"\\ud834", "Invalid string.", 1},
      {"[\"ok\\'\"]", "Invalid escape sequence found in \"\" string.", 4},
      {"[\"\\u12g4\"]",
       "Unexpected character found in \\u Unicode escape sequence.  Found 'g', expected [0-9a-fA-F].", 6},
      {"[\"\\ud800\\n\"]",
       "Required a second \\u Unicode escape sequence following a surrogate \\u Unicode escape sequence.", 2},
      {"[\"\\ud800x\"]",
       "Required a second \\u Unicode escape sequence following a surrogate \\u Unicode escape sequence.", 2},
      {"[\"\\udc00\"]", surrogate, 2},
      {"[\"\\ud800\\u0041\"]", surrogate, 2},
      {"[\"\\ud800\\ud800\"]", surrogate, 2},
      {"[\"ok\x80\"]", utf8, 4},
      {"[\"\xc0\xaf\"]", utf8, 2},
      {"[\"\xed\xa0\x80\"]", utf8, 2},
      {"[\"\xf4\x90\x80\x80\"]", utf8, 2},
      {"[\"\\n\xe2\x82\"]", utf8, 4},
      {"[\"\xe2\x82", "End of buffer reached while parsing UTF8 in \"\" string.", 2},
      // Options change what counts as white space, and so the line numbers.
      {"[\n1,\r\n2,\r3,\n x]", token, 13, 5},
      {"[1,\xe2\x80\xa8 x]", token, 3},
      {"[1,\xe2\x80\xa8 x]", token, 7, 2, kPXJSONParseOptionUnicodeNewlines},
      {"[1,\xc2\x85\xe2\x80\xa9x]", token, 8, 3, kPXJSONParseOptionUnicodeNewlines},
      {"[1, // one\n /* two\n */ x]", token, 4},
      {"[1, // one\n /* two\n */ x]", token, 23, 3, 1},
      {"[1] /* open", end, 4, 1, 1},
      {"[1, // to the end", end, 17, 1, 1},
      {"[1, / 2]", token, 4, 1, 1}};
  for (const Row& row : rows) {
    SCOPED_TRACE(hex(row.input) + " options " + std::to_string(row.options));
    PXErrorRef error, mutableError;
    EXPECT_FALSE(parse(row.input, row.options, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "PXJSONErrorDomain");
    EXPECT_EQ(error->code(), -1);
    EXPECT_EQ(error->localizedDescription().str(), row.message);
    EXPECT_EQ(info(error, "PXJSONAtIndexKey").kind(), PXValue::Kind::UInt);
    EXPECT_EQ(info(error, "PXJSONAtIndexKey").unsignedLongLongValue(), row.index);
    EXPECT_EQ(info(error, "PXJSONLineNumberKey").unsignedLongLongValue(), row.line);
    EXPECT_FALSE(parseMutable(row.input, row.options, &mutableError));  // the mutable form fails alike
    ASSERT_TRUE(mutableError);
    EXPECT_EQ(mutableError->localizedDescription(), error->localizedDescription());
  }
}

TEST(JSONDecoder, MissingArgumentsFailWithTheirOwnMessages) {
  auto decoder = JSONDecoder::decoder();
  JSONDecoder& d = *decoder;
  const char* const data = "The jsonData argument is NULL.";
  const char* const string = "The string argument is NULL.";
  const char* const text = "An error occurred converting the contents of a NSString to UTF8.";
  const std::pair<std::function<PXValue(PXErrorRef*)>, const char*> rows[] = {
      {[&](PXErrorRef* e) { return d.objectWithData(nullptr, e); }, data},
      {[&](PXErrorRef* e) { return d.objectWithData(PXRef<PXData>(), e); }, data},
      {[&](PXErrorRef* e) { return d.mutableObjectWithData(nullptr, e); }, data},
      {[&](PXErrorRef* e) { return d.parseJSONData(nullptr, e); }, data},
      {[](PXErrorRef* e) { return objectFromJSONDataWithParseOptions(nullptr, 0, e); }, data},
      {[](PXErrorRef* e) { return mutableObjectFromJSONDataWithParseOptions(nullptr, 15, e); }, data},
      {[&](PXErrorRef* e) { return d.objectWithUTF8String(nullptr, 3, e); }, string},
      {[&](PXErrorRef* e) { return d.mutableObjectWithUTF8String(nullptr, 0, e); }, string},
      {[&](PXErrorRef* e) { return d.parseUTF8String(nullptr, 1, e); }, string},
      {[](PXErrorRef* e) { return objectFromJSONStringWithParseOptions(PXString(), 0, e); }, text},
      {[](PXErrorRef* e) { return mutableObjectFromJSONStringWithParseOptions(PXString(), 0, e); }, text},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    PXErrorRef error;
    EXPECT_FALSE(rows[i].first(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "PXJSONErrorDomain");
    EXPECT_EQ(error->code(), -1);
    EXPECT_EQ(error->localizedDescription().str(), rows[i].second);
    EXPECT_FALSE(rows[i].first(nullptr));  // without an error parameter: just nothing
  }
}

TEST(JSONDecoder, ParseOptionsOfSixteenOrMoreRaise) {
  for (unsigned options = 0; options < 16; ++options) {
    EXPECT_EQ(JSONDecoder::decoderWithParseOptions(options)->parseOptionFlags(), options);
  }
  for (unsigned options : {16u, 17u, 31u, 0x100u, 0x80000000u}) {
    try {
      (void)JSONDecoder::decoderWithParseOptions(options);
      ADD_FAILURE() << "no exception for " << options;
    } catch (const PXException& e) {
      EXPECT_EQ(e.name(), kPXInvalidArgumentException);
      EXPECT_EQ(e.reason(), "Invalid parse options.");
    }
  }
  EXPECT_EQ(JSONDecoder::decoder()->parseOptionFlags(), 0u);
}

// ---- Values --------------------------------------------------------------------

TEST(JSONDecoder, NumbersWithFractionOrExponentAreCorrectlyRoundedDoubles) {
  // 9007199254740993.0 lies halfway between two doubles: ties to even.
  std::istringstream texts(
      "0.1 -0.5 1e0 1E+2 2.5e-3 43.420273000000009 -65.613616999999977 1e-320 1.7976931348623157e308 "
      "4.9406564584124654e-324 2.2250738585072014e-308 0.30000000000000004 9007199254740993.0 "
      "123456789012345678901234567890.5 "
      "3.141592653589793238462643383279502884197169399375105820974944592307816");
  for (std::string text; texts >> text;) {
    SCOPED_TRACE(text);
    PXValue v = only("[" + text + "]");
    ASSERT_EQ(v.kind(), PXValue::Kind::Double);
    EXPECT_EQ(v.doubleValue(), std::strtod(text.c_str(), nullptr));
  }
  // Without a fraction or exponent a number is an integer, "-0" included; with
  // one, zero keeps its sign.
  PXValue negativeZero = only("[-0]");
  ASSERT_EQ(negativeZero.kind(), PXValue::Kind::Int);
  EXPECT_EQ(negativeZero.longLongValue(), 0);
  EXPECT_FALSE(std::signbit(negativeZero.doubleValue()));
  EXPECT_TRUE(std::signbit(only("[-0.0]").doubleValue()));
  EXPECT_EQ(only("[0e-999]").doubleValue(), 0.0);  // zero is not an underflow
}

TEST(JSONDecoder, LooseUnicodeReplacesEachBadStretchWithOneReplacementCharacter) {
  const std::string fffd = "\xef\xbf\xbd";
  struct Row {
    std::string input;  // a string literal's contents
    std::string expected;
  };
  const Row rows[] = {
      {"\\ud800", fffd},
      {"a\\ud800b", "a" + fffd + "b"},
      {"\\ud800\\n", fffd + "\n"},
      {"\\ud800\\u0041", fffd + "A"},
      {"\\ud800\\ud83d\\ude00", fffd + "\xf0\x9f\x98\x80"},
      {"\\udc00", fffd},
      {"\xff", fffd},
      {"a\xc3(", "a" + fffd + "("},
      {"\xe2\x82", fffd},                    // a truncated three-byte form: one replacement
      {"\xf0\x9f\x98", fffd},                // a truncated four-byte form
      {"\xed\xa0\x80", fffd + fffd + fffd},  // a surrogate: no valid prefix, byte by byte
      {"\xc0\xaf", fffd + fffd},
      {"ok \xe2\x82\xac", "ok \xe2\x82\xac"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(hex(row.input));
    const bool wellFormed = row.input == row.expected;
    EXPECT_EQ(static_cast<bool>(parse("[\"" + row.input + "\"]")), wellFormed);
    PXValue v = only("[\"" + row.input + "\"]", kPXJSONParseOptionLooseUnicode);
    EXPECT_EQ(hex(v.stringValue()), hex(row.expected));
  }
  // A bad sequence cut off by the end of the input is replaced, then the string is unterminated.
  PXErrorRef error;
  EXPECT_FALSE(parse("[\"\xe2\x82", kPXJSONParseOptionLooseUnicode, &error));
  EXPECT_EQ(error->localizedDescription(), "Invalid string.");
}

TEST(JSONDecoder, OptionBitsEachRelaxOneRule) {
  struct Row {
    const char* text;
    JSONParseOptionFlags relaxedBy;
    size_t count;  // of the top-level container when relaxed
  };
  const Row rows[] = {
      {"/* head */ [1, // one\n 2 /* two */] // tail", kPXJSONParseOptionComments, 2},
      {"[1,\xc2\x85 2,\xe2\x80\xa8 3\xe2\x80\xa9]", kPXJSONParseOptionUnicodeNewlines, 3},
      {"[1, // c\xe2\x80\xa8 2]", kPXJSONParseOptionComments | kPXJSONParseOptionUnicodeNewlines, 2},
      {"[\"\\udc00\"]", kPXJSONParseOptionLooseUnicode, 1},
      {"{\"a\":1} {\"b\":2} trailing", kPXJSONParseOptionPermitTextAfterValidJSON, 1},  // the first document
      {"// c\n[\"\\ud800\",\xe2\x80\xa8 1] garbage", 15, 2},  // the four together, as the facade uses them
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_FALSE(parse(row.text, 15 & ~row.relaxedBy));
    const PXValue doc = parse(row.text, row.relaxedBy);
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc.isArray() ? doc.arrayValue()->count() : doc.dictionaryValue()->count(), row.count);
  }
  EXPECT_TRUE(parse("[1] \r\n\t "));  // only white space may follow in strict mode
  // Nothing relaxes a raw tab in a string or a bare top-level value.
  EXPECT_FALSE(parse("[\"\t\"]", 15));
  EXPECT_FALSE(parse("\"x\"", 15));
}

TEST(JSONDecoder, DictionariesKeepKeyOrderAndTheLastOfRepeatedKeys) {
  auto dict = parse(R"({"b": true, "a": false, "c": {"x": [], "y": null}, "a": 3})").dictionaryValue();
  ASSERT_TRUE(dict);
  ASSERT_EQ(dict->count(), 3u);
  EXPECT_EQ(dict->entries()[0].first.stringValue(), "b");
  EXPECT_EQ(dict->entries()[0].second.kind(), PXValue::Kind::Bool);
  EXPECT_EQ(dict->entries()[1].first.stringValue(), "a");
  EXPECT_EQ(dict->entries()[1].second.intValue(), 3);
  EXPECT_TRUE(dict->objectForKey("c").dictionaryValue()->objectForKey("y").isNull());
  // A large dictionary (the hashed path) with every key repeated.
  std::string text = "{";
  for (int i = 0; i < 300; ++i) text += "\"key" + std::to_string(i % 100) + "\":" + std::to_string(i) + ",";
  text.back() = '}';
  auto big = parse(text).dictionaryValue();
  ASSERT_TRUE(big);
  ASSERT_EQ(big->count(), 100u);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(big->entries()[i].first.stringValue(), "key" + std::to_string(i));
    EXPECT_EQ(big->objectForKey(PXValue("key" + std::to_string(i))).intValue(), 200 + i);
  }
  // Keys that differ only after an escape, or only in length, are distinct.
  EXPECT_EQ(parse(R"({"a\u0000": 1, "a": 2, "a\n": 3, "a\\n": 4})").dictionaryValue()->count(), 4u);
}

TEST(JSONDecoder, TheMutableFormIsMutableThroughout) {
  const char* text = R"({"list": [1, {"inner": []}], "empty": {}})";
  PXValue frozen = parse(text), thawed = parseMutable(text);
  EXPECT_TRUE(frozen.isEqual(thawed));
  EXPECT_FALSE(frozen.mutableDictionaryValue());
  EXPECT_FALSE(frozen.dictionaryValue()->objectForKey("list").mutableArrayValue());
  EXPECT_FALSE(frozen.dictionaryValue()->objectForKey("empty").mutableDictionaryValue());
  auto list = thawed.dictionaryValue()->objectForKey("list").mutableArrayValue();
  ASSERT_TRUE(list);
  EXPECT_TRUE(list->objectAtIndex(1).dictionaryValue()->objectForKey("inner").mutableArrayValue());
  EXPECT_TRUE(thawed.dictionaryValue()->objectForKey("empty").mutableDictionaryValue());
  list->addObject("more");
  EXPECT_EQ(list->count(), 3u);
}

TEST(JSONDecoder, EveryEntryPointReadsTheSameDocument) {
  const std::string text = R"({"k": [1, "two", 3.5, null]})";
  const PXValue expected = parse(text);
  ASSERT_TRUE(expected);
  auto data = PXData::dataWithString(text);
  auto decoder = JSONDecoder::decoder();
  PXErrorRef error;
  const PXValue results[] = {
      decoder->objectWithData(data),
      decoder->objectWithData(data.get(), &error),
      decoder->mutableObjectWithData(data),
      decoder->objectWithUTF8String(text.data(), text.size()),
      decoder->mutableObjectWithUTF8String(text.data(), text.size(), &error),
      decoder->parseJSONData(data, &error),
      decoder->parseUTF8String(text.data(), text.size(), &error),
      objectFromJSONString(PXString(text)),
      objectFromJSONStringWithParseOptions(PXString(text), 15, &error),
      mutableObjectFromJSONString(PXString(text)),
      mutableObjectFromJSONStringWithParseOptions(PXString(text), 0, &error),
      objectFromJSONData(data),
      objectFromJSONDataWithParseOptions(data, 1, &error),
      mutableObjectFromJSONData(data),
      mutableObjectFromJSONDataWithParseOptions(data, 0, &error),
  };
  for (const PXValue& result : results) EXPECT_TRUE(result.isEqual(expected));
  EXPECT_FALSE(error);  // untouched by successes
  // The string and data operations use the options they are given: strict by default.
  EXPECT_FALSE(objectFromJSONString("[1] // c"));
  EXPECT_TRUE(objectFromJSONStringWithParseOptions("[1] // c", kPXJSONParseOptionComments));
  EXPECT_FALSE(mutableObjectFromJSONData(PXData::dataWithString("[1] x")));
  EXPECT_TRUE(
      mutableObjectFromJSONDataWithParseOptions(PXData::dataWithString("[1] x"), 8).mutableArrayValue());
  // NUL bytes are input like any other: the length, not a terminator, ends the text.
  const char withNul[] = "[1]\0garbage";
  EXPECT_TRUE(decoder->objectWithUTF8String(withNul, 3));
  EXPECT_FALSE(decoder->objectWithUTF8String(withNul, sizeof withNul - 1));
}

TEST(JSONDecoder, NestingUpToTheLimitParses) {
  const size_t limit = kPXJSONMaxDepth;
  std::string arrays = std::string(limit, '[') + std::string(limit, ']');
  EXPECT_TRUE(parse(arrays));
  std::string objects;
  for (size_t i = 0; i < limit; ++i) objects += "{\"k\":";
  objects += "1";
  objects += std::string(limit, '}');
  EXPECT_TRUE(parse(objects));
  PXErrorRef error;
  EXPECT_FALSE(parse("{\"k\":" + objects + "}", 0, &error));
  EXPECT_EQ(error->localizedDescription(), "Unable to parse JSON.");
}

TEST(JSONDecoder, ADecoderIsReusableAndItsCacheOnlySharesStorage) {
  auto decoder = JSONDecoder::decoder();
  const std::string text = R"(["a string long enough to be shared", "a string long enough to be shared"])";
  PXValue first = decoder->objectWithUTF8String(text.data(), text.size());
  PXValue second = decoder->objectWithUTF8String(text.data(), text.size());
  ASSERT_TRUE(first && second);
  // Equal long strings of one decoder share their storage, within and across documents.
  auto a = first.arrayValue()->objectAtIndex(0), b = first.arrayValue()->objectAtIndex(1);
  auto c = second.arrayValue()->objectAtIndex(0);
  EXPECT_TRUE(a.isIdenticalTo(b));
  EXPECT_TRUE(a.isIdenticalTo(c));
  decoder->clearCache();
  PXValue third = decoder->objectWithUTF8String(text.data(), text.size());
  EXPECT_FALSE(third.arrayValue()->objectAtIndex(0).isIdenticalTo(a));
  EXPECT_TRUE(third.isEqual(first));
  // A failure in between leaves the decoder fit for the next document.
  EXPECT_FALSE(decoder->objectWithUTF8String("[[[1,", 5));
  EXPECT_TRUE(decoder->objectWithUTF8String(text.data(), text.size()).isEqual(first));
}

// The scanners work in blocks of 16 and 32 bytes: runs ending at, across and
// after block edges, and at the end of the input.
TEST(JSONDecoder, RunsOfEveryLengthAroundBlockEdges) {
  const char whiteSpace[] = " \t\n\r";
  for (size_t n = 0; n <= 70; ++n) {
    std::string run;
    for (size_t i = 0; i < n; ++i) run += whiteSpace[i % 4];
    SCOPED_TRACE(n);
    PXValue doc = parse("[" + run + "1" + run + "," + run + "2" + run + "]" + run);
    ASSERT_TRUE(doc.isArray());
    ASSERT_EQ(doc.arrayValue()->count(), 2u);
    PXErrorRef error;
    EXPECT_FALSE(parse("[1]" + run + "x", 0, &error));
    EXPECT_EQ(
        error->localizedDescription(),
        "A valid JSON object was parsed but there were additional non-white-space characters remaining.");
    EXPECT_EQ(info(error, "PXJSONAtIndexKey").unsignedLongLongValue(), 3 + n);
  }
  // Every escape and every width of raw UTF-8 at every position of strings of
  // every length up to 70.
  const std::pair<std::string, std::string> specials[] = {
      {"\\\"\\\\\\/\\b\\f\\n\\r\\t", "\"\\/\b\f\n\r\t"},
      {"\\u00e9\\u4e2d\\ud834\\udd1e\\u0000", std::string("\xc3\xa9\xe4\xb8\xad\xf0\x9d\x84\x9e\0", 10)},
      {"\xc3\xa9", "\xc3\xa9"},
      {"\xe4\xb8\xad", "\xe4\xb8\xad"},
      {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"}};
  for (const auto& [raw, decoded] : specials) {
    for (size_t length = 0; length <= 70; ++length) {
      for (size_t at = 0; at <= length; ++at) {
        const std::string text = std::string(at, 'a') + raw + std::string(length - at, 'b');
        const std::string expected = std::string(at, 'a') + decoded + std::string(length - at, 'b');
        ASSERT_EQ(only("[\"" + text + "\"]").stringValue(), expected) << text;
      }
      // And a control character there is found where it is.
      PXErrorRef error;
      const std::string bad = "[\"" + std::string(length, 'a') + "\x01\"]";
      ASSERT_FALSE(parse(bad, 0, &error));
      EXPECT_EQ(info(error, "PXJSONAtIndexKey").unsignedLongLongValue(), 2 + length);
    }
  }
}
