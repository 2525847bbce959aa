#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>

#include <cctype>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>

#include "support/PXTestPaths.h"

namespace {

PXRef<PXDictionary> dict(std::initializer_list<PXDictionary::Entry> entries) {
  return PXDictionary::dictionaryWithEntries(entries);
}
PXRef<PXArray> list(std::initializer_list<PXValue> values) {
  return PXArray::arrayWithObjects(values);
}

class DateDelegate : public JSONSerializerDelegate {
 public:
  bool respondsToSelector(std::string_view selector) const override { return selector == "formatDate:"; }
  PXValue performSelector(std::string_view selector, const PXValue& object) override {
    ++calls;
    if (selector == "formatDate:" && object.isDate())
      return PXValue(object.dateValue().timeIntervalSince1970());
    return PXValue();
  }
  int calls = 0;
};

std::string minified(const std::string& text) {
  std::string out;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString && c == '\\')
      out += text[i++];
    else if (c == '"')
      inString = !inString;
    if (inString || c == '"' || !std::isspace(static_cast<unsigned char>(c))) out += text[i];
  }
  return out;
}

}  // namespace

TEST(JSONSerializer, WritesEveryKindCompactlyOrPrettyWithTwoSpaceIndentation) {
  auto doc = list({"text", -42, 18446744073709551615ull, static_cast<long long>(INT64_MIN), 0.1, -0.0, true,
                   false, PXValue::null()});
  EXPECT_EQ(
      JSONString(doc).str(),
      R"(["text",-42,18446744073709551615,-9223372036854775808,0.10000000000000001,-0,true,false,null])");
  auto nested = dict({{"a", list({1, dict({{"b", PXValue::null()}}), list({})})}, {"c", dict({})}});
  const char* const pretty =
      "{\n  \"a\": [\n    1,\n    {\n      \"b\": null\n    },\n    []\n  ],\n  \"c\": {}\n}";
  EXPECT_EQ(JSONStringWithOptions(nested, kPXJSONSerializeOptionPretty).str(), pretty);
}

TEST(JSONSerializer, EscapesStrings) {
  struct Row {
    std::string input;
    JSONSerializeOptionFlags options;
    std::string expected;  // without the quotes
  };
  const Row rows[] = {
      {"\"quoted\" \\ back", 0, "\\\"quoted\\\" \\\\ back"},
      {"\b\f\n\r\t", 0, "\\b\\f\\n\\r\\t"},
      {std::string("\0\x01\x1f\x7f/", 5), 0, "\\u0000\\u0001\\u001f\x7f/"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", 0, "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", kPXJSONSerializeOptionEscapeUnicode,
       "caf\\u00e9 \\u20ac \\ud83d\\ude00"},
      {"bad \xff byte", 0, "bad \xef\xbf\xbd byte"},
      {"bad \xff byte", kPXJSONSerializeOptionEscapeUnicode, "bad \\ufffd byte"},
      {"cut \xe2\x82", 0, "cut \xef\xbf\xbd"},
      {std::string(9000, 'x'), 0, std::string(9000, 'x')},  // more than the first buffer twice over
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expected.substr(0, 50));
    EXPECT_EQ(JSONStringWithOptionsIncludeQuotes(PXValue(row.input), row.options, true).str(),
              "\"" + row.expected + "\"");
    EXPECT_EQ(JSONStringWithOptionsIncludeQuotes(PXValue(row.input), row.options, false).str(), row.expected);
    EXPECT_EQ(JSONDataWithOptionsIncludeQuotes(PXValue(row.input), row.options, false)->view(), row.expected);
    EXPECT_EQ(JSONStringWithOptions(dict({{PXValue(row.input), 1}}), row.options).str(),
              "{\"" + row.expected + "\":1}");  // keys too
  }
}

TEST(JSONSerializer, EveryErrorHasItsMessage) {
  auto date = PXValue(PXDate(0));
  auto bytes = PXValue(PXData::dataWithString("x"));
  PXValue nested = PXArray::array();  // as deep as may be written
  for (size_t depth = 1; depth < kPXJSONMaxDepth; ++depth) nested = PXValue(list({nested}));
  EXPECT_EQ(JSONString(nested).str(), std::string(kPXJSONMaxDepth, '[') + std::string(kPXJSONMaxDepth, ']'));
  DateDelegate delegate;
  const std::string unsupported = "Unable to serialize object class ";
  const std::string collection = ", expected a NSArray or NSDictionary.";
  const std::string formatter =
      " that was returned by the unsupported class formatter.  Original object class was ";
  const std::string deep = "Unable to serialize objects nested deeper than 512 levels.";
  const std::string finite = "Floating point values must be finite.  JSON does not support NaN or Infinity.";
  using Call = std::function<PXString(PXErrorRef*)>;
  auto plain = [](PXValue v) -> Call {
    return [v](PXErrorRef* e) { return JSONStringWithOptions(v, 0, e); };
  };
  const std::pair<Call, std::string> rows[] = {
      {plain(PXValue(dict({{1, 2}}))), "Key must be a string object."},
      {plain(PXValue(list({date}))), unsupported + "NSDate."},
      {plain(PXValue(dict({{"d", bytes}}))), unsupported + "NSData."},
      {plain(PXValue(list({PXValue(PXError::errorWithDomain("d", 1))}))), unsupported + "PXError."},
      {plain(3), unsupported + "NSNumber" + collection},
      {plain("text"), unsupported + "NSString" + collection},
      {plain(PXValue()), unsupported + "nil" + collection},
      {plain(PXValue(list({nested}))), deep},
      {plain(PXValue(list({-std::numeric_limits<double>::infinity()}))), finite},
      {[](PXErrorRef* e) { return JSONStringWithOptionsIncludeQuotes(list({}), 0, true, e); },
       unsupported + "PXArray, expected a NSString."},
      {[](PXErrorRef* e) { return JSONStringWithOptionsIncludeQuotes(PXValue::null(), 0, false, e); },
       unsupported + "NSNull, expected a NSString."},
      {[&](PXErrorRef* e) { return JSONStringWithOptions(list({date}), 0, &delegate, nullptr, e); },
       "The delegate argument is not NULL, but the selector argument is NULL."},
      {[&](PXErrorRef* e) { return JSONStringWithOptions(list({date}), 0, &delegate, "formatData:", e); },
       "The serializeUnsupportedClassesUsingDelegate: delegate does not respond to the selector argument."},
      {[&](PXErrorRef* e) { return JSONStringWithOptions(list({bytes}), 0, &delegate, "formatDate:", e); },
       unsupported + "nil" + formatter + "NSData."},
      {[&](PXErrorRef* e) {
         return JSONStringWithOptions(
             list({date}), 0, [](const PXValue&) { return PXValue(PXData::dataWithString("y")); }, e);
       },
       unsupported + "NSData" + formatter + "NSDate."},
  };
  for (const auto& [call, message] : rows) {
    PXErrorRef error;
    EXPECT_TRUE(call(&error).isAbsent()) << message;
    ASSERT_TRUE(error) << message;
    EXPECT_EQ(error->domain(), "PXJSONErrorDomain");
    EXPECT_EQ(error->localizedDescription().str(), message);
    EXPECT_TRUE(call(nullptr).isAbsent());
  }
  // The plain forms just give nothing; the data forms report the same errors.
  EXPECT_FALSE(JSONData(list({date})));
  PXErrorRef error;
  EXPECT_FALSE(JSONDataWithOptionsIncludeQuotes(3, 0, true, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription().str(), unsupported + "NSNumber, expected a NSString.");
}

TEST(JSONSerializer, FormattersTurnUnsupportedValuesIntoSupportedOnes) {
  const PXDate moment = PXDate::dateWithTimeIntervalSince1970(1500000000.5);
  auto doc = dict({{"when", PXValue(moment)}, {"plain", 1}, {"more", list({PXValue(moment)})}});
  DateDelegate delegate;
  PXErrorRef error;
  EXPECT_EQ(JSONStringWithOptions(doc, 0, &delegate, "formatDate:", &error).str(),
            R"({"when":1500000000.5,"plain":1,"more":[1500000000.5]})");
  EXPECT_FALSE(error);
  EXPECT_EQ(delegate.calls, 2);  // once per unsupported value, never for supported ones
  // A null delegate or an empty block is no formatter: the selector does not matter.
  EXPECT_TRUE(JSONStringWithOptions(doc, 0, nullptr, nullptr, nullptr).isAbsent());
  EXPECT_TRUE(JSONStringWithOptions(doc, 0, JSONUnsupportedClassFormatter(), nullptr).isAbsent());

  // A block may return any supported value; a container's own unsupported values are formatted in turn.
  const std::pair<PXValue, const char*> results[] = {
      {PXValue::null(), "[null]"},
      {dict({}), "[{}]"},
      {list({"date", PXValue(PXData::dataWithString("z"))}), R"([["date","z"]])"},
  };
  for (const auto& [result, expected] : results) {
    JSONUnsupportedClassFormatter block = [&, &result = result](const PXValue& value) -> PXValue {
      return value.isData() ? PXValue(value.dataValue()->view()) : result;
    };
    EXPECT_EQ(JSONStringWithOptions(list({PXValue(moment)}), 0, block, &error).str(), expected);
    EXPECT_EQ(JSONDataWithOptions(list({PXValue(moment)}), 0, block, &error)->view(), expected);
  }
}

// Their numbers are written as "%.17g" writes them, so the text comes back unchanged.
TEST(JSONRoundTrip, CorporaAreWrittenBackByteForByte) {
  for (const char* name : {"canada.json", "citm_catalog.json"}) {
    SCOPED_TRACE(name);
    std::string text;
    try {
      if (!PXTestBenchDataDir().empty()) text = PXTestReadFile(PXTestBenchDataDir() + "/" + name);
    } catch (const std::exception&) {
    }
    if (text.empty()) GTEST_SKIP() << "corpus " << name << " not found (PXKIT_BENCH_DATA)";
    PXErrorRef error;
    PXValue doc = JSONDecoder::decoder()->objectWithUTF8String(text.data(), text.size(), &error);
    ASSERT_TRUE(doc) << error->localizedDescription().str();
    const std::string expected = minified(text);
    EXPECT_EQ(JSONDataWithOptions(doc, kPXJSONSerializeOptionNone, &error)->view(), expected);
    // Pretty output differs only in white space.
    EXPECT_EQ(minified(JSONStringWithOptions(doc, kPXJSONSerializeOptionPretty, &error).str()), expected);
    EXPECT_TRUE(JSONDecoder::decoder()->mutableObjectWithUTF8String(text.data(), text.size()).isEqual(doc));
  }
}
