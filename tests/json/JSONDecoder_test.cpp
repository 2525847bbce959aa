#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>

#include <functional>
#include <string>
#include <string_view>

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

// `depth` dictionaries, each the value of the one before.
std::string objects(size_t depth) {
  std::string text;
  for (size_t i = 0; i < depth; ++i) text += "{\"k\":";
  return text + "1" + std::string(depth, '}');
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
      {"[fals", end, 5},
      {"[-", "Invalid number.", 1},
      {"\"text\"", "Expected either '[' or '{'.", 0, 1, 15},  // nothing relaxes a bare top-level value
      {"[1] /* note */", after, 4},
      {std::string(kPXJSONMaxDepth + 1, '['), deep, kPXJSONMaxDepth},
      {objects(kPXJSONMaxDepth + 1), deep, 5 * kPXJSONMaxDepth},
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
      {"[tru]", token, 1},
      {"[\"a\\n\x1f\"]", "Invalid character < 0x20 found in string: 0x1f.", 5},
      {std::string("[\"\0\"]", 5), "Invalid character < 0x20 found in string: 0x00.", 2},
      {"[\"abc\\", "Invalid string.", 1},
      {"[\"\\ud834", "Invalid string.", 1},
      {"[\"\xe2\x82", "Invalid string.", 1, 1,
       kPXJSONParseOptionLooseUnicode},  // replaced, then unterminated
      {"[\"ok\\'\"]", "Invalid escape sequence found in \"\" string.", 4},
      {"[\"\\u12g4\"]",
       "Unexpected character found in \\u Unicode escape sequence.  Found 'g', expected [0-9a-fA-F].", 6},
      {"[\"\\ud800x\"]", second, 2},
      {"[\"\\udc00\"]", surrogate, 2},
      {"[\"\\ud800\\ue000\"]", surrogate, 2},
      {"[\"ok\x80\"]", utf8, 4},
      {"[\"\xc0\xaf\"]", utf8, 2},
      {"[\"\xed\xa0\x80\"]", utf8, 2},
      {"[\"\xf4\x90\x80\x80\"]", utf8, 2},
      {"[\"\xe2\x82", "End of buffer reached while parsing UTF8 in \"\" string.", 2},
      // Options change what counts as white space, and so the line numbers.
      {"[\n1,\r\n2,\r3,\n x]", token, 13, 5},
      {"[1,\r", end, 4, 2},
      {"[1,\xe2\x80\xa8 x]", token, 7, 2, kPXJSONParseOptionUnicodeNewlines},
      {"[1,\xc2\x85\xe2\x80\xa9x]", token, 8, 3, kPXJSONParseOptionUnicodeNewlines},
      {"[1,\xc2", token, 3, 1, kPXJSONParseOptionUnicodeNewlines},
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
  // Up to the limit, nesting parses.
  EXPECT_TRUE(parse(std::string(kPXJSONMaxDepth, '[') + std::string(kPXJSONMaxDepth, ']')));
  EXPECT_TRUE(parse(objects(kPXJSONMaxDepth), 0, nullptr, true));
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
      objectFromJSONData(data),
      objectFromJSONDataWithParseOptions(data, 1, &error),
      decoder->mutableObjectWithData(data),
      decoder->mutableObjectWithUTF8String(text.data(), text.size(), &error),
      mutableObjectFromJSONString(PXString(text)),
      mutableObjectFromJSONStringWithParseOptions(PXString(text), 0, &error),
      mutableObjectFromJSONData(data),
      mutableObjectFromJSONDataWithParseOptions(data, 0, &error),
  };
  for (size_t i = 0; i < 12; ++i) {
    const bool mutableForm = i >= 6;
    EXPECT_TRUE(results[i].isEqual(expected)) << i;
    const PXValue list = results[i].dictionaryValue()->objectForKey("k");
    EXPECT_EQ(static_cast<bool>(list.mutableArrayValue()), mutableForm) << i;
    EXPECT_EQ(static_cast<bool>(list.arrayValue()->objectAtIndex(7).mutableDictionaryValue()), mutableForm)
        << i;
  }
  EXPECT_FALSE(error);  // untouched by successes
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
}
